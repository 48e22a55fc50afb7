#include "session/joint_reading.h"

#include <algorithm>
#include <deque>
#include <iterator>

#include "a2l/largest_record.h"
#include "session/master_memory.h"
#include "xcp/memory.h"

namespace lm::session {
namespace {

using a2l::MemorySpan;

/// Between objects side by side. A wider gap may hold anything, also what must not be read.
constexpr std::size_t kMostPadding = 7;
/// Packets that are confirmed together, and read again when they were not in step.
constexpr std::size_t kPacketsPerGroup = 128;
/// How many pointers and counts, each found by the one before, lead to an object.
constexpr int kMostRounds = 8;
/// More room than that for an object whose size is not known is not read on suspicion.
constexpr std::size_t kMostReserved = std::size_t{64} << 10U;

/// Whether the memory would place it there again.
bool holds(const a2l::MemoryImage& image, const a2l::PlacedBy& place) {
    const std::uint8_t* const bytes = image.at(place.address, place.bytes.size());
    return bytes != nullptr && std::equal(place.bytes.begin(), place.bytes.end(), bytes);
}

std::vector<MemorySpan> without(std::vector<MemorySpan> spans, const std::vector<a2l::PlacedBy>& places) {
    for (const a2l::PlacedBy& place : places) {
        const MemorySpan taken = place.span();
        std::vector<MemorySpan> left;
        for (const MemorySpan& span : spans) {
            const std::uint64_t begin = std::max(span.address.address, taken.address.address);
            const std::uint64_t end = std::min(span.end(), taken.end());
            if (span.address.extension != taken.address.extension || begin >= end) {
                left.push_back(span);
                continue;
            }
            if (begin > span.address.address)
                left.push_back({span.address, static_cast<std::size_t>(begin - span.address.address)});
            if (end < span.end()) {
                left.push_back({{static_cast<std::uint32_t>(end), span.address.extension},
                                static_cast<std::size_t>(span.end() - end)});
            }
        }
        spans = std::move(left);
    }
    return spans;
}

/// Nothing else will be answered either.
bool endsAll(const Error& error) {
    return error.detail == Error::kNoDetail && error.code != ErrorCode::protocolError;
}

}  // namespace

Result<void> JointReading::run(std::span<const a2l::Object> objects, const Take& take) {
    const xcp::ConnectInfo slave = master_.connectInfo();
    if (slave.maxCto != 0) {
        unit_ = std::max<std::size_t>(slave.granularity(), 1);
        perPacket_ = std::max<std::size_t>(xcp::Memory::elementsPerResponse(slave), 1) * unit_;
    }
    items_.assign(objects.size(), {});
    if (auto loaded = loadSharedPlaces(objects); !loaded) return loaded;
    if (auto loaded = loadKnown(objects); !loaded) return loaded;
    if (auto placed = placeRest(objects); !placed) return placed;
    if (auto loaded = loadMissing(); !loaded) return loaded;
    if (auto checked = checkPlaces(); !checked) return checked;
    for (std::size_t i = 0; i < items_.size(); ++i) {
        if (auto content = contentOf(items_[i])) {
            take(i, std::move(*content));
            continue;
        }
        auto alone = access_.read(objects[i]);
        if (!alone && endsAll(alone.error()) &&
            (alone.error().code == ErrorCode::timeout || alone.error().isStop())) {
            return alone.error();
        }
        take(i, std::move(alone));
    }
    return {};
}

/// Axes that others share lie anywhere: where the counts and pointers are that tell their sizes is looked at
/// before anything that depends on them.
Result<void> JointReading::loadSharedPlaces(std::span<const a2l::Object> objects) {
    std::vector<const a2l::Object*> axes;
    const auto collect = [&](const a2l::Object& object) {
        for (const a2l::Axis& axis : object.axes)
            if (axis.shared) axes.push_back(axis.shared.get());
    };
    for (const a2l::Object& object : objects) {
        collect(object);
        for (const auto& map : object.maps)
            collect(*map);
    }
    for (int round = 0; round < kMostRounds; ++round) {
        std::vector<MemorySpan> wanted;
        for (const a2l::Object* const axis : axes) {
            std::optional<MemorySpan> missing;
            [[maybe_unused]] const auto placed = a2l::place(*axis, readerOf(early_, missing));
            if (missing) wanted.push_back(*missing);
        }
        if (wanted.empty()) return {};
        if (auto loaded = load(std::move(wanted), early_); !loaded) return loaded;
    }
    return {};
}

/// Places what the A2L tells the place of, and loads it with the records of which only the memory tells how
/// much is in use: the counts in them come along.
Result<void> JointReading::loadKnown(std::span<const a2l::Object> objects) {
    std::vector<MemorySpan> known;
    for (std::size_t i = 0; i < objects.size(); ++i) {
        if (place(objects[i], items_[i])) {
            known.insert(known.end(), items_[i].spans.begin(), items_[i].spans.end());
        } else if (const auto span = a2l::largestPlace(objects[i]); span && span->size <= kMostReserved) {
            known.push_back(*span);
        }
    }
    return load(std::move(known), image_);
}

/// Follows counts and pointers one step at a time, those of all objects together.
Result<void> JointReading::placeRest(std::span<const a2l::Object> objects) {
    for (int round = 0; round < kMostRounds; ++round) {
        std::vector<MemorySpan> wanted;
        for (std::size_t i = 0; i < objects.size(); ++i) {
            Item& item = items_[i];
            if (item.placed || item.alone) continue;
            const auto before = item.wantedAt;
            if (place(objects[i], item)) continue;
            // What was asked for and did not come, or a fault of the object, which is told by reading it.
            item.alone = !item.wantedAt || (round > 0 && item.wantedAt == before);
            if (!item.alone) wanted.push_back(*item.wantedAt);
        }
        if (wanted.empty()) return {};
        if (auto loaded = load(std::move(wanted), image_); !loaded) return loaded;
    }
    return {};
}

/// Gives what the image holds, and tells what it lacks.
a2l::ReadMemory JointReading::readerOf(const a2l::MemoryImage& image, std::optional<MemorySpan>& missing) {
    return [&](xcp::Address address, std::size_t size) -> Result<std::vector<std::uint8_t>> {
        const std::uint8_t* const bytes = image.at(address, size);
        if (bytes != nullptr) return std::vector<std::uint8_t>(bytes, bytes + size);
        missing = MemorySpan{address, size};
        return Error{ErrorCode::wouldBlock, "not read yet"};
    };
}

bool JointReading::place(const a2l::Object& object, Item& item) {
    item.wantedAt.reset();
    auto placed = a2l::place(object, readerOf(image_, item.wantedAt));
    if (!placed) return false;
    item.placed = std::move(placed).value();
    item.spans = item.placed->spans(perPacket_);
    return true;
}

/// What lies elsewhere than where the A2L says.
Result<void> JointReading::loadMissing() {
    std::vector<MemorySpan> missing;
    for (const Item& item : items_) {
        for (const MemorySpan& span : item.spans) {
            if (!item.alone && std::as_const(image_).at(span.address, span.size) == nullptr)
                missing.push_back(span);
        }
    }
    return load(std::move(missing), image_);
}

/// What placed an object must have come in the same packet as all else of it, or right before it; else it
/// must have been the same before and after.
Result<void> JointReading::checkPlaces() {
    std::vector<MemorySpan> places;
    std::vector<Item*> doubtful;
    for (Item& item : items_) {
        if (!item.placed || item.alone) continue;
        const auto by = item.placed->placedBy();
        if (by.empty()) continue;
        const auto whole = packetsOf(item.spans);
        if (whole && whole->first == whole->second) continue;
        const auto rest = whole ? packetsOf(without(item.spans, by)) : whole;
        item.alone = !rest || !cameFirst(by, rest->first);
        if (item.alone || cameAtOnce(item, *whole)) continue;
        doubtful.push_back(&item);
        for (const a2l::PlacedBy& place : by)
            places.push_back(place.span());
    }
    a2l::MemoryImage now;
    if (auto loaded = load(std::move(places), now); !loaded) return loaded;
    for (Item* const item : doubtful) {
        const auto by = item->placed->placedBy();
        item->alone =
            !std::all_of(by.begin(), by.end(), [&](const a2l::PlacedBy& place) { return holds(now, place); });
    }
    return {};
}

/// Packet after packet, counts of the record included, with nothing else between: as sure as one that is read
/// alone.
bool JointReading::cameAtOnce(const Item& item, const std::pair<std::size_t, std::size_t>& packets) const {
    const auto by = item.placed->placedBy();
    if (!std::all_of(by.begin(), by.end(), [](const a2l::PlacedBy& place) { return place.inRecord; }))
        return false;
    std::size_t size = 0;
    for (const MemorySpan& span : item.spans)
        size += span.size;
    return packets.second - packets.first <= (size + perPacket_ - 2) / perPacket_;
}

/// `first` is the first packet with other bytes of the object.
bool JointReading::cameFirst(const std::vector<a2l::PlacedBy>& places, std::size_t first) const {
    return std::all_of(places.begin(), places.end(), [&](const a2l::PlacedBy& place) {
        if (holds(early_, place)) return true;
        const MemorySpan span = place.span();
        const auto packets = packetsOf(std::span(&span, 1));
        return packets && packets->second <= first;
    });
}

std::optional<a2l::ObjectContent> JointReading::contentOf(Item& item) const {
    if (!item.placed || item.alone) return std::nullopt;
    a2l::ObjectContent content{std::move(*item.placed), {}};
    item.placed.reset();
    for (const MemorySpan& span : item.spans) {
        const std::uint8_t* const bytes = image_.at(span.address, span.size);
        if (bytes == nullptr) return std::nullopt;
        content.image.add(span.address, {bytes, span.size});
    }
    if (!content.placed.isStillPlaced(content.image)) return std::nullopt;
    if (!content.placed.checkMaps(content.image)) return std::nullopt;
    return content;
}

/// From the front to the back: the counts of a record stand before what they count, and so come first.
Result<void> JointReading::load(std::vector<MemorySpan> spans, a2l::MemoryImage& image) {
    const auto whole = joined(std::move(spans));
    std::deque<MemorySpan> rest(whole.begin(), whole.end());
    for (const MemorySpan& span : rest)
        total_ += span.size;
    while (!rest.empty()) {
        const auto group = nextGroup(rest);
        if (auto loaded = loadConfirmed(group, image); !loaded) return loaded;
        for (const MemorySpan& piece : group)
            done_ += piece.size;
        if (progress_) progress_(done_, total_);
    }
    return {};
}

/// Whole units, those with no more than padding between them as one.
std::vector<MemorySpan> JointReading::joined(std::vector<MemorySpan> spans) const {
    std::vector<MemorySpan> all;
    for (const MemorySpan& span : a2l::merged(std::move(spans), 0)) {
        const std::uint64_t begin = span.address.address / unit_ * unit_;
        const std::uint64_t end = (span.end() + unit_ - 1) / unit_ * unit_;
        const bool isBeside = !all.empty() && all.back().address.extension == span.address.extension &&
                              all.back().end() + kMostPadding >= begin;
        if (!isBeside) all.push_back({{static_cast<std::uint32_t>(begin), span.address.extension}, 0});
        all.back().size = end - all.back().address.address;
    }
    return all;
}

/// Takes pieces off the front: of one packet each where an address costs no packet of its own, and there are
/// no blocks.
std::vector<MemorySpan> JointReading::nextGroup(std::deque<MemorySpan>& spans) const {
    const bool isSingle = master_.usesShortUpload() && !master_.readsBlocks();
    const std::size_t most = isSingle ? perPacket_ : perPacket_ * kPacketsPerGroup;
    std::vector<MemorySpan> group;
    for (std::size_t packets = 0; !spans.empty() && packets < kPacketsPerGroup;) {
        MemorySpan& span = spans.front();
        const std::size_t size = std::min(span.size, most);
        group.push_back({span.address, size});
        span.address.address += static_cast<std::uint32_t>(size);
        span.size -= size;
        packets += (size + perPacket_ - 1) / perPacket_;
        if (span.size == 0) spans.pop_front();
    }
    return group;
}

/// What the ECU refuses stays missing: the objects in it are read one by one, and tell why.
Result<void> JointReading::loadConfirmed(std::span<const MemorySpan> pieces, a2l::MemoryImage& image) {
    std::vector<Result<std::vector<std::uint8_t>>> got;
    std::vector<MemoryPiece> ahead;
    for (const MemorySpan& piece : pieces)
        ahead.push_back({piece.address, piece.size});
    auto sure = xcp::inStep(master_, [&]() -> Result<void> {
        got.clear();
        if (!master_.readsBlocks()) foreseeReads(master_, ahead);
        for (const MemorySpan& piece : pieces) {
            got.push_back(master_.uploadBlocks(piece.address, piece.size));
            if (!got.back() && endsAll(got.back().error())) return got.back().error();
        }
        return {};
    });
    if (!sure) return sure;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        if (!got[i]) continue;
        image.add(pieces[i].address, got[i].value());
        if (&image == &image_) note(pieces[i]);
    }
    return {};
}

/// Of pieces that overlap the later one is known, and no longer the other.
void JointReading::note(const MemorySpan& piece) {
    const std::uint8_t extension = piece.address.extension;
    auto other = pieces_.upper_bound({extension, piece.address.address});
    if (other != pieces_.begin()) --other;
    while (other != pieces_.end() && other->first < std::pair(extension, piece.end())) {
        const bool overlaps = other->first.first == extension && other->second.end > piece.address.address;
        other = overlaps ? pieces_.erase(other) : std::next(other);
    }
    pieces_.emplace(std::pair(extension, piece.address.address), Piece{piece.end(), packets_});
    packets_ += (piece.size + perPacket_ - 1) / perPacket_;
}

std::optional<std::pair<std::size_t, std::size_t>> JointReading::packetsOf(
    std::span<const MemorySpan> spans) const {
    std::optional<std::pair<std::size_t, std::size_t>> found;
    for (const MemorySpan& span : spans) {
        for (std::uint64_t at = span.address.address; at < span.end();) {
            auto after = pieces_.upper_bound({span.address.extension, at});
            if (after == pieces_.begin()) return std::nullopt;
            const auto& [start, piece] = *--after;
            if (start.first != span.address.extension || at >= piece.end) return std::nullopt;
            const std::uint64_t end = std::min(piece.end, span.end());
            const std::size_t first = piece.firstPacket + (at - start.second) / perPacket_;
            const std::size_t last = piece.firstPacket + (end - 1 - start.second) / perPacket_;
            found = found ? std::pair(std::min(found->first, first), std::max(found->second, last))
                          : std::pair(first, last);
            at = end;
        }
    }
    return found;
}

}  // namespace lm::session
