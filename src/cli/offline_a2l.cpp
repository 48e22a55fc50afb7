#include "cli/offline_a2l.h"

#include <array>
#include <filesystem>
#include <utility>

#include "cli/stop_signal.h"
#include "session/session.h"

namespace lm::cli {

const session::SessionConfig& configOf(const Workplace& place) {
    return place.session != nullptr ? place.session->config() : place.config;
}

std::optional<a2l::Description> loadA2l(Workplace& place) {
    const std::filesystem::path& file = configOf(place).a2l;
    if (file.empty()) {
        place.results.fail("session", session::noA2lConfigured());
        return std::nullopt;
    }
    auto description = a2l::load(file, stopToken());
    if (!description) {
        place.results.fail("session", description.error(), file.string());
        return std::nullopt;
    }
    session::logWarnings(description.value());
    if (stopRequested()) return std::nullopt;
    return std::move(description).value();
}

std::string_view typeName(a2l::CharacteristicType type) {
    static constexpr std::array<std::string_view, 8> kNames = {"VALUE",  "CURVE",  "MAP",     "CUBOID",
                                                               "CUBE_4", "CUBE_5", "VAL_BLK", "ASCII"};
    return kNames.at(static_cast<std::size_t>(type));
}

std::string_view byteOrderName(ByteOrder order) {
    return order == ByteOrder::bigEndian ? "Motorola" : "Intel";
}

ByteOrder byteOrderOf(const a2l::Description& description, const std::optional<ByteOrder>& own) {
    return own.value_or(description.byteOrder.value_or(ByteOrder::littleEndian));
}

}  // namespace lm::cli
