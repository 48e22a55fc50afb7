#include "storage/format/summary_file.h"

#include <algorithm>

namespace lm::storage {

std::filesystem::path SummaryFile::path(const std::filesystem::path& directory, std::size_t group,
                                        std::size_t number) {
    return directory / (number == kIndex ? indexFileName(group)
                                         : levelFileName(group, static_cast<std::uint32_t>(number)));
}

FileHeader SummaryFile::header(std::size_t number, const GroupInfo& group) {
    if (number == kIndex) return indexHeader();
    return levelHeader(static_cast<std::uint32_t>(number), static_cast<std::uint32_t>(group.signals.size()));
}

std::size_t SummaryFile::entrySize(std::size_t number, const GroupInfo& group) {
    return number == kIndex ? kIndexEntrySize : 8 * group.signals.size();
}

std::uint64_t SummaryFile::span(std::size_t number) {
    return std::uint64_t{1} << (4 * std::max<std::size_t>(number, 1));
}

}  // namespace lm::storage
