#include "session/object_access.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "session/masked_write.h"
#include "session/object_bytes.h"

namespace lm::session {
namespace {

bool holdsAll(const a2l::MemoryImage& image, const a2l::ObjectContent& content) {
    const auto spans = content.placed.spans(0);
    return std::all_of(spans.begin(), spans.end(), [&](const a2l::MemorySpan& span) {
        return image.at(span.address, span.size) != nullptr;
    });
}

/// Which bits of a span are the object's.
std::vector<std::uint8_t> maskOf(const a2l::PlacedObject& placed, const a2l::MemorySpan& span) {
    std::vector<std::uint8_t> mask(span.size);
    forEachOwnElement(placed, [&](const value::Element& element) {
        const std::uint64_t begin = element.address.address;
        if (element.address.extension != span.address.extension || begin < span.address.address ||
            begin + element.size() > span.end())
            return;
        const auto bits =
            isMasked(element) ? maskBytes(element) : std::vector<std::uint8_t>(element.size(), 0xFF);
        const std::size_t offset = begin - span.address.address;
        for (std::size_t i = 0; i < bits.size(); ++i)
            mask[offset + i] = static_cast<std::uint8_t>(mask[offset + i] | bits[i]);
    });
    return mask;
}

/// Bits beside those of the object may change at any moment.
bool holdsWanted(const a2l::ObjectContent& content, const a2l::MemoryImage& wanted) {
    const auto spans = a2l::differences(content, wanted);
    return std::all_of(spans.begin(), spans.end(), [&](const a2l::MemorySpan& span) {
        return sameBits(bytesAt(content.image, span), bytesAt(wanted, span), maskOf(content.placed, span));
    });
}

}  // namespace

void ObjectAccess::Assumed::add(const a2l::ObjectContent& before, const a2l::MemoryImage& wanted) {
    for (const a2l::MemorySpan& span : a2l::differences(before, wanted))
        access_.assumed_.push_back({span, bytesAt(wanted, span)});
}

/// With what is assumed in place.
a2l::ReadMemory ObjectAccess::reader(const std::string& name) {
    return [this, &name](xcp::Address address, std::size_t size) {
        auto bytes = memory_.read(name, address, size);
        if (!bytes) return bytes;
        const a2l::MemorySpan read{address, size};
        for (const Piece& piece : assumed_) {
            const std::uint64_t first = std::max(piece.span.address.address, address.address);
            const std::uint64_t end = std::min(piece.span.end(), read.end());
            if (piece.span.address.extension != address.extension || first >= end) continue;
            std::memcpy(bytes.value().data() + (first - address.address),
                        piece.bytes.data() + (first - piece.span.address.address), end - first);
        }
        return bytes;
    };
}

Result<a2l::ObjectContent> ObjectAccess::readUnconfirmed(const a2l::Object& object) {
    return a2l::readObject(object, reader(object.name), memory_.bytesPerPacket());
}

Result<a2l::ObjectContent> ObjectAccess::read(const a2l::Object& object) {
    return confirmed(memory_, [&] { return readUnconfirmed(object); });
}

Result<a2l::ObjectContent> ObjectAccess::readElement(const a2l::Object& object,
                                                     const a2l::ChooseElement& choose) {
    return confirmed(memory_, [&] {
        return a2l::readElement(object, choose, reader(object.name), memory_.bytesPerPacket());
    });
}

ObjectWriteOutcome ObjectAccess::write(const a2l::Object& object, const Change& change) {
    auto before = read(object);
    if (!before) return {before.error()};
    auto wanted = change(before.value());
    if (!wanted) return {wanted.error()};
    if (!holdsAll(wanted.value(), before.value())) {
        return {Error{ErrorCode::protocolError, object.name + ": its place or size changed meanwhile"}};
    }
    const auto spans = a2l::differences(before.value(), wanted.value());
    if (spans.empty()) return {std::move(before)};
    if (auto open = memory_.openForWriting(); !open) return {open.error()};
    // From here on a stop is carried out when the object has been read back.
    const auto finishing = memory_.finishing();
    if (stop_.requested()) return {Error::stopped(object.name + ": stopped")};
    auto stored = download(before.value(), wanted.value(), spans);
    if (!stored) return {stored.error(), spans, held(before.value(), wanted.value(), spans)};
    return {std::move(stored), spans};
}

/// Writes piece by piece and reads the whole object back, counts and pointers included.
Result<a2l::ObjectContent> ObjectAccess::download(const a2l::ObjectContent& before,
                                                  const a2l::MemoryImage& wanted,
                                                  const std::vector<a2l::MemorySpan>& spans) {
    for (const a2l::MemorySpan& span : spans) {
        auto downloaded = writeUnder(memory_, before.placed.object().name, span.address,
                                     bytesAt(wanted, span), maskOf(before.placed, span));
        if (!downloaded) return downloaded.error();
    }
    const a2l::Object& object = before.placed.object();
    return confirmed(memory_, [&]() -> Result<a2l::ObjectContent> {
        auto after = readUnconfirmed(object);
        if (!after) return after;
        const bool sameSize = after.value().placed.spans(0) == before.placed.spans(0);
        if (!sameSize || !holdsWanted(after.value(), wanted)) {
            return Error{ErrorCode::protocolError,
                         object.name + ": read back value differs from the written value"};
        }
        return after;
    });
}

std::vector<HeldSpan> ObjectAccess::held(const a2l::ObjectContent& before, const a2l::MemoryImage& wanted,
                                         const std::vector<a2l::MemorySpan>& spans) {
    std::vector<HeldSpan> all;
    bool isSilent = false;
    for (const a2l::MemorySpan& span : spans) {
        HeldSpan& one = all.emplace_back();
        one.span = span;
        // Who did not answer is not asked for each piece again.
        if (isSilent) continue;
        auto bytes = confirmed(
            memory_, [&] { return memory_.read(before.placed.object().name, span.address, span.size); });
        isSilent = !bytes && (bytes.error().code == ErrorCode::timeout || bytes.error().isStop());
        if (!bytes) continue;
        one.bytes = std::move(bytes).value();
        one.state = HeldSpan::State::other;
        const auto mask = maskOf(before.placed, span);
        if (sameBits(one.bytes, bytesAt(before.image, span), mask)) one.state = HeldSpan::State::before;
        if (sameBits(one.bytes, bytesAt(wanted, span), mask)) one.state = HeldSpan::State::after;
    }
    return all;
}

}  // namespace lm::session
