#include "session/identity.h"

#include <array>
#include <vector>

#include <fmt/format.h>

#include "core/printable_text.h"

namespace lm::session {
namespace {

bool isVisible(std::uint8_t byte) {
    return byte > ' ' && byte < 0x7F;
}

using Bytes = std::vector<std::uint8_t>;

/// With one byte more where that takes no packet more: "1.05" begins as "1.0" does. It may lie where nothing
/// can be read.
Result<Bytes> readText(IMemory& memory, xcp::Address address, std::size_t size) {
    const auto read = [&](std::size_t count) {
        return confirmed(memory, [&] { return memory.read("EPK", address, count); });
    };
    const std::size_t perPacket = memory.bytesPerPacket();
    if (perPacket != 0 && size % perPacket == 0) return read(size);
    auto longer = read(size + 1);
    const bool isRefused =
        !longer && (longer.error().detail != Error::kNoDetail || longer.error().code == ErrorCode::notFound);
    if (isRefused) return read(size);
    return longer;
}

}  // namespace

std::string_view withoutFilling(std::string_view text) {
    constexpr std::string_view kFilling(" \0\xFF", 3);
    const std::size_t last = text.find_last_not_of(kFilling);
    return text.substr(0, last == std::string_view::npos ? 0 : last + 1);
}

std::string_view identityStateName(Identity::State state) {
    static constexpr std::array<std::string_view, 4> kNames = {"unknown", "same", "different", "unreadable"};
    return kNames.at(static_cast<std::size_t>(state));
}

std::string Identity::text() const {
    const std::string described = fmt::format("the A2L is for \"{}\"", printableText(a2l));
    switch (state) {
        case State::unknown:
            return "the A2L names no EPK and address of it";
        case State::unreadable:
            return fmt::format("the {}'s EPK cannot be read ({}), {}", ofImage ? "image" : "ECU",
                               error ? error->text() : "", described);
        default:
            return fmt::format("the {} \"{}\", {}", ofImage ? "image is of" : "ECU runs", printableText(ecu),
                               described);
    }
}

Identity readIdentity(IMemory& memory, const a2l::ModuleParameters& parameters) {
    Identity identity;
    identity.a2l = withoutFilling(parameters.epk);
    if (identity.a2l.empty() || parameters.epkAddresses.empty()) return identity;
    const std::uint32_t place = parameters.epkAddresses.front();
    const xcp::Address address{place, parameters.extensionAt(place)};
    const auto bytes = readText(memory, address, parameters.epk.size());
    if (!bytes) {
        identity.state = Identity::State::unreadable;
        identity.error = bytes.error();
        return identity;
    }
    std::string held(bytes.value().begin(), bytes.value().end());
    const bool goesOn = held.size() > parameters.epk.size() && isVisible(bytes.value().back());
    if (!goesOn) held.resize(parameters.epk.size());
    identity.ecu = withoutFilling(held);
    identity.state = identity.ecu == identity.a2l ? Identity::State::same : Identity::State::different;
    return identity;
}

Error otherSoftware(const Identity& identity) {
    Error error{ErrorCode::permissionDenied, identity.text()};
    error.hint =
        "an A2L of this very software is needed (docs/identity-and-pages.md); --ignore-identity goes on all "
        "the same";
    return error;
}

}  // namespace lm::session
