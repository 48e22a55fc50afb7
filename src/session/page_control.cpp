#include "session/page_control.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include <fmt/format.h>

#include "core/log.h"
#include "core/printable_text.h"
#include "session/byte_access.h"

namespace lm::session {
namespace {

using xcp::PagePlace;
using xcp::PageUser;

constexpr std::chrono::milliseconds kBetweenLooks{50};
constexpr std::chrono::seconds kLongestStore{60};

/// What the slave says, once its answers are certainly its own; nothing for a command that it does not know.
template <typename Step>
auto optional(xcp::Master& master, const Step& step)
    -> Result<std::optional<std::decay_t<decltype(step().value())>>> {
    auto told = xcp::inStep(master, step);
    if (told) return std::optional(std::move(told).value());
    if (told.error().detail == xcp::kErrCmdUnknown)
        return std::optional<std::decay_t<decltype(told.value())>>{};
    return told.error();
}

template <typename List>
auto find(const List& list, std::uint8_t number) -> decltype(list.data()) {
    const auto found =
        std::find_if(list.begin(), list.end(), [&](const auto& one) { return one.number == number; });
    return found == list.end() ? nullptr : &*found;
}

a2l::PageAccess access(std::uint8_t told) {
    return static_cast<a2l::PageAccess>(told);
}

Error noSegment(std::uint8_t number) {
    return {ErrorCode::notFound, fmt::format("there is no segment {}", number)};
}

Error noPage(std::uint8_t segment, std::uint8_t page) {
    return {ErrorCode::notFound, fmt::format("segment {} has no page {}", segment, page)};
}

const char* sideName(PageUser user) {
    return user == PageUser::ecu ? "the ECU" : "XCP";
}

}  // namespace

const PageState* SegmentState::page(std::uint8_t wanted) const {
    return find(pages, wanted);
}

const SegmentState* PageOverview::segment(std::uint8_t wanted) const {
    return find(segments, wanted);
}

/// XCP on another page for a while.
class PageControl::OnPage {
  public:
    explicit OnPage(xcp::Master& master) : master_(master) {}
    ~OnPage() {
        if (!before_) return;
        const auto finishing = master_.finishing();
        const auto back =
            xcp::inStep(master_, [&] { return master_.pages().setPage(PageUser::xcp, *before_); });
        if (!back)
            log::warn("XCP is left on another page of segment {} than {}: {}", before_->segment,
                      before_->page, back.error().text());
    }
    OnPage(const OnPage&) = delete;
    OnPage& operator=(const OnPage&) = delete;

    Result<void> enter(const SegmentState& segment, std::uint8_t page) {
        if (segment.xcpPage && *segment.xcpPage != page && !before_)
            before_ = PagePlace{segment.number, *segment.xcpPage};
        if (segment.xcpPage == page && !before_) return {};
        return xcp::inStep(master_, [&] {
            return master_.pages().setPage(PageUser::xcp, {segment.number, page});
        });
    }

  private:
    xcp::Master& master_;
    std::optional<PagePlace> before_;
};

Result<PageOverview> PageControl::look() {
    PageOverview overview;
    const auto told = optional(master_, [&] { return master_.pages().processorInfo(); });
    if (!told) return told.error();
    std::vector<std::uint8_t> numbers;
    if (told.value()) {
        for (std::uint8_t i = 0; i < told.value()->segments; ++i)
            numbers.push_back(i);
        overview.canStore = told.value()->freeze;
    } else {
        for (const a2l::MemorySegment& segment : description_.parameters.segments)
            if (segment.xcp) numbers.push_back(segment.xcp->number);
        overview.canStore = description_.xcp.pag && description_.xcp.pag->freeze;
    }
    if (numbers.empty())
        return Error{ErrorCode::unsupported, "neither the ECU nor the A2L knows calibration pages"};
    for (const std::uint8_t number : numbers) {
        auto segment = lookAt(number);
        if (!segment) return segment.error();
        overview.segments.push_back(std::move(segment).value());
    }
    return overview;
}

Result<SegmentState> PageControl::lookAt(std::uint8_t number) {
    SegmentState segment;
    segment.number = number;
    std::uint8_t pages = 0;
    if (const a2l::MemorySegment* described = description_.parameters.segment(number)) {
        segment.name = described->name;
        segment.address = {described->address, described->xcp->addressExtension};
        segment.size = described->size;
        pages = described->xcp->pageCount;
    }
    const auto info = optional(master_, [&] { return master_.pages().segmentInfo(number); });
    if (!info) return info.error();
    if (info.value()) {
        segment.address = {info.value()->address, info.value()->addressExtension};
        segment.size = info.value()->length;
        segment.toldByEcu = true;
        pages = info.value()->pages;
    }
    if (auto added = addPages(segment, pages); !added) return added.error();
    for (const auto& [user, page] :
         {std::pair(PageUser::ecu, &segment.ecuPage), std::pair(PageUser::xcp, &segment.xcpPage)}) {
        const PageUser who = user;
        const auto current = optional(master_, [&] { return master_.pages().page(who, number); });
        if (!current) return current.error();
        *page = current.value();
    }
    return segment;
}

Result<void> PageControl::addPages(SegmentState& segment, std::uint8_t count) {
    const a2l::MemorySegment* described = description_.parameters.segment(segment.number);
    for (std::uint8_t number = 0; number < count; ++number) {
        PageState page;
        page.number = number;
        page.initSegment = segment.number;
        const auto info = optional(master_, [&] {
            return master_.pages().pageInfo({segment.number, number});
        });
        if (!info) return info.error();
        if (info.value()) {
            page.ecu = access(info.value()->ecuAccess);
            page.read = access(info.value()->readAccess);
            page.write = access(info.value()->writeAccess);
            page.initSegment = info.value()->initSegment;
        } else if (const auto* known = described == nullptr ? nullptr : find(described->xcp->pages, number)) {
            page.ecu = known->ecu;
            page.read = known->read;
            page.write = known->write;
            page.initSegment = known->initSegment.value_or(segment.number);
        }
        segment.pages.push_back(page);
    }
    return {};
}

Result<void> PageControl::set(const PageOverview& overview, PageUser user,
                              std::optional<std::uint8_t> segment, std::uint8_t page) {
    std::vector<std::uint8_t> numbers;
    for (const SegmentState& one : overview.segments) {
        if (segment && *segment != one.number) continue;
        if (one.page(page) == nullptr) return noPage(one.number, page);
        numbers.push_back(one.number);
    }
    if (numbers.empty()) return noSegment(segment.value_or(0));
    bool together = numbers.size() > 1;
    if (together) {
        const auto all = xcp::inStep(master_, [&] { return master_.pages().setAllPages(user, page); });
        // Some know only one segment at a time.
        if (!all && all.error().detail == Error::kNoDetail) return all.error();
        together = all.ok();
    }
    for (const std::uint8_t number : numbers) {
        if (!together) {
            auto done = xcp::inStep(master_, [&] { return master_.pages().setPage(user, {number, page}); });
            if (!done) return done;
        }
    }
    for (const std::uint8_t number : numbers) {
        for (const PageUser who : {PageUser::ecu, PageUser::xcp}) {
            if (user != PageUser::both && user != who) continue;
            if (auto right = readBack(who, number, page); !right) return right;
        }
    }
    return {};
}

Result<void> PageControl::readBack(PageUser user, std::uint8_t segment, std::uint8_t page) {
    const auto now = pageNow(user, segment);
    if (!now) return now.error();
    if (now.value() == page) return {};
    return Error{ErrorCode::protocolError,
                 fmt::format("the ECU took SET_CAL_PAGE, and {} is on page {} of segment {} all the same",
                             sideName(user), now.value(), segment)};
}

Result<void> PageControl::copy(const PageOverview& overview, PagePlace from, PagePlace to) {
    for (const PagePlace& place : {from, to}) {
        const SegmentState* segment = overview.segment(place.segment);
        if (segment == nullptr) return noSegment(place.segment);
        if (segment->page(place.page) == nullptr) return noPage(place.segment, place.page);
    }
    auto copied = xcp::inStep(master_, [&] { return master_.pages().copy(from, to); });
    if (!copied) {
        Error error = copied.error();
        if (error.detail == xcp::kErrWriteProtected)
            error.hint = fmt::format("page {} of segment {} cannot be written (flash, most likely)", to.page,
                                     to.segment);
        return error;
    }
    const auto different = differingBytes(overview, from, to);
    if (!different) return different.error();
    if (different.value() == 0) return {};
    return Error{
        ErrorCode::protocolError,
        fmt::format("the ECU took COPY_CAL_PAGE, and {} byte(s) differ all the same", different.value())};
}

std::size_t PageBytes::differing(const std::vector<bool>& marked) const {
    const std::size_t common = std::min(first.size(), second.size());
    std::size_t count = std::max(first.size(), second.size()) - common;
    for (std::size_t i = 0; i < common; ++i)
        count += first[i] != second[i] && (i >= marked.size() || !marked[i]) ? 1 : 0;
    return count;
}

Result<std::uint8_t> PageControl::pageNow(PageUser user, std::uint8_t segment) {
    return xcp::inStep(master_, [&] { return master_.pages().page(user, segment); });
}

Result<std::size_t> PageControl::differingBytes(const PageOverview& overview, PagePlace a, PagePlace b) {
    const auto both = readBoth(overview, a, b);
    return both ? Result<std::size_t>(both.value().differing()) : both.error();
}

Result<PageBytes> PageControl::readBoth(const PageOverview& overview, PagePlace a, PagePlace b) {
    OnPage first(master_);
    OnPage second(master_);
    const SegmentState* const segments[] = {overview.segment(a.segment), overview.segment(b.segment)};
    OnPage* const pages[] = {&first, a.segment == b.segment ? &first : &second};
    const PagePlace places[] = {a, b};
    if (segments[0] == nullptr || segments[1] == nullptr) return noSegment(a.segment);
    SegmentSums sums[2];
    bool isComparable = true;
    for (std::size_t i = 0; i < 2 && isComparable; ++i) {
        if (auto entered = pages[i]->enter(*segments[i], places[i].page); !entered) return entered.error();
        auto told = this->sums(*segments[i]);
        isComparable = told.ok();
        if (told) sums[i] = std::move(told).value();
    }
    if (isComparable && sums[0] == sums[1]) return PageBytes{};
    std::vector<std::uint8_t> bytes[2];
    for (std::size_t i = 0; i < 2; ++i) {
        if (auto entered = pages[i]->enter(*segments[i], places[i].page); !entered) return entered.error();
        auto read = contents(*segments[i]);
        if (!read) return read.error();
        bytes[i] = std::move(read).value();
    }
    return PageBytes{std::move(bytes[0]), std::move(bytes[1])};
}

Result<std::vector<std::uint8_t>> PageControl::contents(const SegmentState& segment) {
    return xcp::inStep(master_, [&] { return uploadBytes(master_, segment.address, segment.size); });
}

/// The size of the blocks that the ECU takes; of the first one the sum comes along. Nothing for an ECU that
/// sums up nothing.
Result<std::optional<std::uint32_t>> PageControl::blockSize(const SegmentState& segment, SegmentSums& sums) {
    std::uint32_t size = segment.size;
    const a2l::MemorySegment* described = description_.parameters.segment(segment.number);
    if (described != nullptr && described->xcp->checksum && described->xcp->checksum->maxBlockSize) {
        const std::uint32_t unit = std::max<std::uint32_t>(master_.connectInfo().granularity(), 1);
        const std::uint64_t most = std::uint64_t{*described->xcp->checksum->maxBlockSize} * unit;
        if (most != 0) size = static_cast<std::uint32_t>(std::min<std::uint64_t>(size, most));
    }
    constexpr int kMostTries = 3;
    for (int i = 0; i < kMostTries; ++i) {
        const auto told = optional(master_, [&] { return master_.pages().blockSum(segment.address, size); });
        if (!told) return told.error();
        if (!told.value()) return std::optional<std::uint32_t>{};
        if (told.value()->sum) {
            sums.type = told.value()->sum->type;
            sums.sizes = {size};
            sums.sums = {told.value()->sum->sum};
            return std::optional(size);
        }
        size = told.value()->mostBytes;
    }
    return Error{ErrorCode::protocolError, "BUILD_CHECKSUM: the ECU refuses the size of block that it told"};
}

Result<SegmentSums> PageControl::sums(const SegmentState& segment, const SumLimits& limits) {
    SegmentSums sums;
    const auto isLate = [&] { return limits.until && std::chrono::steady_clock::now() >= *limits.until; };
    if (segment.size == 0) return Error{ErrorCode::unsupported, "the size of the segment is not known"};
    if (isLate()) return Error{ErrorCode::timeout, "took too long"};
    const auto block = blockSize(segment, sums);
    if (!block) return block.error();
    if (!block.value() && limits.byEcuAlone)
        return Error{ErrorCode::unsupported, "the ECU computes no checksums"};
    if (!block.value()) {
        const auto bytes = contents(segment);
        if (!bytes) return bytes.error();
        sums.computedHere = true;
        sums.sizes = {segment.size};
        sums.sums = {*xcp::checksum(sums.type, bytes.value(), master_.connectInfo().byteOrder())};
        return sums;
    }
    for (std::uint32_t at = sums.sizes.front(); at < segment.size;) {
        if (stop_.requested()) return Error::stopped("BUILD_CHECKSUM: stopped");
        if (isLate()) return Error{ErrorCode::timeout, "took too long"};
        const std::uint32_t size = std::min(*block.value(), segment.size - at);
        const xcp::Address here{segment.address.address + at, segment.address.extension};
        const auto told = xcp::inStep(master_, [&] { return master_.pages().blockSum(here, size); });
        if (!told) return told.error();
        if (!told.value().sum || told.value().sum->type != sums.type)
            return Error{ErrorCode::protocolError,
                         "BUILD_CHECKSUM: the ECU changes type or size of its blocks"};
        sums.sizes.push_back(size);
        sums.sums.push_back(told.value().sum->sum);
        at += size;
    }
    return sums;
}

Result<void> PageControl::store(const PageOverview& overview, const std::vector<std::uint8_t>& segments) {
    if (!overview.canStore) return Error{ErrorCode::unsupported, "the ECU cannot store pages (no FREEZE)"};
    for (const SegmentState& segment : overview.segments) {
        const bool takesPart = std::find(segments.begin(), segments.end(), segment.number) != segments.end();
        auto set =
            xcp::inStep(master_, [&] { return master_.pages().setTakesPart(segment.number, takesPart); });
        if (!set) return set;
        const auto now = xcp::inStep(master_, [&] { return master_.pages().takesPart(segment.number); });
        if (!now) return now.error();
        if (now.value() != takesPart)
            return Error{
                ErrorCode::protocolError,
                fmt::format("the ECU took SET_SEGMENT_MODE for segment {}, and its mode is another all "
                            "the same: nothing is stored",
                            segment.number)};
    }
    if (auto asked = master_.pages().requestStore(); !asked) return asked;
    if (auto stored = awaitStored(); !stored) return stored;
    for (const std::uint8_t number : segments) {
        const SegmentState* segment = overview.segment(number);
        if (segment == nullptr || !segment->xcpPage) continue;
        const PageState* page = segment->page(*segment->xcpPage);
        const PagePlace target{page == nullptr ? number : page->initSegment, 0};
        const auto different = differingBytes(overview, {number, *segment->xcpPage}, target);
        if (!different) return different.error();
        if (different.value() == 0) continue;
        return Error{
            ErrorCode::protocolError,
            fmt::format("the ECU says that it has stored, and page 0 of segment {} differs in {} byte(s)",
                        target.segment, different.value())};
    }
    return {};
}

Result<void> PageControl::awaitStored() {
    const auto latest = std::chrono::steady_clock::now() + kLongestStore;
    for (;;) {
        const auto status = xcp::inStep(master_, [&] { return master_.getStatus(); });
        if (!status) return status.error();
        if (!status.value().storingPages()) return {};
        if (std::chrono::steady_clock::now() >= latest)
            return Error{ErrorCode::timeout, "the ECU is still storing after 60 s"};
        if (stop_.waitFor(kBetweenLooks))
            return Error::stopped("stopped while the ECU was storing, which goes on");
    }
}

std::vector<std::string> PageControl::remarks(std::optional<std::uint32_t> place) {
    std::vector<std::string> all;
    for (const a2l::MemorySegment& segment : description_.parameters.segments) {
        if (!segment.xcp || segment.xcp->pageCount < 2) continue;
        if (place && !segment.holds(*place)) continue;
        std::string text = remark(segment);
        if (!text.empty()) all.push_back(std::move(text));
    }
    return all;
}

/// An ECU that does not tell is left alone: the question is a courtesy.
std::string PageControl::remark(const a2l::MemorySegment& segment) {
    const std::uint8_t number = segment.xcp->number;
    const auto xcpPage = xcp::inStep(master_, [&] { return master_.pages().page(PageUser::xcp, number); });
    if (!xcpPage) return {};
    const auto ecuPage = xcp::inStep(master_, [&] { return master_.pages().page(PageUser::ecu, number); });
    const a2l::XcpPage* page = find(segment.xcp->pages, xcpPage.value());
    const bool isFixed = page != nullptr && page->write == a2l::PageAccess::never;
    const bool isApart = ecuPage && ecuPage.value() != xcpPage.value();
    if (!isFixed && !isApart) return {};
    std::string text = fmt::format("XCP is on page {} of segment {} ({})", xcpPage.value(), number,
                                   printableText(segment.name));
    if (isFixed) text += ", which cannot be written";
    if (isApart)
        text += fmt::format("; the ECU uses page {}: what is read here is not what it works with",
                            ecuPage.value());
    return text + " (`page set` changes that)";
}

}  // namespace lm::session
