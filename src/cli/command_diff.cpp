#include "cli/command_diff.h"

#include <algorithm>
#include <future>
#include <utility>

#include <fmt/format.h>

#include "cli/command_snapshot.h"
#include "cli/diff_report.h"
#include "cli/message_output.h"
#include "cli/offline_a2l.h"
#include "cli/options.h"
#include "cli/page_remarks.h"
#include "cli/stop_signal.h"
#include "core/printable_text.h"
#include "params/parameter_diff.h"
#include "params/parameter_file.h"
#include "session/raw_steps.h"
#include "storage/read/signal_selection.h"

namespace lm::cli {

void DiffCommand::addOptions(OptionSet& options) {
    options
        .add("a", a_, "Parameter file (.json, .cdfx, .dcm), memory image (.hex, .s19, ...), or the word ecu")
        .required();
    options.add("b", b_, "Likewise").required();
    options.add("names", patterns_, "Names of parameters; * and ? match (default: all)");
    addFolders(options, groups_, functions_);
    options.addFlag("--complete", complete_,
                    "What an ECU or image has and the file beside it does not name is different, too");
    image_.addOption(options);
}

bool DiffCommand::isImage(std::size_t side) const {
    return operand(side) == kEcu ? image_.isGiven() : params::memoryFileEnding(operand(side)).ok();
}

/// Files that cannot be read are told before anyone waits for the ECU.
Result<void> DiffCommand::prepare(Form /*form*/) {
    if (a_ == kEcu && b_ == kEcu)
        return Error{ErrorCode::invalidArgument, "one of the two is a parameter file: the ECU equals itself"};
    if (image_.isGiven() && !hasEcu()) {
        Error error{ErrorCode::invalidArgument, "--hex stands for the ecu, which is neither of the two"};
        error.hint = "an image can be named as a file, too: diff a.json b.hex";
        return error;
    }
    // At the same time: each takes as long as all else.
    std::array<std::vector<std::string>, 2> notes;
    std::array<std::future<Result<params::ParameterSet>>, 2> reading;
    for (std::size_t i = 0; i < files_.size(); ++i) {
        if (!isFile(i)) continue;
        reading[i] = std::async(
            [name = operand(i), &to = notes[i]] { return params::readParameterFile(name, to, stopToken()); });
    }
    for (std::size_t i = 0; i < files_.size(); ++i) {
        if (!reading[i].valid()) continue;
        auto set = reading[i].get();
        if (!set) return set.error();
        files_[i] = std::move(set).value();
        notes_.insert(notes_.end(), notes[i].begin(), notes[i].end());
    }
    return {};
}

int DiffCommand::run(Workplace& place) {
    for (const std::string& note : notes_)
        printMessage(printableText(note) + "\n");
    if (!openImages(place)) return 1;
    if (place.session != nullptr) return compareAll(place, &place.session->description());
    for (const auto& image : images_)
        if (image) return compareAll(place, &image->description());
    if (place.config.a2l.empty()) return compareAll(place, nullptr);
    const auto description = loadA2l(place);
    return description ? compareAll(place, &*description) : 1;
}

bool DiffCommand::openImages(Workplace& place) {
    for (std::size_t i = 0; i < images_.size(); ++i) {
        if (!isImage(i)) continue;
        ImageSource source = image_;
        if (operand(i) != kEcu) source.takeFile(operand(i));
        images_[i] = source.open(place, ImageSource::Purpose::reading, images_[0].get());
        if (!images_[i]) return false;
    }
    return true;
}

int DiffCommand::compareAll(Workplace& place, const a2l::Description* description) {
    const auto fail = [&](const Error& error) {
        place.results.failOrStopped("diff", error);
        return error.code == ErrorCode::timeout ? kUnanswered : 1;
    };
    session::FolderFilter folders;
    if (!groups_.empty() || !functions_.empty()) {
        if (description == nullptr) return fail(session::noA2lConfigured());
        auto named = session::FolderFilter::create(*description, groups_, functions_);
        if (!named) return fail(named.error());
        folders = std::move(named).value();
    }
    Sets sets;
    for (std::size_t i = 0; i < files_.size(); ++i)
        if (files_[i]) sets.sides[i] = std::move(*files_[i]);
    if (auto read = readSides(place, folders, sets); !read) return fail(read.error());
    if (auto kept = keepWanted(folders, sets); !kept) return fail(kept.error());

    params::WithinStep within;
    std::optional<session::RawSteps> steps;
    if (description != nullptr) {
        steps.emplace(*description);
        within = [&steps](const auto& parameter, auto axis, const auto& a, const auto& b) {
            return steps->within(parameter, axis, a, b);
        };
    }
    const auto difference = params::compare(sets.sides[0], sets.sides[1], within);
    place.results.show(DiffReport({a_, &sets.sides[0]}, {b_, &sets.sides[1]}, difference, sets.notInFile));
    tellPages(place);
    if (tellLeftOut(place, sets) || !sets.unread.empty()) return 1;
    const bool isOther = haveOtherSoftware(sets.sides[0], sets.sides[1]) && !place.options.ignoreIdentity;
    return difference.parameters.empty() && !isOther ? 0 : kDifferent;
}

/// Of what a file names and no one could compare: an exit code 0 would say that it was.
bool DiffCommand::tellLeftOut(Workplace& place, const Sets& sets) const {
    bool isAny = false;
    for (std::size_t i = 0; i < sets.sides.size(); ++i) {
        for (const std::string& name : sets.sides[i].leftOut) {
            if (sets.sides[1 - i].find(name) != nullptr) continue;  // told as not comparable
            isAny = true;
            place.results.fail(
                "",
                {ErrorCode::unsupported,
                 fmt::format("{}: {} has nothing of it that can be compared", name, operand(i))},
                name);
        }
    }
    return isAny;
}

Result<void> DiffCommand::readSides(Workplace& place, const session::FolderFilter& folders,
                                    Sets& sets) const {
    for (std::size_t i = 0; i < images_.size(); ++i) {
        if (isFile(i)) continue;
        std::optional<OnlyNamed> named;
        if (isFile(1 - i) && !complete_) named.emplace(OnlyNamed{sets.sides[1 - i], patterns_});
        OnlyNamed* const only = named ? &*named : nullptr;
        auto reading = images_[i] ? readFromImage(place, *images_[i], patterns_, folders, sets.notHeld, only)
                                  : readFromEcu(place, patterns_, folders, only);
        if (!reading) return reading.error();
        for (const session::UnreadParameter& unread : reading.value().unread)
            sets.unread.push_back(unread.name);
        sets.sides[i] = std::move(reading.value().set);
        if (named) sets.notInFile = named->others;
    }
    sets.notHeld.insert(sets.notHeld.end(), sets.unread.begin(), sets.unread.end());
    std::sort(sets.notHeld.begin(), sets.notHeld.end());
    return {};
}

/// What the names and folders take, without what an ECU or image should have told and did not. Error:
/// a pattern that takes nothing.
Result<void> DiffCommand::keepWanted(const session::FolderFilter& folders, Sets& sets) const {
    std::vector<bool> isUsed(patterns_.size());
    const auto isWanted = [&](const std::string& name) {
        if (std::binary_search(sets.notHeld.begin(), sets.notHeld.end(), name)) return false;
        if (patterns_.empty()) return folders.takes(name);
        bool wanted = false;
        for (std::size_t i = 0; i < patterns_.size(); ++i) {
            const bool matches =
                storage::matchesPattern(name, patterns_[i]) && (name == patterns_[i] || folders.takes(name));
            if (matches) isUsed[i] = true;
            wanted = wanted || matches;
        }
        return wanted;
    };
    for (params::ParameterSet& set : sets.sides) {
        std::erase_if(set.parameters, [&](const auto& parameter) { return !isWanted(parameter.name); });
        std::erase_if(set.leftOut, [&](const std::string& name) { return !isWanted(name); });
    }
    const auto idle = std::find(isUsed.begin(), isUsed.end(), false);
    if (idle == isUsed.end() || !sets.unread.empty()) return {};
    Error error{ErrorCode::notFound, fmt::format("'{}' matches no parameter of the two",
                                                 patterns_[static_cast<std::size_t>(idle - isUsed.begin())])};
    if (sets.notInFile > 0) {
        error.message = fmt::format("'{}' matches no parameter of the file",
                                    patterns_[static_cast<std::size_t>(idle - isUsed.begin())]);
        error.hint = "--complete compares what the file does not name, too";
    }
    return error;
}

}  // namespace lm::cli
