#include "cli/command_values.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <memory>
#include <span>
#include <unistd.h>

#include <fmt/format.h>

#include "cli/message_output.h"
#include "cli/object_report.h"
#include "cli/options.h"
#include "cli/page_remarks.h"
#include "cli/recording_plot.h"
#include "cli/several_ecus.h"
#include "cli/stop_signal.h"
#include "cli/value_json.h"
#include "cli/write_journal.h"
#include "core/log.h"
#include "core/printable_text.h"
#include "session/folder_filter.h"
#include "session/name_pattern.h"
#include "session/session.h"
#include "value/typed_text.h"

namespace lm::cli {
namespace {

using session::Reading;

/// The pattern of a whole folder.
constexpr std::string_view kAll = "*";

/// Where values come from and go to, and where that is told.
struct ValueDesk {
    session::IValues& values;
    Results& results;
    const value::NumberStyle numbers;
    const bool isImage;
    WriteJournal* journal = nullptr;  ///< of what is written to an ECU
    std::string before = {};          ///< in front of each name: "ECU/" of one of several
};

ValueDesk deskOf(Workplace& place, session::ImageValues* image) {
    if (image != nullptr) return {*image, place.results, numberStyle(place.config), true};
    return {*place.session, place.results, numberStyle(place.session->config()), false};
}

std::string shownText(const Reading& reading, value::NumberStyle style) {
    const std::string text = value::valueText(reading.element, reading.physical(), style);
    return text.empty() ? "?" : text;
}

void writeReading(JsonWriter& json, const Reading& reading, value::NumberStyle style) {
    writeValue(json, reading.element, reading.bytes.data(), shownText(reading, style));
}

/// A value that was read, or why it was not.
class ReadReport : public IReport {
  public:
    ReadReport(std::string name, const Result<Reading>& value, value::NumberStyle style)
        : name_(std::move(name)), value_(value), style_(style) {}

    void print(Output& output) const override {
        output.appendValueLine(name_,
                               value_ ? shownText(value_.value(), style_) : "ERROR " + value_.error().text());
    }

    void write(JsonWriter& json) const override {
        json.beginObject();
        json.member("name", name_);
        writeMembers(json);
        json.endObject();
    }

  protected:
    virtual void writeMembers(JsonWriter& json) const {
        if (value_) return writeReading(json.key("value"), value_.value(), style_);
        json.key("error").beginObject();
        writeError(json, value_.error());
        json.endObject();
    }

    const std::string name_;
    const Result<Reading>& value_;
    const value::NumberStyle style_;
};

/// What became of an assignment.
class WriteReport final : public ReadReport {
  public:
    WriteReport(const std::string& name, std::string_view typed, const session::WriteOutcome& outcome,
                value::NumberStyle style)
        : ReadReport(name, outcome.value, style), typed_(typed), outcome_(outcome) {
        if (!value_) return;
        const value::Element& element = value_.value().element;
        deviation_ = value::deviationText(element, typed, outcome.asked, outcome.written, style);
    }

    void print(Output& output) const override {
        ReadReport::print(output);
        output.flush();
        if (outcome_.held) tell(heldText(*outcome_.held));
        if (!deviation_.empty()) tell(deviation_);
    }

  private:
    void writeMembers(JsonWriter& json) const override {
        json.member("typed", typed_);
        ReadReport::writeMembers(json);
        if (!deviation_.empty()) json.member("deviation", deviation_);
        if (!outcome_.held) return;
        json.key("held");
        if (*outcome_.held) return writeReading(json, outcome_.held->value(), style_);
        json.null();
        json.key("heldError").beginObject();
        writeError(json, outcome_.held->error());
        json.endObject();
    }

    /// A write that failed on its way may have changed the ECU: the user must not have to guess.
    std::string heldText(const Result<Reading>& held) const {
        if (held) return "the ECU now holds " + shownText(held.value(), style_);
        if (held.error().code == ErrorCode::timeout)
            return "the ECU does not answer, what it now holds is not known";
        return "what the ECU now holds is not known: " + held.error().text();
    }

    void tell(const std::string& what) const { printMessage(name_ + ": " + what + "\n"); }

    const std::string_view typed_;
    const session::WriteOutcome& outcome_;
    std::string deviation_;
};

/// What the names stand for, patterns taken apart; patterns take what lies in the folders alone.
class NameExpansion {
  public:
    NameExpansion(const session::FolderFilter& folders, const ObjectStyle& style, const ValueDesk& desk)
        : folders_(folders), style_(style), desk_(desk), description_(desk.values.description()) {}

    /// Names that were not found stay, and are none later either. What is refused is told and left out.
    std::vector<std::string> run(const std::vector<std::string>& typed) {
        for (const std::string& name : typed) {
            if (!session::isNamePattern(description_, name)) {
                names_.push_back(name);
            } else if (auto added = addMatches(name); !added) {
                desk_.results.show(ObjectReport(name, added.error(), style_));
                isComplete_ = false;
            }
            if (stopRequested()) return {};
        }
        return std::move(names_);
    }
    bool isComplete() const { return isComplete_; }

  private:
    Result<void> addMatches(const std::string& pattern) {
        if (auto few = session::checkParts(description_, pattern, "read", folders_); !few) return few;
        std::vector<std::string> matches =
            session::namesMatching(description_, pattern, session::NameKind::all, stopToken(), folders_);
        const std::size_t found = matches.size();
        std::erase_if(matches, [&](const std::string& match) {
            return !stopRequested() && !desk_.values.canRead(match);
        });
        if (stopRequested()) return {};
        if (matches.empty() && found > 0 && desk_.isImage) {
            return Error{
                ErrorCode::notFound,
                fmt::format("'{}' matches {} object(s), none of which the image holds", pattern, found)};
        }
        if (matches.empty() && !folders_.takesAll()) return outsideFolders(pattern);
        if (matches.size() < found && !matches.empty()) {
            printMessage(
                fmt::format("'{}' matches {} object(s), {} of which cannot be read and are left out\n",
                            printableText(pattern), found, found - matches.size()));
        }
        if (matches.empty()) matches.push_back(pattern);
        std::move(matches.begin(), matches.end(), std::back_inserter(names_));
        return {};
    }

    static Error outsideFolders(const std::string& pattern) {
        return {
            ErrorCode::notFound,
            pattern == kAll
                ? "nothing that can be read lies in the groups and functions that were named"
                : fmt::format("'{}' matches no name in the groups and functions that were named", pattern)};
    }

    const session::FolderFilter& folders_;
    const ObjectStyle& style_;
    const ValueDesk& desk_;
    const a2l::Description& description_;
    std::vector<std::string> names_;
    bool isComplete_ = true;
};

/// Reads and shows the first scalars of the names, or the object that is the first; returns how many.
std::size_t getSome(std::span<const std::string> names, const ObjectStyle& style, const ValueDesk& desk,
                    int& exitCode) {
    const auto count = static_cast<std::size_t>(
        std::find_if(names.begin(), names.end(),
                     [&](const std::string& name) { return !desk.values.objects().isScalar(name); }) -
        names.begin());
    if (count == 0) {
        const auto reading = desk.values.readObject(names.front());
        desk.results.show(ObjectReport(names.front(), reading, style));
        if (reading) return 1;
        desk.results.hint(reading.error());
        exitCode = 1;
        return 1;
    }
    const auto values = desk.values.read(names.first(count));
    for (std::size_t i = 0; i < values.size(); ++i) {
        desk.results.show(ReadReport(desk.before + names[i], values[i], style.numbers));
        if (values[i]) continue;
        desk.results.hint(values[i].error());
        exitCode = 1;
    }
    return values.size();
}

int getAll(const std::vector<std::string>& typed, const session::FolderFilter& folders, bool plot,
           const ValueDesk& desk) {
    ObjectStyle style{desk.numbers, std::nullopt, desk.before};
    if (plot) style.plot = plotStyleFor(STDOUT_FILENO);
    NameExpansion expansion(folders, style, desk);
    const std::vector<std::string> names = expansion.run(typed);
    int exitCode = expansion.isComplete() ? 0 : 1;
    for (std::span<const std::string> rest(names); !rest.empty();) {
        if (stopRequested()) return 1;
        rest = rest.subspan(getSome(rest, style, desk, exitCode));
        // Each value appears soon after it is read, however slow the next one is.
        if (!desk.results.output().flush()) break;
    }
    return exitCode;
}

void announceDependents(std::string_view name, const std::vector<std::string>& dependents) {
    printMessage(printableText(fmt::format("{}: what depends on it is computed and written, too: {}", name,
                                           fmt::join(dependents, ", "))) +
                 "\n");
}

bool assignObject(session::WriteWish wish, const ValueDesk& desk) {
    if (desk.journal != nullptr)
        wish.beforeWriting = [&](const auto& changes) { desk.journal->keepUndo(changes); };
    wish.tellsOne = desk.journal != nullptr && desk.journal->keepsSingles();
    const auto writing = desk.values.writeObject(wish, [&](const std::vector<std::string>& dependents) {
        announceDependents(desk.before + std::string(wish.name), dependents);
    });
    const ObjectStyle style{desk.numbers, std::nullopt, desk.before};
    desk.results.show(ObjectWriteReport(wish, writing, style));
    if (!writing.value) desk.results.hint(writing.value.error());
    if (desk.journal != nullptr) desk.journal->note(writing);
    return writing.value.ok();
}

struct Assignment {
    std::string_view name;
    std::string_view text;
    session::Relation relation = session::Relation::value;
};

/// NAME+=5 unless the A2L has a name that ends with the sign.
Assignment assignmentOf(std::string_view name, std::string_view text, const a2l::Description& description) {
    constexpr std::string_view kSigns = "+-*";
    constexpr std::array<session::Relation, 3> kRelations = {
        session::Relation::plus, session::Relation::minus, session::Relation::times};
    const auto sign = kSigns.find(name.back());
    if (sign == std::string_view::npos || a2l::parseObjectName(description, name)) return {name, text};
    const std::string_view before = name.substr(0, name.size() - 1);
    if (!a2l::parseObjectName(description, before)) return {name, text};
    return {before, text, kRelations.at(sign)};
}

struct AssignOptions {
    session::WriteRights rights;
    bool dependents = true;
};

bool assign(const std::string& assignment, AssignOptions options, const ValueDesk& desk) {
    const auto refuse = [&](const Error& error) {
        desk.results.fail(desk.before + assignment, error, desk.before + assignment);
        return false;
    };
    if (stopRequested()) return refuse(Error::stopped("not written, stopped"));
    const auto parts = splitAssignment(assignment);
    if (!parts) return refuse({ErrorCode::invalidArgument, "expected NAME=VALUE"});
    const Assignment wish = assignmentOf(parts->first, parts->second, desk.values.description());
    const auto name = wish.name;
    const auto text = wish.text;
    const session::NamedObjects& objects = desk.values.objects();
    if (wish.relation != session::Relation::value || !objects.isScalar(name) ||
        (options.dependents && objects.hasDependents(name)))
        return assignObject({name, text, options.rights, options.dependents, wish.relation, {}}, desk);
    session::BeforeWriting keep;
    if (desk.journal != nullptr && desk.journal->keepsSingles())
        keep = [&](const auto& changes) { desk.journal->keepUndo(changes); };
    const auto outcome = desk.values.write(name, text, options.rights, keep);
    desk.results.show(WriteReport(desk.before + std::string(name), text, outcome, desk.numbers));
    if (!outcome.value) desk.results.hint(outcome.value.error());
    if (desk.journal != nullptr) desk.journal->note(outcome);
    return outcome.value.ok();
}

/// Of the pages and of the identity of the ECU.
int withWarnings(int exitCode, const std::vector<std::string>& failOn, Workplace& place) {
    tellPages(place);
    return withIdentity(exitCode, failOn, place.session->identityWarned());
}

/// Of several ECUs, those that were open.
int withWarningsOfAll(int exitCode, const std::vector<std::string>& failOn, Workplace& place) {
    for (const std::size_t ecu : place.ecus->all()) {
        const log::Subject subject(place.ecus->name(ecu));
        place.session = &place.ecus->at(ecu);
        if (place.session->state() == session::SessionState::connected)
            exitCode = withWarnings(exitCode, failOn, place);
    }
    place.session = nullptr;
    return exitCode;
}

/// The ECUs of words; one that could not be opened tells so in each of its words.
void openAndTell(Workplace& place, std::vector<EcuWord>& words) {
    std::vector<std::size_t> ecus;
    for (const EcuWord& word : words) {
        if (!word.error) ecus.push_back(word.ecu);
    }
    const auto errors = openEcus(place, std::move(ecus));
    for (EcuWord& word : words) {
        if (!word.error) word.error = errors[word.ecu];
    }
}

/// The desk of one of several.
ValueDesk deskOf(Workplace& place, std::size_t ecu) {
    session::Session& session = place.ecus->at(ecu);
    return {session, place.results, numberStyle(session.config()),
            false,   nullptr,       place.ecus->name(ecu) + "/"};
}

void showRefused(const EcuWord& word, Results& results) {
    const Result<session::ObjectReading> refused = *word.error;
    results.show(ObjectReport(word.typed, refused, {value::NumberStyle::formatted, std::nullopt}));
    results.hint(*word.error);
}

/// `work` shows the values one after the other and gives the exit code.
template <typename Work>
int listValues(Workplace& place, const Work& work) {
    JsonWriter* const json = place.results.json();
    if (json != nullptr) json->key("values").beginArray();
    const int exitCode = work();
    if (json != nullptr) json->endArray();
    return stopRequested() ? 1 : exitCode;
}

}  // namespace

std::optional<std::pair<std::string_view, std::string_view>> splitAssignment(std::string_view text) {
    const auto equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0) return std::nullopt;
    return std::pair(text.substr(0, equals), text.substr(equals + 1));
}

bool assignOne(const std::string& assignment, Workplace& place) {
    ValueDesk desk = deskOf(place, nullptr);
    WriteJournal journal(*place.session, {assignment});
    desk.journal = &journal;
    bool done = false;
    listValues(place, [&] {
        done = assign(assignment, {}, desk);
        return 0;
    });
    journal.end();
    return done;
}

void GetCommand::addOptions(OptionSet& options) {
    options.add("names", names_,
                "MEASUREMENT or CHARACTERISTIC names, NAME[1][2] for an element, NAME.x[3] for a point of an "
                "axis; * and ? match. None: all that lies in --group and --function");
    addFolders(options, groups_, functions_);
    options.requireWhen("names", [this] { return names_.empty() && groups_.empty() && functions_.empty(); });
    options.addFlag("--plot", plot_, "Draw curves as lines and colour maps");
    image_.addOption(options);
    addExact(options, exact_);
    addFailOnIdentity(options, failOn_);
}

void GetCommand::overrule(session::SessionConfig& config) const {
    config.display.exact = config.display.exact || exact_;
}

/// Words of one ECU that stand side by side are read together.
int GetCommand::runOnSeveral(Workplace& place) {
    std::vector<EcuWord> words;
    if (names_.empty()) {
        for (const std::size_t ecu : place.ecus->all())
            words.push_back({ecu, std::string(kAll), place.ecus->name(ecu) + "/*", std::nullopt});
    } else {
        words = ecuWords(place.ecus->names(), *place.ecus, names_);
    }
    openAndTell(place, words);
    const int exitCode = listValues(place, [&] {
        int code = 0;
        for (std::size_t i = 0; i < words.size() && !stopRequested();) {
            const EcuWord& first = words[i];
            std::vector<std::string> texts;
            for (; !first.error && i < words.size() && !words[i].error && words[i].ecu == first.ecu; ++i)
                texts.push_back(words[i].text);
            if (first.error) {
                showRefused(first, place.results);
                code = 1;
                ++i;
                continue;
            }
            const log::Subject subject(place.ecus->name(first.ecu));
            const ValueDesk desk = deskOf(place, first.ecu);
            const auto folders =
                session::FolderFilter::create(desk.values.description(), groups_, functions_);
            if (!folders) place.results.fail("get", folders.error(), place.ecus->name(first.ecu));
            if (!folders || getAll(texts, folders.value(), plot_, desk) != 0) code = 1;
        }
        return code;
    });
    return withWarningsOfAll(exitCode, failOn_, place);
}

int GetCommand::run(Workplace& place) {
    if (place.ecus != nullptr) return runOnSeveral(place);
    std::unique_ptr<session::ImageValues> image;
    if (image_.isGiven() && !(image = image_.open(place, ImageSource::Purpose::reading))) return 1;
    const ValueDesk desk = deskOf(place, image.get());
    const auto folders = session::FolderFilter::create(desk.values.description(), groups_, functions_);
    if (!folders) {
        place.results.fail("get", folders.error());
        return 1;
    }
    const std::vector<std::string> all = {std::string(kAll)};
    const int exitCode = listValues(
        place, [&] { return getAll(names_.empty() ? all : names_, folders.value(), plot_, desk); });
    return image ? withIdentity(exitCode, failOn_, image_.identityWarned())
                 : withWarnings(exitCode, failOn_, place);
}

void SetCommand::addOptions(OptionSet& options) {
    options
        .add("assignments", assignments_,
             "NAME=VALUE, NAME[1][2]=VALUE, NAME='[[1,2],[3,4]]', NAME[*]=VALUE, NAME=@FILE.csv; NAME+=5, "
             "NAME-=5, NAME*=1.05 from what is held")
        .required();
    options.addFlag("-m,--measurements", allowMeasurements_,
                    "Also overwrite measurements (without READ_WRITE in the A2L)");
    options.addFlag("--extended-limits", extendedLimits_,
                    "Up to the EXTENDED_LIMITS of the A2L, beyond the limits");
    options.addFlag("--no-dependents", noDependents_,
                    "Leave the parameters that are computed from what is written");
    image_.addOption(options);
    options.add("-o,--output", output_, "With --hex: the new file, in the form that its name ends with");
    addExact(options, exact_);
    addFailOnIdentity(options, failOn_);
}

Result<void> SetCommand::prepare(Form /*form*/) {
    if (image_.isGiven() != output_.has_value()) {
        return Error{ErrorCode::invalidArgument,
                     image_.isGiven() ? "--hex leaves its file as it is: --output FILE names the new one"
                                      : "--output is the new image of --hex IMAGE, which was not given"};
    }
    if (!image_.isGiven()) return {};
    if (const auto ending = params::memoryFileEnding(*output_); !ending) return ending.error();
    return params::checkNewFile(*output_);
}

void SetCommand::overrule(session::SessionConfig& config) const {
    config.display.exact = config.display.exact || exact_;
}

/// ECU/NAME=VALUE; what follows the name may hold slashes of its own. A sign before the equals sign is no
/// part of a name without an ECU.
std::vector<EcuWord> SetCommand::assignmentsByEcu(const Workplace& place) const {
    const session::NameSearch names = place.ecus->names();
    std::vector<EcuWord> words;
    for (const std::string& assignment : assignments_) {
        const auto parts = splitAssignment(assignment);
        if (!parts) {
            words.push_back(
                {0, assignment, assignment, Error{ErrorCode::invalidArgument, "expected NAME=VALUE"}});
            continue;
        }
        auto found = names.find(parts->first);
        const bool isSigned = std::string_view("+-*").find(parts->first.back()) != std::string_view::npos;
        std::string sign = "=";
        if (!found && isSigned) {
            found = names.find(parts->first.substr(0, parts->first.size() - 1));
            sign.insert(sign.begin(), parts->first.back());
        }
        if (!found) {
            words.push_back({0, assignment, assignment, found.error()});
            continue;
        }
        for (const session::NameSearch::Found& one : found.value()) {
            const std::string text = one.text + sign + std::string(parts->second);
            words.push_back({one.ecu, text, place.ecus->name(one.ecu) + "/" + text, std::nullopt});
        }
    }
    return words;
}

int SetCommand::runOnSeveral(Workplace& place) {
    std::vector<EcuWord> words = assignmentsByEcu(place);
    openAndTell(place, words);
    std::map<std::size_t, WriteJournal> journals;
    for (const EcuWord& word : words) {
        if (!word.error) journals.try_emplace(word.ecu, place.ecus->at(word.ecu), assignments_);
    }
    const int exitCode = listValues(place, [&] {
        int code = 0;
        for (const EcuWord& word : words) {
            if (word.error) {
                place.results.fail(word.typed, *word.error, word.typed);
                code = 1;
                continue;
            }
            const log::Subject subject(place.ecus->name(word.ecu));
            ValueDesk desk = deskOf(place, word.ecu);
            desk.journal = &journals.at(word.ecu);
            if (!assign(word.text, {{allowMeasurements_, extendedLimits_}, !noDependents_}, desk)) code = 1;
        }
        return code;
    });
    for (auto& [ecu, journal] : journals)
        journal.end();
    return withWarningsOfAll(exitCode, failOn_, place);
}

int SetCommand::run(Workplace& place) {
    if (place.ecus != nullptr) return runOnSeveral(place);
    std::unique_ptr<session::ImageValues> image;
    if (image_.isGiven() && !(image = image_.open(place, ImageSource::Purpose::writing))) return 1;
    ValueDesk desk = deskOf(place, image.get());
    std::optional<WriteJournal> journal;
    if (!image) desk.journal = &journal.emplace(*place.session, assignments_);
    std::size_t failed = 0;
    const int exitCode = listValues(place, [&] {
        for (const std::string& assignment : assignments_) {
            if (!assign(assignment, {{allowMeasurements_, extendedLimits_}, !noDependents_}, desk)) ++failed;
        }
        return failed == 0 ? 0 : 1;
    });
    if (journal) journal->end();
    if (!image) return withWarnings(exitCode, failOn_, place);
    return withIdentity(finishImage(*image, failed, place), failOn_, image_.identityWarned());
}

/// A file with half of what was asked for would pass for one with all of it.
int SetCommand::finishImage(const session::ImageValues& image, std::size_t failed, Workplace& place) const {
    Result<void> written;
    if (failed > 0) {
        written =
            Error{ErrorCode::invalidArgument, fmt::format("{} is not written: {} of {} assignment(s) failed",
                                                          *output_, failed, assignments_.size())};
    } else if (stopRequested()) {
        written = Error::stopped(*output_ + " is not written, stopped");
    } else {
        written = params::writeMemoryFile(*output_, image.file());
    }
    if (!written) {
        place.results.fail("set", written.error(), *output_);
        return 1;
    }
    if (JsonWriter* const json = place.results.json(); json != nullptr) {
        json->member("output", *output_);
    } else {
        place.results.output().append(printableText(*output_) + " written\n");
    }
    return 0;
}

}  // namespace lm::cli
