// The options of the program or of one command, as the commands add them. The parser's library takes seconds
// to compile in each file that includes it, so the commands see this header alone.
//
// Threads: the main thread. Lifetime: borrows the parser, which refers to what an option sets until it has
// parsed.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace lm::cli {

/// An option that has been added, to say more about it; each returns itself.
class AddedOption {
  public:
    explicit AddedOption(CLI::Option* option) : option_(option) {}

    AddedOption required();
    /// What the help shows as its default: this text, or what its target holds now.
    AddedOption showDefault(const char* text);
    AddedOption showDefault();
    /// One value each time it is given; words behind that are not taken.
    AddedOption oneEach();
    /// Likewise, but a value with these characters between is several.
    AddedOption oneEach(char delimiter);
    AddedOption oneOf(std::vector<std::string> words);
    /// Returns what is wrong with a value, empty for nothing.
    AddedOption check(const std::function<std::string(const std::string&)>& wrong);
    /// Refuses a number that is not good as "'TEXT' is not WHAT".
    AddedOption checkNumber(bool (*good)(double), const std::string& what);
    /// Called with each value as it was given.
    AddedOption each(const std::function<void(const std::string&)>& tell);

    /// While parsing: whether it was given so far, and giving it.
    bool given() const;
    void give(const std::string& value) const;

  private:
    CLI::Option* option_;
};

class OptionSet {
  public:
    explicit OptionSet(CLI::App& app) : app_(app) {}

    /// Names: "-s,--long", or one word for an argument without an option. Target: a std::string, a path, a
    /// double, a number of 32 bits, a std::uint64_t; an optional std::string, double or std::uint32_t, empty
    /// when it was not given; a vector of std::string, which takes all words that follow.
    template <typename Target>
    AddedOption add(const char* names, Target& target, const char* help);
    /// Like a vector of std::string, handed to `take`.
    AddedOption addWords(const char* names, const std::function<void(std::vector<std::string>)>& take,
                         const char* help);
    void addFlag(const char* names, bool& target, const char* help);
    /// Asked once all is parsed: then an option that is not required in itself is missing. One of them.
    void requireWhen(const char* name, const std::function<bool()>& isMissing);

  private:
    CLI::App& app_;
};

}  // namespace lm::cli
