#include "session/object_access.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "session/byte_access.h"
#include "xcp/memory.h"

namespace lm::session {
namespace {

std::vector<std::uint8_t> bytesAt(const a2l::MemoryImage& image, const a2l::MemorySpan& span) {
    const std::uint8_t* const bytes = image.at(span.address, span.size);
    return {bytes, bytes + span.size};
}

bool holdsAll(const a2l::MemoryImage& image, const a2l::ObjectContent& content) {
    const auto spans = content.placed.spans(0);
    return std::all_of(spans.begin(), spans.end(), [&](const a2l::MemorySpan& span) {
        return image.at(span.address, span.size) != nullptr;
    });
}

}  // namespace

void ObjectAccess::Assumed::add(const a2l::ObjectContent& before, const a2l::MemoryImage& wanted) {
    for (const a2l::MemorySpan& span : a2l::differences(before, wanted))
        access_.assumed_.push_back({span, bytesAt(wanted, span)});
}

a2l::ReadMemory ObjectAccess::reader() {
    return [this](xcp::Address address, std::size_t size) {
        auto bytes = uploadBytes(master_, address, size);
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
    const xcp::ConnectInfo slave = master_.connectInfo();
    const std::size_t perPacket =
        slave.maxCto == 0 ? 0 : xcp::Memory::elementsPerResponse(slave) * slave.granularity();
    return a2l::readObject(object, reader(), perPacket);
}

Result<a2l::ObjectContent> ObjectAccess::read(const a2l::Object& object) {
    return xcp::inStep(master_, [&] { return readUnconfirmed(object); });
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
    if (auto open = master_.unlockBefore(xcp::Resource::calPag); !open) return {open.error()};
    // From here on a stop is carried out when the object has been read back.
    const auto finishing = master_.finishing();
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
        auto downloaded = downloadBytes(master_, span.address, bytesAt(wanted, span));
        if (!downloaded) return downloaded.error();
    }
    const a2l::Object& object = before.placed.object();
    return xcp::inStep(master_, [&]() -> Result<a2l::ObjectContent> {
        auto after = readUnconfirmed(object);
        if (!after) return after;
        const bool sameSize = after.value().placed.spans(0) == before.placed.spans(0);
        if (!sameSize || !a2l::differences(after.value(), wanted).empty()) {
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
        auto bytes = xcp::inStep(master_, [&] { return uploadBytes(master_, span.address, span.size); });
        isSilent = !bytes && (bytes.error().code == ErrorCode::timeout || bytes.error().isStop());
        if (!bytes) continue;
        one.bytes = std::move(bytes).value();
        one.state = HeldSpan::State::other;
        if (one.bytes == bytesAt(before.image, span)) one.state = HeldSpan::State::before;
        if (one.bytes == bytesAt(wanted, span)) one.state = HeldSpan::State::after;
    }
    return all;
}

}  // namespace lm::session
