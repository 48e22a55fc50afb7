#include "session/value_access.h"

#include <chrono>
#include <string>
#include <utility>

#include "core/log.h"
#include "session/masked_write.h"

namespace lm::session {
namespace {

bool sameBits(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b,
              const std::vector<std::uint8_t>& mask) {
    for (std::size_t i = 0; i < mask.size(); ++i) {
        if (((a[i] ^ b[i]) & mask[i]) != 0) return false;
    }
    return true;
}

}  // namespace

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
    if (auto open = master_.unlockBefore(xcp::Resource::calPag); !open) return {open.error()};
    // From here on a stop is carried out when the value has been read back.
    const auto finishing = master_.finishing();
    if (stop_.requested()) return {Error::stopped(element.name + ": stopped")};
    auto stored = download(element, bytes);
    if (!stored) return {stored.error(), read(element)};
    return {std::move(stored), {}, physical, std::move(bytes)};
}

/// Not done when the slave has no MODIFY_BITS.
Result<bool> ValueAccess::storeBits(const value::Element& element, const std::vector<std::uint8_t>& bytes) {
    for (const MaskedWord& word : maskedWords(element, bytes, master_.connectInfo().byteOrder())) {
        const auto stored = master_.modifyBits(word.address, word.mask, word.bits);
        if (stored) continue;
        if (stored.error().detail != xcp::kErrCmdUnknown) return stored.error();
        log::warn("{}: the ECU has no MODIFY_BITS, the bits beside it are written as they were read",
                  element.name);
        modifiesBits_ = false;
        return false;
    }
    return true;
}

Result<void> ValueAccess::store(const value::Element& element, const std::vector<std::uint8_t>& bytes) {
    if (modifiesBits_ && isMasked(element)) {
        const auto stored = storeBits(element, bytes);
        if (!stored) return stored.error();
        if (stored.value()) return {};
    }
    return master_.download(element.address, bytes);
}

/// Writes, compares what the ECU then holds, and reads the value once more.
Result<Reading> ValueAccess::download(const value::Element& element, const std::vector<std::uint8_t>& bytes) {
    if (auto stored = store(element, bytes); !stored) return stored.error();
    const bool ownBits = modifiesBits_ && isMasked(element);
    return xcp::inStep(master_, [&]() -> Result<Reading> {
        const auto readBack = master_.upload(element.address, element.size());
        if (!readBack) return readBack.error();
        const bool holds =
            ownBits ? sameBits(readBack.value(), bytes, maskBytes(element)) : readBack.value() == bytes;
        if (!holds) {
            return Error{ErrorCode::protocolError,
                         element.name + ": read back value differs from the written value"};
        }
        return readUnconfirmed(element);
    });
}

}  // namespace lm::session
