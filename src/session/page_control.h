// The calibration pages of an ECU: what there is, which are in use, and changing that with a look at what
// came of it. Where the ECU does not tell something, the A2L does.
//
// Threads: one at a time; a stop may be requested from any. Lifetime: master and description are borrowed and
// must outlive this.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "a2l/description.h"
#include "core/result.h"
#include "core/stop_token.h"
#include "xcp/master.h"

namespace lm::session {

struct PageState {
    std::uint8_t number = 0;
    a2l::PageAccess ecu = a2l::PageAccess::always;
    a2l::PageAccess read = a2l::PageAccess::always;   ///< by XCP
    a2l::PageAccess write = a2l::PageAccess::always;  ///< by XCP
    std::uint8_t initSegment = 0;
};

struct SegmentState {
    std::uint8_t number = 0;
    std::string name = {};  ///< of the A2L, empty when it does not know the segment
    xcp::Address address = {};
    std::uint32_t size = 0;
    bool toldByEcu = false;  ///< place, size and number of pages
    std::optional<std::uint8_t> ecuPage = {};
    std::optional<std::uint8_t> xcpPage = {};
    std::vector<PageState> pages = {};

    const PageState* page(std::uint8_t number) const;
};

struct PageOverview {
    std::vector<SegmentState> segments;
    bool canStore = false;

    const SegmentState* segment(std::uint8_t number) const;
};

/// The sums of a segment's bytes, block by block: sums of parts do not join.
struct SegmentSums {
    bool computedHere = false;  ///< the ECU computes none: its bytes were read
    xcp::ChecksumType type = xcp::ChecksumType::crc32;
    std::vector<std::uint32_t> sizes = {};  ///< bytes of each block
    std::vector<std::uint32_t> sums = {};

    bool operator==(const SegmentSums&) const = default;
};

/// What two pages hold; nothing when their sums say that they hold the same.
struct PageBytes {
    std::vector<std::uint8_t> first = {};
    std::vector<std::uint8_t> second = {};

    bool isSame() const { return first == second; }
    /// How many bytes differ, but for those marked; bytes that only one has do.
    std::size_t differing(const std::vector<bool>& marked = {}) const;
};

class PageControl {
  public:
    PageControl(xcp::Master& master, const a2l::Description& description, StopToken stop)
        : master_(master), description_(description), stop_(std::move(stop)) {}

    /// Errors: the master's; unsupported "neither the ECU nor the A2L knows calibration pages".
    Result<PageOverview> look();
    /// Puts one side or both on a page, of one segment or of all, and reads back. Errors: notFound for what
    /// is not there, the master's, protocolError when the ECU is on another page all the same.
    Result<void> set(const PageOverview& overview, xcp::PageUser user, std::optional<std::uint8_t> segment,
                     std::uint8_t page);
    /// Copies and compares what both pages hold. Errors: likewise.
    Result<void> copy(const PageOverview& overview, xcp::PagePlace from, xcp::PagePlace to);
    /// Stores XCP's page of the segments, waits until that is done and compares with page 0. Errors:
    /// likewise; timeout "the ECU is still storing after 60 s".
    Result<void> store(const PageOverview& overview, const std::vector<std::uint8_t>& segments);
    /// How many bytes differ between two pages; XCP is on the page that it was on before, afterwards.
    Result<std::size_t> differingBytes(const PageOverview& overview, xcp::PagePlace a, xcp::PagePlace b);
    /// Likewise what they hold.
    Result<PageBytes> readBoth(const PageOverview& overview, xcp::PagePlace a, xcp::PagePlace b);
    /// Where a side is now. Errors: the master's.
    Result<std::uint8_t> pageNow(xcp::PageUser user, std::uint8_t segment);
    struct SumLimits {
        bool byEcuAlone = false;  ///< an ECU that sums up nothing is not read instead: unsupported
        std::optional<std::chrono::steady_clock::time_point> until = {};  ///< no block is asked for later
    };
    /// Of what XCP sees of the segment. Errors: the master's; unsupported for an ECU with a type of its own;
    /// timeout "took too long".
    Result<SegmentSums> sums(const SegmentState& segment, const SumLimits& limits = {false, {}});

    /// What a user has to know of the pages that XCP sees, a sentence each; none for an A2L without segments
    /// of several pages, of which the ECU is not asked. With `place` of the segment around that address
    /// alone.
    std::vector<std::string> remarks(std::optional<std::uint32_t> place = {});

  private:
    class OnPage;

    Result<SegmentState> lookAt(std::uint8_t number);
    Result<void> addPages(SegmentState& segment, std::uint8_t count);
    Result<void> readBack(xcp::PageUser user, std::uint8_t segment, std::uint8_t page);
    Result<std::optional<std::uint32_t>> blockSize(const SegmentState& segment, SegmentSums& sums);
    Result<std::vector<std::uint8_t>> contents(const SegmentState& segment);
    Result<void> awaitStored();
    std::string remark(const a2l::MemorySegment& segment);

    xcp::Master& master_;
    const a2l::Description& description_;
    const StopToken stop_;
};

}  // namespace lm::session
