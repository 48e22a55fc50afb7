#include "session/session_writes.h"

#include <algorithm>
#include <utility>

namespace lm::session {
namespace {

/// Takes the bits that `newer` set away from `older`.
void giveUp(BytePiece& older, const BytePiece& newer) {
    if (older.address.extension != newer.address.extension) return;
    for (std::size_t i = 0; i < older.mask.size(); ++i) {
        const std::uint32_t at = older.address.address + static_cast<std::uint32_t>(i);
        const std::uint32_t offset = at - newer.address.address;  // a large one for those before it
        if (offset < newer.mask.size())
            older.mask[i] = static_cast<std::uint8_t>(older.mask[i] & ~newer.mask[offset]);
    }
}

bool holdsNoBit(const BytePiece& piece) {
    return std::all_of(piece.mask.begin(), piece.mask.end(), [](std::uint8_t bits) { return bits == 0; });
}

}  // namespace

void SessionWrites::add(ObjectBytes change) {
    const std::lock_guard lock(mutex_);
    for (ObjectBytes& object : objects_) {
        for (BytePiece& piece : object.pieces)
            for (const BytePiece& newer : change.pieces)
                giveUp(piece, newer);
        std::erase_if(object.pieces, holdsNoBit);
    }
    std::erase_if(objects_, [](const ObjectBytes& object) { return object.pieces.empty(); });
    if (!change.pieces.empty()) objects_.push_back(std::move(change));
}

std::vector<ObjectBytes> SessionWrites::all() const {
    const std::lock_guard lock(mutex_);
    return objects_;
}

}  // namespace lm::session
