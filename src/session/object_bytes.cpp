#include "session/object_bytes.h"

#include <algorithm>
#include <cstring>

#include "session/masked_write.h"

namespace lm::session {
namespace {

/// The bits of `bits` where the mask has them, else those of `now`.
std::vector<std::uint8_t> merged(const BytePiece& piece, const std::vector<std::uint8_t>& bits,
                                 const std::uint8_t* now) {
    std::vector<std::uint8_t> bytes(bits.size());
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const auto others = static_cast<std::uint8_t>(~piece.mask[i]);
        bytes[i] = static_cast<std::uint8_t>((bits[i] & piece.mask[i]) | (now[i] & others));
    }
    return bytes;
}

bool holds(const BytePiece& piece, const std::vector<std::uint8_t>& bits, const std::uint8_t* now) {
    return merged(piece, bits, now) == std::vector<std::uint8_t>(now, now + bits.size());
}

/// A write that was cut off leaves its first bytes, and an undo of it that was cut off too takes some of
/// these back from the front. Of a piece that every packet has room for nothing is left half-way.
bool holdsEither(const BytePiece& piece, const std::vector<std::uint8_t>& now) {
    constexpr std::size_t kOnePacket = 4;
    const bool isWhole =
        std::all_of(piece.mask.begin(), piece.mask.end(), [](auto bits) { return bits == 0xFF; });
    if (isWhole && now.size() <= kOnePacket) return now == piece.before || now == piece.after;
    // Old bytes, then new ones, then old ones again; any of them may be none.
    enum class Part : std::uint8_t { old, changed, rest } part = Part::old;
    for (std::size_t i = 0; i < now.size(); ++i) {
        const bool isBefore = ((now[i] ^ piece.before[i]) & piece.mask[i]) == 0;
        const bool isAfter = ((now[i] ^ piece.after[i]) & piece.mask[i]) == 0;
        if (!isBefore && !isAfter) return false;
        if (part == Part::old && !isBefore) part = Part::changed;
        if (part == Part::changed && !isAfter) part = Part::rest;
        if (part == Part::rest && !isBefore) return false;
    }
    return true;
}

Result<std::vector<std::vector<std::uint8_t>>> readPieces(IMemory& memory, const ObjectBytes& change) {
    return confirmed(memory, [&]() -> Result<std::vector<std::vector<std::uint8_t>>> {
        std::vector<std::vector<std::uint8_t>> all;
        for (const BytePiece& piece : change.pieces) {
            auto bytes = memory.read(change.name, piece.address, piece.before.size());
            if (!bytes) return bytes.error();
            all.push_back(std::move(bytes).value());
        }
        return all;
    });
}

/// The bytes before a change, or those after it.
using Side = std::vector<std::uint8_t> BytePiece::*;

bool holdsAll(const ObjectBytes& change, Side side, const std::vector<std::vector<std::uint8_t>>& now) {
    for (std::size_t i = 0; i < now.size(); ++i)
        if (!holds(change.pieces[i], change.pieces[i].*side, now[i].data())) return false;
    return true;
}

Result<void> writeSide(IMemory& memory, const ObjectBytes& change, Side side,
                       const std::vector<std::vector<std::uint8_t>>& now) {
    if (auto open = memory.openForWriting(); !open) return open;
    const auto finishing = memory.finishing();
    for (std::size_t i = 0; i < now.size(); ++i) {
        const BytePiece& piece = change.pieces[i];
        if (holds(piece, piece.*side, now[i].data())) continue;
        const auto bytes = merged(piece, piece.*side, now[i].data());
        if (auto written = writeUnder(memory, change.name, piece.address, bytes, piece.mask); !written)
            return written;
    }
    const auto after = readPieces(memory, change);
    if (!after) return after.error();
    if (holdsAll(change, side, after.value())) return {};
    return Error{ErrorCode::protocolError, change.name + ": read back value differs from the written value"};
}

}  // namespace

std::vector<std::uint8_t> bytesAt(const a2l::MemoryImage& image, const a2l::MemorySpan& span) {
    const std::uint8_t* const bytes = image.at(span.address, span.size);
    return {bytes, bytes + span.size};
}

void forEachOwnElement(const a2l::PlacedObject& placed,
                       const std::function<void(const value::Element&)>& take) {
    for (std::size_t i = 0; i < placed.elementCount(); ++i)
        take(placed.element(i));
    if (placed.object().kind == a2l::ObjectKind::axisPoints) return;
    for (const a2l::PlacedAxis& axis : placed.axes()) {
        for (std::uint32_t i = 0; axis.isOwn() && i < axis.count(); ++i)
            take(axis.element(i));
    }
}

ObjectBytes bytesOfChange(const a2l::ObjectContent& before, const a2l::MemoryImage& wanted) {
    ObjectBytes change{before.placed.object().name, {}};
    for (const a2l::MemorySpan& span : a2l::differences(before, wanted)) {
        change.pieces.push_back({span.address, bytesAt(before.image, span), bytesAt(wanted, span),
                                 std::vector<std::uint8_t>(span.size)});
    }
    if (change.pieces.empty()) return change;
    forEachOwnElement(before.placed, [&](const value::Element& element) {
        const std::size_t size = element.size();
        const auto* const was = before.image.at(element.address, size);
        if (std::memcmp(was, wanted.at(element.address, size), size) == 0) return;
        const auto piece = std::find_if(change.pieces.begin(), change.pieces.end(), [&](const auto& one) {
            return one.address.extension == element.address.extension &&
                   one.address.address <= element.address.address &&
                   element.address.address - one.address.address + size <= one.mask.size();
        });
        if (piece == change.pieces.end()) return;
        const auto mask = isMasked(element) ? maskBytes(element) : std::vector<std::uint8_t>(size, 0xFF);
        const std::size_t offset = element.address.address - piece->address.address;
        for (std::size_t i = 0; i < size; ++i)
            piece->mask[offset + i] = static_cast<std::uint8_t>(piece->mask[offset + i] | mask[i]);
    });
    return change;
}

ObjectBytes bytesOfChange(const value::Element& element, const std::vector<std::uint8_t>& before,
                          const std::vector<std::uint8_t>& after) {
    const auto mask = maskBytes(element);
    if (sameBits(before, after, mask)) return {element.name, {}};
    return {element.name, {{element.address, before, after, mask}}};
}

Result<a2l::MemoryImage> changedNow(const ObjectBytes& change, const a2l::ObjectContent& now) {
    a2l::MemoryImage image = now.image;
    for (const BytePiece& piece : change.pieces) {
        const std::uint8_t* const held = image.at(piece.address, piece.before.size());
        if (held == nullptr || !holds(piece, piece.before, held))
            return Error{ErrorCode::protocolError, change.name + ": changed meanwhile"};
        image.add(piece.address, merged(piece, piece.after, held));
    }
    return image;
}

PutBack putBack(IMemory& memory, const ObjectBytes& change) {
    const auto now = readPieces(memory, change);
    if (!now) return {change.name, PutBack::State::unknown, now.error()};
    if (holdsAll(change, &BytePiece::before, now.value())) return {change.name, PutBack::State::unchanged};
    for (std::size_t i = 0; i < change.pieces.size(); ++i)
        if (!holdsEither(change.pieces[i], now.value()[i])) return {change.name, PutBack::State::others};
    auto written = writeSide(memory, change, &BytePiece::before, now.value());
    if (written) return {change.name, PutBack::State::restored};
    return {change.name, PutBack::State::unknown, written.error()};
}

Result<bool> holdsChange(IMemory& memory, const ObjectBytes& change) {
    const auto now = readPieces(memory, change);
    if (!now) return now.error();
    return holdsAll(change, &BytePiece::after, now.value());
}

Result<ObjectBytes> writeAgain(IMemory& memory, const ObjectBytes& change) {
    auto now = readPieces(memory, change);
    if (!now) return now.error();
    ObjectBytes again{change.name, {}};
    if (holdsAll(change, &BytePiece::after, now.value())) return again;
    if (auto written = writeSide(memory, change, &BytePiece::after, now.value()); !written)
        return written.error();
    again.pieces = change.pieces;
    for (std::size_t i = 0; i < again.pieces.size(); ++i)
        again.pieces[i].before = std::move(now.value()[i]);
    return again;
}

}  // namespace lm::session
