#include "sim/pages.h"

#include <algorithm>

namespace lm::sim {

void Pages::add(const SegmentPlace& place, std::uint8_t* memory) {
    segments_.push_back({place, memory, {}});
}

void Pages::restart() {
    for (Segment& segment : segments_) {
        const std::uint8_t first = options_.pages > 1 ? 1 : 0;
        std::vector<std::uint8_t> start(segment.memory, segment.memory + segment.place.size);
        if (segment.stored) start = segment.pages[0];
        segment.pages.assign(options_.pages, start);
        std::copy(start.begin(), start.end(), segment.memory);
        segment.ecu = first;
        segment.xcp = options_.apart ? 0 : first;
        segment.frozen = false;
    }
}

std::uint8_t* Pages::bytesOf(Segment& segment, std::uint8_t page) const {
    return page == segment.ecu ? segment.memory : segment.pages[page].data();
}

std::optional<Pages::View> Pages::view(std::uint8_t extension, std::uint32_t address, std::size_t size) {
    for (Segment& segment : segments_) {
        if (segment.place.extension != extension || address < segment.place.base) continue;
        const std::size_t offset = address - segment.place.base;
        if (offset >= segment.place.size) continue;
        if (size > segment.place.size - offset) return View{};
        return View{bytesOf(segment, segment.xcp) + offset, (properties(segment.xcp) & kXcpWrite) != 0,
                    segment.xcp == segment.ecu};
    }
    return std::nullopt;
}

std::uint8_t Pages::properties(std::uint8_t page) const {
    return static_cast<std::uint8_t>(kEcuAccess | kXcpRead | (isFlash(page) ? 0 : kXcpWrite));
}

void Pages::setEcuPage(std::size_t number, std::uint8_t page) {
    Segment& segment = segments_[number];
    if (page == segment.ecu) return;
    segment.pages[segment.ecu].assign(segment.memory, segment.memory + segment.place.size);
    std::copy(segment.pages[page].begin(), segment.pages[page].end(), segment.memory);
    segment.ecu = page;
}

void Pages::copy(std::size_t from, std::uint8_t fromPage, std::size_t to, std::uint8_t toPage) {
    const std::uint8_t* source = bytesOf(segments_[from], fromPage);
    std::copy_n(source, std::min(segments_[from].place.size, segments_[to].place.size),
                bytesOf(segments_[to], toPage));
}

void Pages::store() {
    for (Segment& segment : segments_) {
        if (!segment.frozen) continue;
        const std::vector<std::uint8_t> bytes(bytesOf(segment, segment.xcp),
                                              bytesOf(segment, segment.xcp) + segment.place.size);
        if (segment.ecu == 0) std::copy(bytes.begin(), bytes.end(), segment.memory);
        segment.pages[0] = bytes;
        segment.stored = true;
    }
}

}  // namespace lm::sim
