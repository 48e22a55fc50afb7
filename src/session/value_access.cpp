#include "session/value_access.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>

#include "session/masked_write.h"

namespace lm::session {
ReadOutcome ValueAccess::read(std::size_t count, const ElementSource& source) {
    constexpr auto kLongest = std::chrono::milliseconds(50);
    ReadOutcome outcome;
    auto& values = outcome.values;
    const auto readSome = [&]() -> Result<void> {
        values.clear();
        const auto end = std::chrono::steady_clock::now() + kLongest;
        while (values.size() < count) {
            for (auto& element : elementsAhead(values.size(), count, source)) {
                values.push_back(element ? readUnconfirmed(std::move(element).value()) : element.error());
                if (std::chrono::steady_clock::now() >= end || stop_.requested()) return {};
            }
        }
        return {};
    };
    if (const auto sure = memory_.confirm(readSome); !sure) {
        outcome.confirmed = false;
        for (auto& value : values) {
            if (value) value = sure.error();
        }
    }
    return outcome;
}

std::vector<Result<value::Element>> ValueAccess::elementsAhead(std::size_t first, std::size_t count,
                                                               const ElementSource& source) {
    constexpr std::size_t kMost = 256;
    std::vector<Result<value::Element>> elements;
    std::vector<MemoryPiece> pieces;
    for (std::size_t i = first; i < std::min(count, first + kMost); ++i) {
        elements.push_back(source(i));
        if (!elements.back()) continue;
        const value::Element& element = elements.back().value();
        pieces.push_back({element.address, element.size()});
    }
    memory_.foresee(pieces);
    return elements;
}

Result<Reading> ValueAccess::read(const value::Element& element) {
    return confirmed(memory_, [&] { return readUnconfirmed(element); });
}

Result<Reading> ValueAccess::readUnconfirmed(value::Element element) {
    auto bytes = memory_.read(element.name, element.address, element.size());
    if (!bytes) return bytes.error();
    return Reading{std::move(element), std::move(bytes).value()};
}

WriteOutcome ValueAccess::write(const value::Element& element, const value::Value& physical,
                                const BeforeWriting& beforeWriting) {
    auto current = read(element);
    if (!current) return {current.error()};
    std::vector<std::uint8_t> bytes = std::move(current).value().bytes;
    std::vector<std::uint8_t> before = bytes;
    if (auto encoded = value::encodePhysical(element, physical, bytes); !encoded) return {encoded.error()};
    if (auto open = memory_.openForWriting(); !open) return {open.error()};
    // From here on a stop is carried out when the value has been read back.
    const auto finishing = memory_.finishing();
    if (stop_.requested()) return {Error::stopped(element.name + ": stopped")};
    if (const auto change = bytesOfChange(element, before, bytes); beforeWriting && !change.pieces.empty())
        beforeWriting({change});
    auto stored = download(element, bytes);
    if (!stored) return {stored.error(), read(element), physical, {}, std::move(before)};
    return {std::move(stored), {}, physical, std::move(bytes), std::move(before)};
}

Result<void> ValueAccess::store(const value::Element& element, const std::vector<std::uint8_t>& bytes) {
    if (memory_.modifiesBits() && isMasked(element)) {
        const auto stored = memory_.writeBits(element, bytes);
        if (!stored) return stored.error();
        if (stored.value()) return {};
    }
    return memory_.write(element.name, element.address, bytes);
}

/// Writes, compares what the ECU then holds, and reads the value once more.
Result<Reading> ValueAccess::download(const value::Element& element, const std::vector<std::uint8_t>& bytes) {
    if (auto stored = store(element, bytes); !stored) return stored.error();
    return confirmed(memory_, [&]() -> Result<Reading> {
        const auto readBack = memory_.read(element.name, element.address, element.size());
        if (!readBack) return readBack.error();
        // Bits beside those of the element may change at any moment.
        if (!sameBits(readBack.value(), bytes, maskBytes(element))) {
            return Error{ErrorCode::protocolError,
                         element.name + ": read back value differs from the written value"};
        }
        return readUnconfirmed(element);
    });
}

}  // namespace lm::session
