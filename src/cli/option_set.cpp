#include "cli/option_set.h"

#include <cstdint>
#include <filesystem>
#include <optional>

#include <CLI/App.hpp>
#include <CLI/Error.hpp>
#include <CLI/Option.hpp>
#include <CLI/Validators.hpp>

namespace lm::cli {

AddedOption AddedOption::required() {
    option_->required();
    return *this;
}

AddedOption AddedOption::showDefault(const char* text) {
    option_->default_str(text);
    return *this;
}

AddedOption AddedOption::showDefault() {
    option_->capture_default_str();
    return *this;
}

AddedOption AddedOption::oneEach() {
    option_->allow_extra_args(false);
    return *this;
}

AddedOption AddedOption::oneEach(char delimiter) {
    option_->delimiter(delimiter);
    return oneEach();
}

AddedOption AddedOption::oneOf(std::vector<std::string> words) {
    option_->check(CLI::IsMember(std::move(words)));
    return *this;
}

AddedOption AddedOption::check(const std::function<std::string(const std::string&)>& wrong) {
    option_->check(wrong, "");
    return *this;
}

AddedOption AddedOption::checkNumber(bool (*good)(double), const std::string& what) {
    return check([good, what](const std::string& text) {
        double number = 0;
        if (!CLI::detail::lexical_cast(text, number)) return std::string();  // the conversion tells it
        return good(number) ? std::string() : "'" + text + "' is not " + what;
    });
}

AddedOption AddedOption::each(const std::function<void(const std::string&)>& tell) {
    option_->each(tell);
    return *this;
}

bool AddedOption::given() const {
    return option_->count() != 0;
}

void AddedOption::give(const std::string& value) const {
    option_->add_result(value);
    option_->run_callback();
}

template <typename Target>
AddedOption OptionSet::add(const char* names, Target& target, const char* help) {
    return AddedOption(app_.add_option(names, target, help));
}

template AddedOption OptionSet::add(const char*, std::string&, const char*);
template AddedOption OptionSet::add(const char*, std::optional<std::string>&, const char*);
template AddedOption OptionSet::add(const char*, std::vector<std::string>&, const char*);
template AddedOption OptionSet::add(const char*, std::filesystem::path&, const char*);
template AddedOption OptionSet::add(const char*, std::optional<double>&, const char*);
template AddedOption OptionSet::add(const char*, double&, const char*);
template AddedOption OptionSet::add(const char*, std::int32_t&, const char*);
template AddedOption OptionSet::add(const char*, std::uint32_t&, const char*);
template AddedOption OptionSet::add(const char*, std::uint64_t&, const char*);
template AddedOption OptionSet::add(const char*, std::optional<std::uint32_t>&, const char*);

AddedOption OptionSet::addWords(const char* names, const std::function<void(std::vector<std::string>)>& take,
                                const char* help) {
    return AddedOption(app_.add_option_function<std::vector<std::string>>(names, take, help));
}

void OptionSet::addFlag(const char* names, bool& target, const char* help) {
    app_.add_flag(names, target, help);
}

void OptionSet::requireWhen(const char* name, const std::function<bool()>& isMissing) {
    app_.parse_complete_callback([name = std::string(name), isMissing] {
        if (isMissing()) throw CLI::RequiredError(name);
    });
}

}  // namespace lm::cli
