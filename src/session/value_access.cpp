#include "session/value_access.h"

#include <chrono>
#include <string>
#include <utility>

namespace lm::session {

ReadOutcome ValueAccess::read(std::size_t count, const ElementSource& source) {
    constexpr auto kLongest = std::chrono::milliseconds(50);
    ReadOutcome outcome;
    auto& values = outcome.values;
    const auto readSome = [&]() -> Result<void> {
        values.clear();
        const auto end = std::chrono::steady_clock::now() + kLongest;
        while (values.size() < count) {
            auto element = source(values.size());
            values.push_back(element ? readUnconfirmed(std::move(element).value()) : element.error());
            if (std::chrono::steady_clock::now() >= end || stop_.requested()) break;
        }
        return {};
    };
    if (const auto sure = xcp::inStep(master_, readSome); !sure) {
        outcome.confirmed = false;
        for (auto& value : values) {
            if (value) value = sure.error();
        }
    }
    return outcome;
}

Result<Reading> ValueAccess::read(const value::Element& element) {
    return xcp::inStep(master_, [&] { return readUnconfirmed(element); });
}

Result<Reading> ValueAccess::readUnconfirmed(value::Element element) {
    auto bytes = master_.upload(element.address, element.size());
    if (!bytes) return bytes.error();
    return Reading{std::move(element), std::move(bytes).value()};
}

WriteOutcome ValueAccess::write(const value::Element& element, const value::Value& physical) {
    auto current = read(element);
    if (!current) return {current.error()};
    std::vector<std::uint8_t> bytes = std::move(current).value().bytes;
    if (auto encoded = value::encodePhysical(element, physical, bytes); !encoded) return {encoded.error()};
    // From here on a stop is carried out when the value has been read back.
    const auto finishing = master_.finishing();
    if (stop_.requested()) return {Error::stopped(element.name + ": stopped")};
    auto stored = download(element, bytes);
    if (!stored) return {stored.error(), read(element)};
    return {std::move(stored), {}, physical, std::move(bytes)};
}

/// Writes, compares what the ECU then holds, and reads the value once more.
Result<Reading> ValueAccess::download(const value::Element& element, const std::vector<std::uint8_t>& bytes) {
    if (auto downloaded = master_.download(element.address, bytes); !downloaded) return downloaded.error();
    return xcp::inStep(master_, [&]() -> Result<Reading> {
        const auto readBack = master_.upload(element.address, element.size());
        if (!readBack) return readBack.error();
        if (readBack.value() != bytes) {
            return Error{ErrorCode::protocolError,
                         element.name + ": read back value differs from the written value"};
        }
        return readUnconfirmed(element);
    });
}

}  // namespace lm::session
