// The calibration pages of the simulated ECU: its parameters lie in two segments, each of which has pages of
// its own. The ECU's memory holds the page that the ECU uses; the others are kept here.
//
// Threads: one thread at a time. Lifetime: the memory that begin() is given must live as long as the pages.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "sim/catalog.h"

namespace lm::sim {

/// Bits of the access to a page, as GET_PAGE_INFO tells it.
enum PageProperty : std::uint8_t { kEcuAccess = 0x03, kXcpRead = 0x0C, kXcpWrite = 0x30 };

class Pages {
  public:
    explicit Pages(const Options& options) : options_(options.paging) {}

    /// One segment of the ECU's memory.
    void add(const SegmentPlace& place, std::uint8_t* memory);
    /// Power on: every page holds what was stored, or what memory holds now.
    void restart();

    /// What XCP sees at some bytes.
    struct View {
        std::uint8_t* bytes = nullptr;  ///< null: they lie in pages that do not follow each other
        bool writable = false;
        bool isEcuMemory = true;
    };
    /// Nothing for bytes outside all segments.
    std::optional<View> view(std::uint8_t extension, std::uint32_t address, std::size_t size);

    std::size_t segments() const { return segments_.size(); }
    std::uint8_t pages() const { return options_.pages; }
    const SegmentPlace& place(std::size_t segment) const { return segments_[segment].place; }
    std::uint8_t ecuPage(std::size_t segment) const { return segments_[segment].ecu; }
    std::uint8_t xcpPage(std::size_t segment) const { return segments_[segment].xcp; }
    void setEcuPage(std::size_t segment, std::uint8_t page);
    void setXcpPage(std::size_t segment, std::uint8_t page) { segments_[segment].xcp = page; }
    bool frozen(std::size_t segment) const { return segments_[segment].frozen; }
    void freeze(std::size_t segment, bool takesPart) { segments_[segment].frozen = takesPart; }
    /// Page 0 is flash when there are others.
    bool isFlash(std::uint8_t page) const { return page == 0 && options_.pages > 1; }
    std::uint8_t properties(std::uint8_t page) const;
    void copy(std::size_t from, std::uint8_t fromPage, std::size_t to, std::uint8_t toPage);
    /// The page of XCP of each frozen segment becomes its page 0.
    void store();

  private:
    struct Segment {
        SegmentPlace place;
        std::uint8_t* memory = nullptr;
        std::vector<std::vector<std::uint8_t>> pages;
        std::uint8_t ecu = 0;
        std::uint8_t xcp = 0;
        bool frozen = false;
        bool stored = false;
    };

    std::uint8_t* bytesOf(Segment& segment, std::uint8_t page) const;

    const PageOptions& options_;
    std::vector<Segment> segments_;
};

}  // namespace lm::sim
