#include "cli/command_apply.h"

#include <algorithm>
#include <memory>
#include <set>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "cli/apply_report.h"
#include "cli/apply_undo.h"
#include "cli/command_snapshot.h"
#include "cli/diff_report.h"
#include "cli/message_output.h"
#include "cli/options.h"
#include "cli/page_remarks.h"
#include "cli/progress_line.h"
#include "cli/question.h"
#include "cli/stop_signal.h"
#include "cli/write_journal.h"
#include "core/printable_text.h"
#include "params/parameter_diff.h"
#include "params/parameter_file.h"
#include "session/change_log.h"
#include "session/folder_filter.h"
#include "session/page_objects.h"
#include "session/state_folder.h"
#include "storage/read/signal_selection.h"

namespace lm::cli {
namespace {

Error refused(const std::string& what) {
    return {ErrorCode::invalidArgument, what};
}

/// Of an image that tells its EPK, or whose A2L is another one than the file's.
Result<void> checkImageOf(const Workplace& place, const session::ImageValues& image,
                          const session::SoftwareOf& file) {
    if (place.options.ignoreIdentity) return {};
    const session::Identity& identity = image.identity();
    auto right = session::checkSameSoftware(file, identity, image.description().sha256);
    if (right || file.epk.empty() || identity.ecu.empty()) return right;
    Error error = right.error();
    error.message = fmt::format("the file is for \"{}\", the image is of \"{}\"", printableText(file.epk),
                                printableText(identity.ecu));
    return error;
}

/// The message of an object often begins with its name.
Error withName(const std::string& name, Error error) {
    if (error.text().find(name) == std::string::npos) error.message = name + ": " + error.text();
    return error;
}

std::vector<const session::ObjectBytes*> changesOf(const session::ApplyPlan& plan) {
    std::vector<const session::ObjectBytes*> changes;
    for (const session::ApplyStep& step : plan.steps)
        changes.push_back(&step.change);
    return changes;
}

void tellPages(const session::PagedWrite* pages, Results& results) {
    if (pages == nullptr || !pages->switches()) return;
    printMessageLine(fmt::format("written on {}, which the ECU uses now", pages->placeText()));
    JsonWriter* const json = results.json();
    if (json == nullptr) return;
    json->key("pages").beginArray();
    for (const session::WrittenPage& place : pages->written()) {
        json->beginObject();
        json->member("segment", place.segment);
        json->member("ecuPageBefore", place.ecuPage);
        json->member("page", place.page);
        json->endObject();
    }
    json->endArray();
}

void tellUnfit(const Result<std::vector<std::string>>& unfit, Results& results) {
    if (!unfit) {
        printMessageLine("what depends on the parameters written was not checked: " + unfit.error().text());
    } else if (!unfit.value().empty()) {
        printMessageLine(
            fmt::format("no longer fit what they depend on: {}", fmt::join(unfit.value(), ", ")));
        if (JsonWriter* const json = results.json()) json->listMember("unfit", unfit.value());
    }
}

}  // namespace

struct ApplyCommand::Target {
    Workplace& place;
    session::ImageValues* image;  ///< null for the ECU
    const a2l::Description& description;
    session::IMemory& memory;
    session::PagedWrite* pages = nullptr;  ///< of the ECU

    session::ReadObjects reader(ProgressLine& line) const {
        if (image == nullptr) {
            return [&line, this](std::span<const a2l::Object> objects, const auto& take) {
                const auto show = [&line](std::uint64_t done, std::uint64_t total) {
                    line.show(done, total);
                };
                return place.session->readTogether(objects, show, take);
            };
        }
        return [this](std::span<const a2l::Object> objects, const auto& take) {
            return image->readTogether(objects, take);
        };
    }
};

void ApplyCommand::addOptions(OptionSet& options) {
    options.add("file", file_, "Parameter file (.json, .cdfx, .dcm) or memory image (.hex, .s19, ...)");
    options.requireWhen("file", [this] { return !file_ && !undo_; });
    options.add("names", patterns_, "Names of parameters; * and ? match (default: all of the file)");
    addFolders(options, groups_, functions_);
    options.addFlag("--dry-run", dryRun_, "Check everything, show what would change, write nothing");
    options.addFlag("--keep-going", keepGoing_,
                    "Go on after a write that failed, and leave what was written");
    options.addFlag("--extended-limits", extendedLimits_,
                    "Up to the EXTENDED_LIMITS of the A2L, beyond the limits");
    options.add(
        "--page", page_,
        "Write on this calibration page and switch the ECU to it (default: with two pages the one that "
        "the ECU does not use)");
    options.addFlag("--yes", yes_, "Switch the ECU's page without asking");
    options.add("--undo", undo_, "Put back what this undo file holds; 'last' is the latest of this ECU");
    options.add("--undo-file", undoFile_,
                "Keep what was there in this new file (default: in the state folder)");
    image_.addOption(options);
    options.add("-o,--output", output_, "With --hex: the new file, in the form that its name ends with");
}

Result<void> ApplyCommand::checkUndo() const {
    if (file_ || !patterns_.empty() || !groups_.empty() || !functions_.empty())
        return refused("--undo puts back all of its file: it takes no parameter file and no names");
    if (dryRun_ || keepGoing_ || extendedLimits_ || page_ || undoFile_ || image_.isGiven() || output_)
        return refused("--undo goes with no other option of this command");
    return {};
}

Result<void> ApplyCommand::checkImage() const {
    if (!image_.isGiven())
        return output_
                   ? Result<void>(refused("--output is the new image of --hex IMAGE, which was not given"))
                   : Result<void>();
    if (page_) return refused("--page is for an ECU: an image has no calibration pages");
    if (undoFile_) return refused("--hex leaves its file as it is: --undo-file has nothing to keep");
    if (dryRun_ && !output_) return {};
    if (!output_) return refused("--hex leaves its file as it is: --output FILE names the new one");
    if (const auto ending = params::memoryFileEnding(*output_); !ending) return ending.error();
    return params::checkNewFile(*output_);
}

/// Files that cannot be read are told before anyone waits for the ECU.
Result<void> ApplyCommand::prepare(Form /*form*/) {
    if (undo_) {
        if (auto alone = checkUndo(); !alone) return alone;
        undoing_.emplace(*undo_);
        return undoing_->prepare();
    }
    if (auto fits = checkImage(); !fits) return fits;
    if (page_.value_or(0) > UINT8_MAX) return refused(fmt::format("page {}: 0 to 255 are possible", *page_));
    if (params::memoryFileEnding(*file_)) return {};
    auto set = params::readParameterFile(*file_, notes_, stopToken());
    if (!set) return set.error();
    set_ = std::move(set).value();
    return {};
}

/// False when that was told.
bool ApplyCommand::takeImage(Workplace& place, const session::ImageValues* beside) {
    ImageSource source;
    source.takeFile(*file_);
    const auto image = source.open(place, ImageSource::Purpose::reading, beside);
    if (!image) return false;
    const auto folders = session::FolderFilter::create(image->description(), groups_, functions_);
    std::vector<std::string> outside;
    auto reading = folders ? readFromImage(place, *image, patterns_, folders.value(), outside)
                           : Result<session::ParameterReading>(folders.error());
    if (!reading) place.results.failOrStopped("apply", reading.error(), *file_);
    if (!reading || !reading.value().unread.empty()) return false;
    set_ = std::move(reading.value().set);
    return true;
}

int ApplyCommand::run(Workplace& place) {
    if (undoing_) return undoing_->run(place);
    for (const std::string& note : notes_)
        printMessageLine(note);
    std::unique_ptr<session::ImageValues> image;
    if (image_.isGiven() && !(image = image_.open(place, ImageSource::Purpose::writing))) return 1;
    if (params::memoryFileEnding(*file_) && !takeImage(place, image.get())) return 1;
    const session::SoftwareOf software{set_.origin.epk, set_.origin.a2lSha256};
    if (auto right = image ? checkImageOf(place, *image, software) : checkEcu(place, software); !right) {
        place.results.fail("apply", right.error(), *file_);
        return 1;
    }
    if (image) return applyTo({place, image.get(), image->description(), image->memory()});
    const auto pages = place.session->pagedWrite();
    std::optional<std::uint8_t> wish;
    if (page_) wish = static_cast<std::uint8_t>(*page_);
    if (auto begun = pages->begin(wish); !begun) {
        place.results.failOrStopped("apply", begun.error(), *file_);
        return begun.error().code == ErrorCode::timeout ? kUnanswered : 1;
    }
    const int code =
        applyTo({place, nullptr, place.session->description(), place.session->objectMemory(), pages.get()});
    tellPages(place);
    return code;
}

/// Of the file: what the names and folders take.
Result<void> ApplyCommand::keepWanted(const a2l::Description& description) {
    const auto folders = session::FolderFilter::create(description, groups_, functions_);
    if (!folders) return folders.error();
    std::vector<bool> isUsed(patterns_.size());
    std::erase_if(set_.parameters, [&](const params::Parameter& parameter) {
        const std::string& name = parameter.name;
        bool wanted = patterns_.empty() && folders.value().takes(name);
        for (std::size_t i = 0; i < patterns_.size(); ++i) {
            const bool matches = storage::matchesPattern(name, patterns_[i]) &&
                                 (name == patterns_[i] || folders.value().takes(name));
            if (matches) isUsed[i] = true;
            wanted = wanted || matches;
        }
        return !wanted;
    });
    std::erase_if(set_.leftOut, [&](const std::string& name) {
        const auto matches = [&](const std::string& pattern) {
            return storage::matchesPattern(name, pattern);
        };
        return patterns_.empty() ? !folders.value().takes(name)
                                 : std::none_of(patterns_.begin(), patterns_.end(), matches);
    });
    const auto idle = std::find(isUsed.begin(), isUsed.end(), false);
    if (idle != isUsed.end()) {
        return Error{ErrorCode::notFound,
                     fmt::format("'{}' matches no parameter of {}",
                                 patterns_[static_cast<std::size_t>(idle - isUsed.begin())], *file_)};
    }
    if (!set_.parameters.empty()) return {};
    return Error{ErrorCode::notFound, *file_ + ": there is no parameter to be written"};
}

Result<session::ApplyPlan> ApplyCommand::makePlan(const Target& target) {
    if (auto kept = keepWanted(target.description); !kept) return kept.error();
    ProgressLine line(true, "reading");
    auto plan = session::planApply(target.description, set_, extendedLimits_, target.reader(line));
    if (!plan) return plan;
    for (const std::string& name : set_.leftOut) {
        plan.value().problems.push_back(
            {name, {ErrorCode::unsupported, name + ": the file has nothing that can be written"}});
    }
    params::Origin& held = plan.value().held.origin;
    held.ecu = target.image != nullptr ? std::string() : target.place.session->ecuName();
    held.time = session::utcTime();
    plan.value().wanted.origin = set_.origin;
    return plan;
}

int ApplyCommand::applyTo(const Target& target) {
    Results& results = target.place.results;
    const auto plan = makePlan(target);
    if (!plan) {
        results.failOrStopped("apply", plan.error(), *file_);
        return plan.error().code == ErrorCode::timeout ? kUnanswered : 1;
    }
    const auto& problems = plan.value().problems;
    for (const session::UnreadParameter& problem : problems) {
        results.fail("", withName(problem.name, problem.error), problem.name);
    }
    if (target.pages != nullptr) {
        if (auto chosen = target.pages->choose(changesOf(plan.value())); !chosen) {
            results.failOrStopped("apply", chosen.error(), *file_);
            return 1;
        }
    }
    if (dryRun_) {
        auto difference = params::compare(plan.value().held, plan.value().wanted);
        difference.equal = plan.value().equal;
        const std::size_t all = set_.parameters.size();
        results.show(DiffReport({target.image != nullptr ? "image" : "ecu", &plan.value().held, all},
                                {*file_, &plan.value().wanted, all}, difference));
        return problems.empty() ? 0 : 1;
    }
    if (!problems.empty()) {
        printMessageLine(fmt::format("nothing is written: {} of {} parameter(s) cannot be", problems.size(),
                                     set_.parameters.size()));
        return 1;
    }
    return writeAll(target, plan.value());
}

Result<std::optional<std::filesystem::path>> ApplyCommand::keepUndo(const Target& target,
                                                                    const session::ApplyPlan& plan) const {
    if (target.image != nullptr || plan.steps.empty()) return std::optional<std::filesystem::path>();
    session::Session& session = *target.place.session;
    session::UndoFile undo{session.ecuName(),      session.identity().ecu, target.description.sha256,
                           session::utcTime(),     "apply " + *file_,      {},
                           target.pages->written()};
    undo.place = session.ecuPlace();
    undo.ecuText = session.ecuText();
    for (const session::ApplyStep& step : plan.steps)
        if (!step.change.pieces.empty()) undo.objects.push_back(step.change);
    std::optional<std::filesystem::path> wish;
    if (undoFile_) wish = *undoFile_;
    auto path = session::keepUndoFile(undo, wish);
    if (path) return std::optional(std::move(path).value());
    Error error = path.error();
    if (!undoFile_) error.hint = "--undo-file names another place for what is there now";
    return error;
}

int ApplyCommand::writeAll(const Target& target, const session::ApplyPlan& plan) {
    std::optional<session::SharedOperation> whole;  // no one else writes or moves pages in between
    if (target.image == nullptr) whole.emplace(target.place.session->sharing());
    Results& results = target.place.results;
    std::vector<session::NamedObjects::Change> changes;
    changes.reserve(plan.steps.size());
    for (const session::ApplyStep& step : plan.steps)
        changes.push_back({step.before, step.wanted});
    const auto unfit =
        session::NamedObjects(target.description, target.memory, stopToken()).unfitDependents(changes);
    const auto wanted = isPageWanted(target, plan);
    if (!wanted || !wanted.value()) {
        if (wanted) printMessageLine("nothing is written");
        if (!wanted) results.failOrStopped("apply", wanted.error(), *file_);
        return 1;
    }
    const auto kept = keepUndo(target, plan);
    if (!kept) {
        results.fail("nothing is written", kept.error());
        return 1;
    }
    std::optional<std::string> undoName;
    if (kept.value()) undoName = kept.value()->string();
    if (undoName) printMessageLine("undo file: " + *undoName);

    if (target.pages != nullptr && !plan.steps.empty()) {
        if (auto entered = target.pages->enter(); !entered) {
            results.failOrStopped("nothing is written", entered.error());
            return 1;
        }
    }
    const session::ApplyOutcome outcome = write(target, plan);
    results.show(ApplyReport(plan, outcome, undoName));
    const std::size_t lost = notPutBack(outcome.takenBack);
    if (lost > 0 && undoName)
        printMessageLine(
            fmt::format("{} parameter(s) are not as they were: apply --undo {}", lost, *undoName));
    if (outcome.stopped) printMessageLine(lost > 0 ? "stopped" : "stopped, nothing stays written");
    if (undoName && lost == 0 && outcome.written.empty()) markAsUsed(*undoName);
    if (!outcome.written.empty()) tellPages(target.pages, results);
    if (!outcome.failed.empty() || outcome.stopped) return 1;
    tellUnfit(unfit, results);
    if (auto written = writeImage(target); !written) {
        results.fail("apply", written.error(), *output_);
        return 1;
    }
    return 0;
}

/// Errors have been told, and what was written is in the file of changes.
session::ApplyOutcome ApplyCommand::write(const Target& target, const session::ApplyPlan& plan) const {
    std::optional<session::ChangeLog> log;
    std::set<std::string_view> logged;
    if (target.image == nullptr)
        log.emplace(target.place.session->ecuName(), "apply " + *file_, tellSession(*target.place.session));
    session::ApplyOutcome outcome;
    {
        ProgressLine line(true, "writing");
        session::ApplyOptions options = optionsOf(target, plan);
        options.progress = [&](std::size_t done, std::size_t total) { line.show(done, total); };
        if (target.image == nullptr) options.reconnect = [&] { return target.place.session->openAgain(); };
        if (target.image == nullptr)
            options.writing = [&](const auto& step) { target.place.session->announceWrite(step.change); };
        options.written = [&](const session::ApplyStep& step) {
            if (!log) return;
            logged.insert(step.object.name);
            log->add(*plan.held.find(step.object.name), *plan.wanted.find(step.object.name), step.change);
            log->flush();
        };
        outcome = session::carryOut(target.memory, stopToken(), plan, options);
    }
    for (const session::UnreadParameter& failed : outcome.failed) {
        const Error error =
            target.image == nullptr ? target.place.session->explainWrite(failed.error) : failed.error;
        target.place.results.fail("apply", failed.name.empty() ? error : withName(failed.name, error),
                                  failed.name.empty() ? *file_ : failed.name);
    }
    for (const session::PutBack& object : outcome.takenBack) {
        const auto step = std::find_if(plan.steps.begin(), plan.steps.end(),
                                       [&](const auto& one) { return one.object.name == object.name; });
        if (!log) continue;
        const bool isBack = notPutBack({object}) == 0;
        if (!isBack) log->addUnknown(step->change);
        if (isBack && logged.count(object.name) != 0) log->add(step->change, true);
    }
    if (log) log->flush();
    if (target.image == nullptr) {
        std::vector<session::ObjectBytes> written;
        for (const std::size_t step : outcome.written)
            written.push_back(plan.steps[step].change);
        target.place.session->noteWrites(std::move(written));
    }
    return outcome;
}

/// Of what is written: it is verified on its page before the ECU goes there, and taken back on that page.
session::ApplyOptions ApplyCommand::optionsOf(const Target& target, const session::ApplyPlan& plan) const {
    session::ApplyOptions options{keepGoing_, {}, {}};
    if (target.pages == nullptr || target.pages->written().empty()) return options;
    if (target.pages->switches()) {
        options.conclude = [&target, &plan](const std::vector<std::size_t>& steps) {
            std::vector<const session::ObjectBytes*> changes;
            changes.reserve(steps.size());
            for (const std::size_t step : steps)
                changes.push_back(&plan.steps[step].change);
            return target.pages->conclude(target.memory, changes);
        };
    }
    options.retreat = [&target] { return target.pages->retreat(); };
    return options;
}

/// Whether the ECU may go to another page, which is asked before anything is changed.
Result<bool> ApplyCommand::isPageWanted(const Target& target, const session::ApplyPlan& plan) const {
    if (target.pages == nullptr || !target.pages->switches() || yes_) return true;
    const session::PagedWrite& pages = *target.pages;
    std::string question =
        fmt::format("The set is written on {}, and the ECU goes there: {} parameter(s) change",
                    pages.placeText(), plan.steps.size());
    session::PageDifference others;
    for (const session::WrittenPage& place : pages.written()) {
        const auto different =
            session::comparePages(target.place.session->pages(), target.description, pages.overviewNow(),
                                  {place.segment, place.ecuPage}, {place.segment, place.page}, stopToken());
        if (!different) return different.error();
        others.objects += different.value().objects;
        others.otherBytes += different.value().otherBytes;
    }
    if (!others.none())
        question += fmt::format(
            "; what it holds there otherwise ({}) is overwritten with the page of the ECU", others.text());
    if (pages.outside() != 0)
        question +=
            fmt::format("; {} parameter(s) lie in no segment, the ECU has them at once", pages.outside());
    return isWanted(question + ". Go on?");
}

Result<void> ApplyCommand::writeImage(const Target& target) const {
    if (target.image == nullptr) return {};
    if (auto written = params::writeMemoryFile(*output_, target.image->file()); !written) return written;
    if (JsonWriter* const json = target.place.results.json()) {
        json->member("output", *output_);
    } else {
        target.place.results.output().append(printableText(*output_) + " written\n");
    }
    return {};
}

}  // namespace lm::cli
