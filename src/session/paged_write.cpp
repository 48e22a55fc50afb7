#include "session/paged_write.h"

#include <algorithm>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/log.h"
#include "core/printable_text.h"

namespace lm::session {
namespace {

using a2l::PageAccess;
using xcp::PagePlace;
using xcp::PageUser;

std::string placeText(const SegmentState& segment, std::uint8_t page) {
    const std::string name = segment.name.empty() ? "" : fmt::format(" ({})", printableText(segment.name));
    return fmt::format("page {} of segment {}{}", page, segment.number, name);
}

bool holds(const SegmentState& segment, const xcp::Address& address) {
    return address.extension == segment.address.extension &&
           address.address - segment.address.address < segment.size;
}

/// What speaks against writing a page while the ECU is off it, and its going there with XCP on it.
std::string whyNot(const SegmentState& segment, std::uint8_t number) {
    const PageState* const page = segment.page(number);
    const auto apart = [](PageAccess access) {
        return access == PageAccess::always || access == PageAccess::withoutOther;
    };
    if (!apart(page->write) || !apart(page->read)) return placeText(segment, number) + " cannot be written";
    if (page->ecu != PageAccess::always && page->ecu != PageAccess::withOther)
        return "the ECU cannot use " + placeText(segment, number) + " while XCP is on it";
    return {};
}

}  // namespace

PagedWrite::~PagedWrite() {
    const auto finishing = master_.finishing();
    for (const std::uint8_t number : moved_) {
        const auto& before = overview_.segment(number)->xcpPage;
        if (auto back = setXcp(number, *before); !back)
            log::warn("XCP is left on another page of segment {} than {}: {}", number, *before,
                      back.error().text());
    }
}

Result<void> PagedWrite::begin(std::optional<std::uint8_t> wish) {
    wish_ = wish;
    if (!wish && !hasPages(description_)) return {};
    auto overview = pages_.look();
    if (!overview && !wish && overview.error().code != ErrorCode::timeout && !overview.error().isStop())
        return {};
    if (!overview) return overview.error();
    overview_ = std::move(overview).value();
    if (!wish) return {};
    const bool isThere = std::any_of(overview_.segments.begin(), overview_.segments.end(),
                                     [wish](const auto& segment) { return segment.page(*wish) != nullptr; });
    if (!isThere) return Error{ErrorCode::notFound, fmt::format("there is no page {}", *wish)};
    for (const SegmentState& segment : overview_.segments) {
        if (!segment.ecuPage || !segment.xcpPage || *segment.ecuPage == *segment.xcpPage) continue;
        if (auto set = setXcp(segment.number, *segment.ecuPage); !set) return set;
    }
    return {};
}

Result<void> PagedWrite::setXcp(std::uint8_t segment, std::uint8_t page) {
    if (std::find(moved_.begin(), moved_.end(), segment) == moved_.end()) moved_.push_back(segment);
    return pages_.set(overview_, PageUser::xcp, segment, page);
}

Result<void> PagedWrite::choose(const std::vector<const ObjectBytes*>& changes) {
    if (auto gathered = gather(changes); !gathered) return gathered;
    auto chosen = chooseTargets();
    if (chosen.ok() || wish_) return chosen;
    log::info("written on the pages that XCP sees: {}", chosen.error().text());
    for (WrittenPage& place : written_)
        place.page = place.xcpPage;
    switches_ = false;
    return {};
}

/// The segments that are written, as far as they tell their pages.
Result<void> PagedWrite::gather(const std::vector<const ObjectBytes*>& changes) {
    for (const ObjectBytes* change : changes) {
        bool isInside = false;
        for (const SegmentState& segment : overview_.segments) {
            const bool touches =
                std::any_of(change->pieces.begin(), change->pieces.end(),
                            [&](const BytePiece& piece) { return holds(segment, piece.address); });
            if (!touches) continue;
            isInside = true;
            const bool isKnown = segment.ecuPage && segment.xcpPage;
            if (!isKnown && wish_)
                return Error{
                    ErrorCode::unsupported,
                    fmt::format("the ECU does not tell which page of segment {} is in use", segment.number)};
            const bool isNew = std::none_of(written_.begin(), written_.end(), [&](const auto& place) {
                return place.segment == segment.number;
            });
            if (isKnown && isNew)
                written_.push_back({segment.number, *segment.ecuPage, *segment.xcpPage, *segment.xcpPage});
        }
        outside_ += isInside ? 0 : 1;
    }
    return {};
}

/// All segments go to another page, or none does.
Result<void> PagedWrite::chooseTargets() {
    if (written_.empty() && wish_ && outside_ != 0)
        return Error{ErrorCode::unsupported, "none of the parameters lies in a segment with pages"};
    for (WrittenPage& place : written_) {
        const SegmentState& segment = *overview_.segment(place.segment);
        const auto page = target(segment, wish_);
        if (!page) return page.error();
        place.page = page.value();
        if (place.page == place.ecuPage) continue;
        if (std::string reason = whyNot(segment, place.page); !reason.empty())
            return Error{ErrorCode::permissionDenied, std::move(reason)};
        switches_ = true;
    }
    if (wish_ || !switches_) return {};
    return switchesPages(*overview_.segment(written_.front().segment))
               ? Result<void>()
               : Error{ErrorCode::unsupported, "the ECU switches no pages (SET_CAL_PAGE)"};
}

Result<std::uint8_t> PagedWrite::target(const SegmentState& segment, std::optional<std::uint8_t> wish) {
    if (wish) {
        if (segment.page(*wish) != nullptr) return *wish;
        return Error{ErrorCode::notFound, fmt::format("segment {} has no page {}", segment.number, *wish)};
    }
    constexpr std::size_t kTwo = 2;
    if (segment.pages.size() != kTwo)
        return Error{ErrorCode::unsupported, fmt::format("segment {} has not two pages", segment.number)};
    if (*segment.ecuPage != *segment.xcpPage)
        return Error{ErrorCode::unsupported,
                     fmt::format("XCP is not on the page of segment {} that the ECU uses", segment.number)};
    return static_cast<std::uint8_t>(*segment.ecuPage == 0 ? 1 : 0);
}

/// Asked with what is so already.
bool PagedWrite::switchesPages(const SegmentState& segment) {
    return xcp::inStep(master_,
                       [&] {
                           return master_.pages().setPage(PageUser::xcp, {segment.number, *segment.xcpPage});
                       })
        .ok();
}

std::string PagedWrite::placeText() const {
    std::string text;
    for (const WrittenPage& place : written_)
        text +=
            (text.empty() ? "" : ", ") + session::placeText(*overview_.segment(place.segment), place.page);
    return text;
}

/// Who wishes a page has XCP where the ECU is meanwhile.
PageOverview PagedWrite::overviewNow() const {
    PageOverview now = overview_;
    for (SegmentState& segment : now.segments) {
        const bool isMoved = std::find(moved_.begin(), moved_.end(), segment.number) != moved_.end();
        if (isMoved) segment.xcpPage = segment.ecuPage;
    }
    return now;
}

Result<void> PagedWrite::enter() {
    const PageOverview now = overviewNow();
    for (const WrittenPage& place : written_) {
        if (place.page == place.ecuPage) continue;
        const PagePlace from{place.segment, place.ecuPage};
        const PagePlace to{place.segment, place.page};
        const auto different = pages_.differingBytes(now, from, to);
        if (!different) return different.error();
        if (different.value() == 0) continue;
        auto copied = pages_.copy(now, from, to);
        if (copied) continue;
        Error error = copied.error();
        if (error.detail == xcp::kErrCmdUnknown) {
            error = {
                ErrorCode::unsupported,
                fmt::format("page {} of segment {} does not hold what page {} does, and the ECU copies no "
                            "pages (COPY_CAL_PAGE)",
                            to.page, to.segment, from.page)};
            error.hint = fmt::format(
                "bring page {0} to the same first: a snapshot of page {1}, `page set {0} "
                "--xcp`, apply of it; or `--page {1}` writes where the ECU is",
                to.page, from.page);
        }
        return error;
    }
    for (const WrittenPage& place : written_) {
        const bool isThere = place.page == place.xcpPage &&
                             std::find(moved_.begin(), moved_.end(), place.segment) == moved_.end();
        if (isThere) continue;
        if (auto set = setXcp(place.segment, place.page); !set) return set;
    }
    return {};
}

Result<void> PagedWrite::expect(PageUser user, const WrittenPage& place, std::uint8_t page) {
    const auto now = pages_.pageNow(user, place.segment);
    if (!now) return now.error();
    if (now.value() == page) return {};
    return Error{ErrorCode::protocolError,
                 fmt::format("meanwhile {} went to page {} of segment {}: not this program has put it there",
                             user == PageUser::ecu ? "the ECU" : "XCP", now.value(), place.segment)};
}

Result<void> PagedWrite::conclude(IMemory& memory, const std::vector<const ObjectBytes*>& changes) {
    if (!switches_) return {};
    // Each was read back when it was written, and if XCP was elsewhere then, that is not seen any more.
    for (const ObjectBytes* change : changes) {
        const auto there = holdsChange(memory, *change);
        if (!there) return there.error();
        if (!there.value())
            return Error{ErrorCode::protocolError, change->name + ": is not on the page any more"};
    }
    for (const WrittenPage& place : written_) {
        if (auto same = expect(PageUser::xcp, place, place.page); !same) return same;
        if (auto same = expect(PageUser::ecu, place, place.ecuPage); !same) return same;
    }
    const auto finishing = master_.finishing();
    if (auto set = setEcu(); !set) return set;
    if (auto same = checkOthers(); !same) return same;
    // XCP stays where the ECU is now.
    std::erase_if(moved_, [&](std::uint8_t number) {
        return std::any_of(written_.begin(), written_.end(),
                           [&](const WrittenPage& place) { return place.segment == number; });
    });
    return {};
}

Result<void> PagedWrite::setEcu() {
    const std::uint8_t page = written_.front().page;
    const bool isOne = written_.size() == overview_.segments.size() &&
                       std::all_of(written_.begin(), written_.end(),
                                   [page](const WrittenPage& place) { return place.page == page; });
    if (isOne) return pages_.set(overview_, PageUser::ecu, std::nullopt, page);
    for (const WrittenPage& place : written_) {
        if (place.page == place.ecuPage) continue;
        if (auto set = pages_.set(overview_, PageUser::ecu, place.segment, place.page); !set) return set;
    }
    return {};
}

/// Some ECUs switch all segments together, whichever is named.
Result<void> PagedWrite::checkOthers() {
    for (const SegmentState& segment : overview_.segments) {
        const bool isWritten = std::any_of(written_.begin(), written_.end(), [&](const WrittenPage& place) {
            return place.segment == segment.number;
        });
        if (isWritten || !segment.ecuPage) continue;
        const WrittenPage place{segment.number, *segment.ecuPage, 0, 0};
        if (auto same = expect(PageUser::ecu, place, *segment.ecuPage); !same) return same;
    }
    return {};
}

Result<void> PagedWrite::retreat() {
    const auto finishing = master_.finishing();
    std::optional<Error> failure;
    const auto bring = [&](PageUser user, std::uint8_t segment, std::uint8_t page) {
        const auto now = pages_.pageNow(user, segment);
        if (now && now.value() == page) return;
        auto set = !now                    ? Result<void>(now.error())
                   : user == PageUser::xcp ? setXcp(segment, page)
                                           : pages_.set(overview_, user, segment, page);
        if (!set && !failure) failure = set.error();
    };
    for (const SegmentState& segment : overview_.segments) {
        if (!switches_ || !segment.ecuPage || !segment.xcpPage) continue;
        bring(PageUser::ecu, segment.number, *segment.ecuPage);
        bring(PageUser::xcp, segment.number, *segment.xcpPage);
    }
    for (const WrittenPage& place : written_)
        bring(PageUser::xcp, place.segment, place.page);
    return failure ? Result<void>(*failure) : Result<void>();
}

bool hasPages(const a2l::Description& description) {
    const auto& segments = description.parameters.segments;
    return std::any_of(segments.begin(), segments.end(),
                       [](const auto& segment) { return segment.xcp && segment.xcp->pageCount > 1; });
}

std::vector<WrittenPage> pagesOf(const PageOverview& overview, const std::vector<ObjectBytes>& changes) {
    std::vector<WrittenPage> pages;
    for (const SegmentState& segment : overview.segments) {
        const bool isWritten = std::any_of(changes.begin(), changes.end(), [&](const ObjectBytes& change) {
            return std::any_of(change.pieces.begin(), change.pieces.end(),
                               [&](const BytePiece& piece) { return holds(segment, piece.address); });
        });
        if (isWritten && segment.ecuPage && segment.xcpPage)
            pages.push_back({segment.number, *segment.ecuPage, *segment.xcpPage, *segment.xcpPage});
    }
    return pages;
}

Result<void> goToPages(PageControl& pages, const PageOverview& wasThere,
                       const std::vector<WrittenPage>& written) {
    for (const WrittenPage& place : written) {
        const SegmentState* const segment = wasThere.segment(place.segment);
        if (segment != nullptr && segment->xcpPage == place.page) continue;
        if (auto set = pages.set(wasThere, PageUser::xcp, place.segment, place.page); !set) return set;
    }
    return {};
}

bool isUntouched(const PageOverview& wasThere, const std::vector<WrittenPage>& written,
                 const ObjectBytes& change) {
    return std::all_of(change.pieces.begin(), change.pieces.end(), [&](const BytePiece& piece) {
        return std::any_of(written.begin(), written.end(), [&](const WrittenPage& place) {
            const SegmentState* const segment = wasThere.segment(place.segment);
            return segment != nullptr && holds(*segment, piece.address) && place.page != place.ecuPage &&
                   segment->ecuPage == place.ecuPage;
        });
    });
}

std::vector<std::string> returnToPages(PageControl& pages, const PageOverview& wasThere,
                                       const std::vector<WrittenPage>& written) {
    std::vector<std::string> told;
    for (const WrittenPage& place : written) {
        const SegmentState* const segment = wasThere.segment(place.segment);
        if (segment == nullptr || !segment->ecuPage || !segment->xcpPage) continue;
        const auto fail = [&](const Error& error) {
            told.push_back(fmt::format("segment {}: {}", place.segment, error.text()));
        };
        PageOverview now = wasThere;
        for (SegmentState& one : now.segments)
            if (one.number == place.segment) one.xcpPage = place.page;
        bool isBack = *segment->ecuPage == place.ecuPage;
        if (!isBack && *segment->ecuPage == place.page) {
            const auto different =
                pages.differingBytes(now, {place.segment, place.ecuPage}, {place.segment, place.page});
            if (!different) {
                fail(different.error());
            } else if (different.value() != 0) {
                told.push_back(fmt::format("the ECU stays on {}, as page {} holds something else",
                                           placeText(*segment, place.page), place.ecuPage));
            } else if (auto set = pages.set(wasThere, PageUser::ecu, place.segment, place.ecuPage); !set) {
                fail(set.error());
            } else {
                told.push_back("the ECU is back on " + placeText(*segment, place.ecuPage));
                isBack = true;
            }
        }
        const std::uint8_t xcpPage = isBack ? place.xcpPage : *segment->xcpPage;
        if (xcpPage == place.page) continue;
        if (auto set = pages.set(wasThere, PageUser::xcp, place.segment, xcpPage); !set) fail(set.error());
    }
    return told;
}

}  // namespace lm::session
