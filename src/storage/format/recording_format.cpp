#include "storage/format/recording_format.h"

#include <algorithm>
#include <string_view>

#include <spdlog/fmt/fmt.h>

#include "core/bytes.h"
#include "storage/format/recording_info.h"

namespace lm::storage {
namespace {

// Every header begins with magic and version; three 32-bit fields follow, the rest is reserved.
FileHeader makeHeader(std::string_view magic, std::uint32_t at12, std::uint32_t at16, std::uint32_t at20) {
    FileHeader header{};
    std::copy(magic.begin(), magic.end(), header.begin());
    writeLittle(&header[8], kFormatVersion);
    writeLittle(&header[12], at12);
    writeLittle(&header[16], at16);
    writeLittle(&header[20], at20);
    return header;
}

}  // namespace

FileHeader recordHeader(std::uint32_t recordSize) {
    return makeHeader("LMREC", recordSize, recordSize + kTimestampSize, 0);
}

FileHeader indexHeader() {
    return makeHeader("LMTIX", kBlockLength, kIndexEntrySize, 0);
}

FileHeader levelHeader(std::uint32_t level, std::uint32_t signalCount) {
    return makeHeader("LMPYR", level, 8 * signalCount, signalCount);
}

std::string recordFileName(std::size_t group) {
    return fmt::format("g{:04}.rec", group);
}

std::string indexFileName(std::size_t group) {
    return fmt::format("g{:04}.tix", group);
}

std::string levelFileName(std::size_t group, std::uint32_t level) {
    return fmt::format("g{:04}_L{}.pyr", group, level);
}

}  // namespace lm::storage
