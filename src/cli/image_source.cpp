#include "cli/image_source.h"

#include <array>
#include <utility>

#include "cli/offline_a2l.h"
#include "cli/options.h"
#include "cli/stop_signal.h"
#include "core/log.h"

namespace lm::cli {
namespace {

/// The first option that tells how an ECU is reached; nullptr for none.
const char* ecuOption(const Options& options) {
    const std::array<std::pair<bool, const char*>, 10> given = {
        {{options.interface.has_value(), "--interface"},
         {options.udp.has_value(), "--udp"},
         {options.serial.has_value(), "--serial"},
         {options.resetDelayMs >= 0, "--reset-delay"},
         {options.cmdId.has_value(), "--cmd-id"},
         {options.resId.has_value(), "--res-id"},
         {options.bitrate != 0, "--bitrate"},
         {options.noShortUpload, "--no-short-upload"},
         {options.connectTimeout.has_value(), "--connect-timeout"},
         {options.reconnect.has_value(), "--reconnect"}}};
    for (const auto& [isGiven, name] : given)
        if (isGiven) return name;
    return nullptr;
}

/// Null when an error was told.
std::shared_ptr<const a2l::Description> descriptionFor(Workplace& place, const session::ImageValues* beside) {
    if (place.session != nullptr)
        return {std::shared_ptr<const a2l::Description>(), &place.session->description()};
    if (beside != nullptr) return beside->sharedDescription();
    auto loaded = loadA2l(place);
    return loaded ? std::make_shared<const a2l::Description>(std::move(*loaded)) : nullptr;
}

}  // namespace

void ImageSource::addOption(OptionSet& options) {
    options.add("--hex", file_, "Memory image in place of an ECU: Intel HEX or S-records");
}

/// As with an ECU.
Result<void> ImageSource::checkIdentity(const Workplace& place, Purpose purpose,
                                        const session::Identity& identity) {
    using Check = session::SessionConfig::IdentityCheck;
    using State = session::Identity::State;
    const Check check = configOf(place).identityCheck;
    if (check == Check::off) return {};
    const bool refuses = purpose == Purpose::writing || check == Check::refuse;
    if (identity.state == State::different) {
        if (refuses && !place.options.ignoreIdentity) return session::otherSoftware(identity);
        log::warn("{}: values may be wrong", identity.text());
        identityWarned_ = true;
    } else if (identity.state == State::unreadable && purpose == Purpose::writing) {
        log::warn("{}: what is written may belong to another software", identity.text());
        identityWarned_ = true;
    }
    return {};
}

std::unique_ptr<session::ImageValues> ImageSource::open(Workplace& place, Purpose purpose,
                                                        const session::ImageValues* beside) {
    if (const char* option = ecuOption(place.options); place.session == nullptr && option != nullptr) {
        Error error{ErrorCode::invalidArgument, std::string(option) + " is for an ECU, and --hex asks none"};
        error.hint = "leave one of the two out";
        place.results.fail("image", error);
        return nullptr;
    }
    auto description = descriptionFor(place, beside);
    if (!description) return nullptr;
    auto file = params::readMemoryFile(*file_, stopToken());
    if (!file) {
        place.results.failOrStopped("image", file.error(), *file_);
        return nullptr;
    }
    auto image =
        std::make_unique<session::ImageValues>(std::move(description), std::move(file).value(), stopToken());
    if (auto right = checkIdentity(place, purpose, image->identity()); !right) {
        place.results.fail("image", right.error(), *file_);
        return nullptr;
    }
    return image;
}

}  // namespace lm::cli
