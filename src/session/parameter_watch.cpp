#include "session/parameter_watch.h"

#include <algorithm>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/log.h"
#include "core/printable_text.h"

namespace lm::session {
namespace {

using xcp::PageUser;

/// Bytes that no one can write are not lost.
bool canBeLost(const a2l::MemorySegment& segment) {
    if (!segment.xcp || segment.size == 0) return false;
    const auto& pages = segment.xcp->pages;
    return pages.empty() || std::any_of(pages.begin(), pages.end(), [](const a2l::XcpPage& page) {
               return page.write != a2l::PageAccess::never;
           });
}

/// Not what the ECU says, but that it says nothing.
bool isSilence(const std::optional<Error>& error) {
    return error && error->detail == Error::kNoDetail && error->code != ErrorCode::unsupported &&
           error->code != ErrorCode::protocolError;
}

std::string nameOf(const SegmentState& segment) {
    return fmt::format("segment {} ({})", segment.number, printableText(segment.name));
}

}  // namespace

ParameterWatch::ParameterWatch(xcp::Master& master, const a2l::Description& description,
                               const SessionWrites& writes, const StopToken& stop)
    : master_(master),
      description_(description),
      writes_(writes),
      pages_(master, description, stop),
      memory_(master, {.wholeUnits = true}) {}

void ParameterWatch::begin() {
    const std::lock_guard lock(mutex_);
    stocks_.clear();
    isOn_ = true;
    const auto calibration = static_cast<std::uint8_t>(xcp::Resource::calPag);
    if ((master_.connectInfo().resource & calibration) == 0) return;
    for (const a2l::MemorySegment& described : description_.parameters.segments) {
        if (!canBeLost(described)) continue;
        Stock stock{.segment = {.number = described.xcp->number,
                                .name = described.name,
                                .address = {described.address, described.xcp->addressExtension},
                                .size = described.size}};
        takeStock(stock);
        stock.hasSums = stock.sums.has_value();
        if (stock.error)
            log::info("{} is not watched for a reset: {}", nameOf(stock.segment), stock.error->text());
        const bool isSilent = isSilence(stock.error);
        stocks_.push_back(std::move(stock));
        // Who is silent is not asked for each segment.
        if (isSilent) return;
    }
}

void ParameterWatch::end() {
    const std::lock_guard lock(mutex_);
    isOn_ = false;
}

/// An ECU that has no such command or refuses it leaves the stock without sums or pages.
void ParameterWatch::takeStock(Stock& stock) {
    stock.sums.reset();
    stock.error.reset();
    if (stock.hasSums) {
        auto sums = pages_.sums(stock.segment, {true, {}});
        if (sums) {
            stock.sums = std::move(sums).value();
        } else {
            stock.error = sums.error();
        }
        if (isSilence(stock.error)) return;
    }
    for (const auto& [user, page] : {std::pair(PageUser::ecu, &stock.segment.ecuPage),
                                     std::pair(PageUser::xcp, &stock.segment.xcpPage)}) {
        const auto told =
            xcp::inStep(master_, [&, who = user] { return master_.pages().page(who, stock.segment.number); });
        *page = told ? std::optional(told.value()) : std::nullopt;
    }
}

void ParameterWatch::onWrite(const ObjectBytes& change) {
    const std::lock_guard lock(mutex_);
    if (!isOn_) return;
    for (Stock& stock : stocks_) {
        const bool isTouched =
            std::any_of(change.pieces.begin(), change.pieces.end(), [&](const BytePiece& piece) {
                const SegmentState& segment = stock.segment;
                return piece.address.extension == segment.address.extension &&
                       piece.address.address < segment.address.address + std::uint64_t{segment.size} &&
                       segment.address.address < piece.address.address + std::uint64_t{piece.mask.size()};
            });
        if (isTouched && stock.hasSums) takeStock(stock);
    }
}

Result<ParameterWatch::Comparison> ParameterWatch::compare() {
    const std::lock_guard lock(mutex_);
    Comparison found;
    if (!isOn_) return found;
    std::vector<Stock> now = stocks_;
    for (std::size_t i = 0; i < now.size(); ++i) {
        takeStock(now[i]);
        if (isSilence(now[i].error)) return *now[i].error;
        compareSegment(stocks_[i], now[i], found);
    }
    if (auto compared = compareWrites(found); !compared) return compared.error();
    stocks_ = std::move(now);
    return found;
}

void ParameterWatch::compareSegment(const Stock& before, const Stock& now, Comparison& found) const {
    const std::string name = nameOf(now.segment);
    if (before.sums && now.sums && *before.sums != *now.sums) found.different.push_back(name);
    if (before.sums && !now.sums)
        found.unknown.push_back(name + ": " +
                                (now.error ? now.error->text() : std::string("no checksum any more")));
    for (const auto& [side, was, is] : {std::tuple("the ECU", before.segment.ecuPage, now.segment.ecuPage),
                                        std::tuple("XCP", before.segment.xcpPage, now.segment.xcpPage)}) {
        if (!was || !is || *was == *is) continue;
        found.different.push_back(
            fmt::format("{} is on page {} of {}, no longer on {}", side, *is, name, *was));
    }
    const auto& was = before.segment.xcpPage;
    found.pagesMoved = found.pagesMoved || (was && now.segment.xcpPage && *was != *now.segment.xcpPage);
}

/// These are few, and equal sums of 8 bits prove little.
Result<void> ParameterWatch::compareWrites(Comparison& found) {
    std::string names;
    for (const ObjectBytes& written : writes_.all()) {
        const auto holds = holdsChange(memory_, written);
        if (holds && holds.value()) continue;
        if (!holds && isSilence(holds.error())) return holds.error();
        if (!holds) {
            found.unknown.push_back(written.name + ": " + holds.error().text());
            continue;
        }
        names += (names.empty() ? "" : ", ") + printableText(written.name);
        found.lost.push_back(written);
    }
    if (!names.empty()) found.different.push_back("what this session wrote: " + names);
    return {};
}

std::vector<Result<ObjectBytes>> ParameterWatch::writeAgain(const std::vector<ObjectBytes>& lost) {
    const std::lock_guard lock(mutex_);
    std::vector<Result<ObjectBytes>> done;
    for (const ObjectBytes& change : lost) {
        done.push_back(session::writeAgain(memory_, change));
        const bool isSilent = !done.back() && isSilence(done.back().error());
        if (isSilent) break;
    }
    for (Stock& stock : stocks_)
        if (stock.hasSums) takeStock(stock);
    return done;
}

}  // namespace lm::session
