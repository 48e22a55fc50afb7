#include "session/page_objects.h"

#include <algorithm>
#include <vector>

#include <spdlog/fmt/fmt.h>

#include "a2l/object_content.h"
#include "session/folder_filter.h"
#include "session/object_bytes.h"
#include "session/parameter_reading.h"

namespace lm::session {
namespace {

using Bytes = std::vector<std::uint8_t>;

/// Of one page alone: what lies elsewhere is none of its business.
a2l::ReadMemory readerOf(const SegmentState& segment, const Bytes& page) {
    return [&segment, &page](xcp::Address address, std::size_t size) -> Result<Bytes> {
        const std::uint32_t offset = address.address - segment.address.address;
        if (address.extension != segment.address.extension || offset >= page.size() ||
            size > page.size() - offset)
            return Error{ErrorCode::notFound, "lies outside the segment"};
        const auto begin = page.begin() + static_cast<std::ptrdiff_t>(offset);
        return Bytes(begin, begin + static_cast<std::ptrdiff_t>(size));
    };
}

/// Whether an object differs; the bytes in which it does are `told` then.
bool differs(const a2l::Object& object, const SegmentState& segment, const PageBytes& both,
             std::vector<bool>& told) {
    const auto first = a2l::readObject(object, readerOf(segment, both.first), 0);
    const auto second = a2l::readObject(object, readerOf(segment, both.second), 0);
    if (!first || !second) return false;
    const auto mark = [&](const a2l::MemorySpan& span) {
        const std::size_t offset = span.address.address - segment.address.address;
        for (std::size_t i = offset; i < std::min(offset + span.size, told.size()); ++i)
            told[i] = true;
    };
    const auto spans = first.value().placed.spans(0);
    if (spans != second.value().placed.spans(0)) {
        std::for_each(spans.begin(), spans.end(), mark);
        return true;
    }
    const ObjectBytes change = bytesOfChange(first.value(), second.value().image);
    bool isOther = false;
    for (const BytePiece& piece : change.pieces) {
        for (std::size_t i = 0; i < piece.mask.size(); ++i)
            isOther = isOther || ((piece.before[i] ^ piece.after[i]) & piece.mask[i]) != 0;
        mark({piece.address, piece.mask.size()});
    }
    return isOther;
}

}  // namespace

std::string PageDifference::text() const {
    const std::string others = otherBytes == 0 ? "" : fmt::format(" and {} byte(s) of none", otherBytes);
    return fmt::format("{} parameter(s){}", objects, others);
}

Result<PageDifference> comparePages(PageControl& pages, const a2l::Description& description,
                                    const PageOverview& overview, xcp::PagePlace a, xcp::PagePlace b,
                                    const StopToken& stop) {
    const auto both = pages.readBoth(overview, a, b);
    if (!both) return both.error();
    PageDifference difference;
    if (both.value().isSame()) return difference;
    const SegmentState& segment = *overview.segment(a.segment);
    const auto folders = FolderFilter::create(description, {}, {});
    if (!folders) return folders.error();
    const auto choice = chooseParameters(description, {}, folders.value(), stop);
    if (!choice) return choice.error();
    std::vector<bool> told(both.value().first.size());
    for (const a2l::Object& object : choice.value().objects)
        difference.objects += differs(object, segment, both.value(), told) ? 1 : 0;
    difference.otherBytes = both.value().differing(told);
    return difference;
}

}  // namespace lm::session
