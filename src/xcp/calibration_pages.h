// Calibration pages, identification and checksums of the slave through a connection.
//
// What changes something names its target wholly (a page, not "the next one"): the same command again, after
// an answer that was lost, leaves the slave as the first one did. The order to store pages is the exception,
// and is not given twice.
//
// Threads: any; each operation holds the line until it is done. Lifetime: the connection is borrowed and must
// outlive this.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "xcp/checksum.h"
#include "xcp/connection.h"

namespace lm::xcp {

/// GET_PAG_PROCESSOR_INFO.
struct PagInfo {
    std::uint8_t segments = 0;
    bool freeze = false;  ///< pages can be stored
};

/// GET_SEGMENT_INFO.
struct SegmentInfo {
    std::uint32_t address = 0;
    std::uint32_t length = 0;
    std::uint8_t pages = 0;
    std::uint8_t addressExtension = 0;
};

/// GET_PAGE_INFO. Access: 0 never, 1 without the other side, 2 with it, 3 either way.
struct PageInfo {
    std::uint8_t ecuAccess = 0;
    std::uint8_t readAccess = 0;
    std::uint8_t writeAccess = 0;
    std::uint8_t initSegment = 0;
};

/// Whose page.
enum class PageUser : std::uint8_t { ecu = 0x01, xcp = 0x02, both = 0x03 };

struct PagePlace {
    std::uint8_t segment = 0;
    std::uint8_t page = 0;

    bool operator==(const PagePlace&) const = default;
};

/// GET_ID.
enum class IdType : std::uint8_t { text = 0, a2lName = 1, a2lFile = 2, url = 3, epk = 5, ecu = 6 };

/// A block as the slave sums it up.
struct BlockSum {
    ChecksumType type = ChecksumType::crc32;
    std::uint32_t sum = 0;  ///< only the bytes that the type has
};

/// What BUILD_CHECKSUM came to: a sum, or the most bytes of a block when there were too many.
struct BlockAnswer {
    std::optional<BlockSum> sum;
    std::uint32_t mostBytes = 0;
};

/// Errors of all: the connection's; a slave that does not know a command refuses with kErrCmdUnknown.
class CalibrationPages {
  public:
    explicit CalibrationPages(Connection& connection) : connection_(connection) {}

    Result<PagInfo> processorInfo();
    Result<SegmentInfo> segmentInfo(std::uint8_t segment);
    Result<PageInfo> pageInfo(PagePlace place);
    /// Not of both.
    Result<std::uint8_t> page(PageUser user, std::uint8_t segment);
    Result<void> setPage(PageUser user, PagePlace place);
    /// In all segments at once.
    Result<void> setAllPages(PageUser user, std::uint8_t page);
    Result<void> copy(PagePlace from, PagePlace to);
    /// Whether the segment takes part in storing.
    Result<bool> takesPart(std::uint8_t segment);
    Result<void> setTakesPart(std::uint8_t segment, bool takesPart);
    /// Orders the slave to store the page of XCP of each segment that takes part. Further error: timeout "the
    /// answer to SET_REQUEST was lost ...", after which the slave may have stored or not.
    Result<void> requestStore();

    /// A text of the slave; empty when it has none of that type.
    Result<std::string> identification(IdType type);
    /// Sums up `size` bytes from an address; both multiples of AG.
    Result<BlockAnswer> blockSum(Address address, std::uint32_t size);

  private:
    Result<Packet> ask(const Packet& command, std::size_t minimumLength);
    Result<std::optional<std::string>> tryIdentification(Connection::Turn& turn, IdType type,
                                                         Repeats& repeats);

    Connection& connection_;
};

}  // namespace lm::xcp
