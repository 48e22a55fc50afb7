// Reads many objects of the ECU together: the bytes of all of them in as few packets as they need, whatever
// object they belong to. As sure as ObjectAccess reads one; what does not come out so is read by it.
//
// Threads: one at a time; a stop may be requested from any. Lifetime: master and access are borrowed; the
// objects live during the call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "a2l/memory_image.h"
#include "a2l/object.h"
#include "a2l/object_content.h"
#include "a2l/placed_object.h"
#include "core/result.h"
#include "session/object_access.h"
#include "xcp/master.h"

namespace lm::session {

class JointReading {
  public:
    /// Called with the bytes that have been read, and with all that are known to be wanted.
    using Progress = std::function<void(std::uint64_t done, std::uint64_t total)>;
    /// Called once for each object, in their order. Errors: those of ObjectAccess::read().
    using Take = std::function<void(std::size_t index, Result<a2l::ObjectContent> content)>;

    JointReading(xcp::Master& master, ObjectAccess& access, Progress progress)
        : master_(master), access_(access), progress_(std::move(progress)) {}

    /// Errors: of an ECU that does not answer or does not keep to its answers, and Error::stopped. Then no
    /// further object is taken.
    Result<void> run(std::span<const a2l::Object> objects, const Take& take);

  private:
    /// An object on its way: placed from what has been read so far, or to be read alone.
    struct Item {
        std::optional<a2l::PlacedObject> placed;
        std::vector<a2l::MemorySpan> spans;       ///< once placed: all its bytes
        std::optional<a2l::MemorySpan> wantedAt;  ///< until then: what is missing for the next step
        bool alone = false;
    };
    /// What one upload brought. Packets are counted in the order in which they came.
    struct Piece {
        std::uint64_t end = 0;
        std::size_t firstPacket = 0;
    };

    static a2l::ReadMemory readerOf(const a2l::MemoryImage& image, std::optional<a2l::MemorySpan>& missing);
    Result<void> loadSharedPlaces(std::span<const a2l::Object> objects);
    Result<void> loadKnown(std::span<const a2l::Object> objects);
    Result<void> placeRest(std::span<const a2l::Object> objects);
    bool place(const a2l::Object& object, Item& item);
    Result<void> loadMissing();
    Result<void> checkPlaces();
    bool cameFirst(const std::vector<a2l::PlacedBy>& places, std::size_t first) const;
    bool cameAtOnce(const Item& item, const std::pair<std::size_t, std::size_t>& packets) const;
    std::optional<a2l::ObjectContent> contentOf(Item& item) const;

    Result<void> load(std::vector<a2l::MemorySpan> spans, a2l::MemoryImage& image);
    std::vector<a2l::MemorySpan> joined(std::vector<a2l::MemorySpan> spans) const;
    std::vector<a2l::MemorySpan> nextGroup(std::deque<a2l::MemorySpan>& spans) const;
    Result<void> loadConfirmed(std::span<const a2l::MemorySpan> pieces, a2l::MemoryImage& image);
    void note(const a2l::MemorySpan& piece);
    /// The first and the last packet that brought bytes of it.
    std::optional<std::pair<std::size_t, std::size_t>> packetsOf(
        std::span<const a2l::MemorySpan> spans) const;

    xcp::Master& master_;
    ObjectAccess& access_;
    const Progress progress_;
    std::size_t unit_ = 1;
    std::size_t perPacket_ = 1;
    std::vector<Item> items_;
    a2l::MemoryImage early_;  ///< what places shared axes, as it was before all else
    a2l::MemoryImage image_;
    std::map<std::pair<std::uint8_t, std::uint64_t>, Piece> pieces_;  ///< by extension and address
    std::size_t packets_ = 0;
    std::uint64_t done_ = 0;
    std::uint64_t total_ = 0;
};

/// JointReading::run(), or what does the same for an image.
using ReadObjects = std::function<Result<void>(std::span<const a2l::Object>, const JointReading::Take&)>;

}  // namespace lm::session
