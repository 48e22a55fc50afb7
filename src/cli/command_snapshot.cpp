#include "cli/command_snapshot.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "cli/message_output.h"
#include "cli/offline_a2l.h"
#include "cli/options.h"
#include "cli/page_remarks.h"
#include "cli/progress_line.h"
#include "cli/stop_signal.h"
#include "core/printable_text.h"
#include "params/json_file.h"
#include "params/memory_file.h"
#include "params/parameter_file.h"
#include "session/parameter_memory.h"

namespace lm::cli {
namespace {

constexpr const char* kCreator = "xcplumo-cli " XCPLUMO_VERSION;

/// The message of an object often begins with its name.
Error withName(const session::UnreadParameter& unread) {
    Error error = unread.error;
    if (error.text().find(unread.name) == std::string::npos)
        error.message = unread.name + ": " + error.text();
    return error;
}

/// The first ones of them.
void tellNames(const char* what, const std::vector<std::string>& names) {
    constexpr std::size_t kMostNamed = 10;
    if (names.empty()) return;
    const std::vector<std::string> first(
        names.begin(), names.begin() + static_cast<std::ptrdiff_t>(std::min(names.size(), kMostNamed)));
    const std::size_t more = names.size() - first.size();
    printMessage(
        printableText(fmt::format("{} parameter(s) {}: {}{}", names.size(), what, fmt::join(first, ", "),
                                  more > 0 ? fmt::format(", {} more", more) : "")) +
        "\n");
}

Result<session::ParameterChoice> choose(const a2l::Description& description,
                                        const std::vector<std::string>& patterns,
                                        const session::FolderFilter& folders, OnlyNamed* only = nullptr) {
    auto choice = session::chooseParameters(description, patterns, folders, stopToken());
    if (!choice) return choice;
    if (only != nullptr) {
        session::ParameterChoice& all = choice.value();
        only->others += std::erase_if(all.objects, [&](const auto& one) { return !only->takes(one.name); });
        std::erase_if(all.computed, [&](const auto& name) { return !only->takes(name); });
        std::erase_if(all.leftOut, [&](const auto& one) { return !only->takes(one.name); });
    }
    tellNames("are computed from others and left out", choice.value().computed);
    for (const session::UnreadParameter& one : choice.value().leftOut)
        printMessage(printableText("left out: " + withName(one).text()) + "\n");
    return choice;
}

void tellUnread(Workplace& place, const session::ParameterReading& reading) {
    for (const session::UnreadParameter& unread : reading.unread)
        place.results.fail("", withName(unread), unread.name);
}

}  // namespace

bool OnlyNamed::takes(const std::string& name) const {
    const auto isIn = [&](const std::vector<std::string>& names) {
        return std::find(names.begin(), names.end(), name) != names.end();
    };
    return file.find(name) != nullptr || isIn(file.leftOut) || isIn(typed);
}

Result<session::ParameterReading> readFromEcu(Workplace& place, const std::vector<std::string>& patterns,
                                              const session::FolderFilter& folders, OnlyNamed* only) {
    session::Session& session = *place.session;
    auto choice = choose(session.description(), patterns, folders, only);
    if (!choice) return choice.error();
    ProgressLine line(true, "reading");
    const auto show = [&line](std::uint64_t done, std::uint64_t total) { line.show(done, total); };
    params::Origin origin;
    origin.ecu = session.ecuName();
    origin.a2lFile = session.config().a2l.filename().string();
    origin.epk = session.identity().ecu;
    origin.pages = session.pagesText();
    auto reading =
        session::readParameters(session.description(), std::move(choice).value(), std::move(origin),
                                [&](std::span<const a2l::Object> objects, const auto& take) {
                                    return session.readTogether(objects, show, take);
                                });
    if (reading) tellUnread(place, reading.value());
    return reading;
}

/// A pattern takes what the image holds.
Result<session::ParameterReading> readFromImage(Workplace& place, session::ImageValues& image,
                                                const std::vector<std::string>& patterns,
                                                const session::FolderFilter& folders,
                                                std::vector<std::string>& outside, OnlyNamed* only) {
    auto choice = choose(image.description(), patterns, folders, only);
    if (!choice) return choice.error();
    params::Origin origin;
    origin.a2lFile = configOf(place).a2l.filename().string();
    origin.epk = image.identity().ecu;
    auto reading = session::readParameters(image.description(), std::move(choice).value(), std::move(origin),
                                           [&](std::span<const a2l::Object> objects, const auto& take) {
                                               return image.readTogether(objects, take);
                                           });
    if (!reading) return reading;
    const auto isOutside = [&](const session::UnreadParameter& unread) {
        const bool isTyped = std::find(patterns.begin(), patterns.end(), unread.name) != patterns.end();
        return unread.error.code == ErrorCode::notFound && !isTyped && image.objects().exists(unread.name);
    };
    for (const session::UnreadParameter& unread : reading.value().unread)
        if (isOutside(unread)) outside.push_back(unread.name);
    std::erase_if(reading.value().unread, isOutside);
    tellNames("lie where the image has no bytes and are left out", outside);
    tellUnread(place, reading.value());
    return reading;
}

Result<std::string> snapshotText(Workplace& place) {
    const auto all = session::FolderFilter::create(place.session->description(), {}, {});
    if (!all) return all.error();
    auto reading = readFromEcu(place, {}, all.value());
    if (!reading) return reading.error();
    reading.value().set.origin.creator = kCreator;
    return params::writeJson(reading.value().set);
}

void SnapshotCommand::addOptions(OptionSet& options) {
    options.add("file", file_, "Output file: NAME.json, .cdfx, .dcm, or the memory as .hex, .s19, ...")
        .required();
    options.add("names", patterns_, "Names of parameters; * and ? match (default: all)");
    addFolders(options, groups_, functions_);
    image_.addOption(options);
    options.addFlag("--force", force_, "Overwrite an existing file");
}

Result<void> SnapshotCommand::prepare(Form /*form*/) {
    if (!isImage()) return params::checkTarget(file_, force_);
    if (force_ || params::checkNewFile(file_)) return {};
    return Error{ErrorCode::alreadyOpen, file_.string() + " already exists (--force overwrites it)"};
}

bool SnapshotCommand::isImage() const {
    return params::memoryFileEnding(file_).ok();
}

/// Names and folders leave nothing but their parameters' bytes.
int SnapshotCommand::keepMemory(Workplace& place, session::ImageValues* image) const {
    const a2l::Description& description =
        image != nullptr ? image->description() : place.session->description();
    std::vector<std::string> elsewhere;
    const auto kept = [&]() -> Result<session::ParameterChoice> {
        auto folders = session::FolderFilter::create(description, groups_, functions_);
        if (!folders) return folders.error();
        auto choice = choose(description, patterns_, folders.value());
        if (!choice) return choice;
        ProgressLine line(true, "reading");
        const auto show = [&line](std::uint64_t done, std::uint64_t total) { line.show(done, total); };
        const bool whole = image == nullptr && patterns_.empty() && groups_.empty() && functions_.empty();
        auto memory = session::readParameterMemory(
            description, choice.value(), whole,
            [&](std::span<const a2l::Object> objects, const auto& take) {
                return image != nullptr ? image->readTogether(objects, take)
                                        : place.session->readTogether(objects, show, take);
            },
            elsewhere);
        if (!memory) return memory.error();
        if (auto written = params::writeMemoryFile(file_, memory.value(), force_); !written)
            return written.error();
        return choice;
    }();
    if (!kept) {
        place.results.failOrStopped("snapshot", kept.error(), file_.string());
        return kept.error().code == ErrorCode::timeout ? unansweredCode() : 1;
    }
    tellNames("lie in another address extension, for which an image has no place, and are left out",
              elsewhere);
    for (const session::UnreadParameter& unread : kept.value().unread)
        place.results.fail("", withName(unread), unread.name);
    place.results.output().append(file_.string() + " written\n");
    place.results.output().flush();
    tellPages(place);
    return kept.value().unread.empty() ? 0 : 1;
}

Result<session::ParameterReading> SnapshotCommand::read(Workplace& place, session::ImageValues* image) const {
    const a2l::Description& description =
        image != nullptr ? image->description() : place.session->description();
    const auto folders = session::FolderFilter::create(description, groups_, functions_);
    if (!folders) return folders.error();
    if (image == nullptr) return readFromEcu(place, patterns_, folders.value());
    std::vector<std::string> outside;
    return readFromImage(place, *image, patterns_, folders.value(), outside);
}

int SnapshotCommand::run(Workplace& place) {
    std::unique_ptr<session::ImageValues> image;
    if (image_.isGiven() && !(image = image_.open(place, ImageSource::Purpose::reading))) return 1;
    if (isImage()) return keepMemory(place, image.get());
    auto reading = read(place, image.get());
    if (!reading) {
        place.results.failOrStopped("snapshot", reading.error());
        return 1;
    }
    params::ParameterSet& set = reading.value().set;
    if (set.parameters.empty()) {
        place.results.fail("snapshot", {ErrorCode::notFound, "there is no parameter to be kept"});
        return 1;
    }
    set.origin.creator = kCreator;
    std::vector<std::string> notes;
    if (auto written = params::writeParameterFile(file_, set, force_, notes); !written) {
        place.results.fail("snapshot", written.error(), file_.string());
        return 1;
    }
    for (const std::string& note : notes)
        printMessage(printableText(note) + "\n");
    place.results.output().append(file_.string() + " written\n");
    place.results.output().flush();
    printMessage(fmt::format("{} parameter(s)\n", set.parameters.size()));
    tellPages(place);
    return reading.value().unread.empty() ? 0 : 1;
}

}  // namespace lm::cli
