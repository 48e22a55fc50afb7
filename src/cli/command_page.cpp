#include "cli/command_page.h"

#include <fmt/format.h>

#include "cli/described_memory.h"
#include "cli/message_output.h"
#include "cli/option_set.h"
#include "cli/question.h"
#include "cli/stop_signal.h"
#include "core/printable_text.h"
#include "session/page_objects.h"

namespace lm::cli {
namespace {

using session::PageOverview;
using session::PageState;
using session::SegmentState;
using xcp::PagePlace;
using xcp::PageUser;

class PageReport final : public IReport {
  public:
    explicit PageReport(const PageOverview& overview) : overview_(overview) {}

    void print(Output& output) const override {
        for (const SegmentState& segment : overview_.segments) {
            const std::string name = segment.name.empty() ? "" : " " + printableText(segment.name);
            output.append(fmt::format("segment {}{}, 0x{:08X}, {} bytes\n", segment.number, name,
                                      segment.address.address, segment.size));
            for (const PageState& page : segment.pages)
                output.append(fmt::format("  page {:<3}{:<14}{}\n", page.number, users(segment, page.number),
                                          pageAccessText(page.ecu, page.read, page.write)));
        }
        output.append(overview_.canStore ? "pages can be stored\n" : "pages cannot be stored\n");
    }

    void write(JsonWriter& json) const override {
        json.key("segments").beginArray();
        for (const SegmentState& segment : overview_.segments)
            writeSegment(json, segment);
        json.endArray();
        json.member("canStore", overview_.canStore);
    }

  private:
    static std::string users(const SegmentState& segment, std::uint8_t page) {
        const bool ecu = segment.ecuPage == page;
        const bool xcp = segment.xcpPage == page;
        return ecu && xcp ? "ECU and XCP" : ecu ? "ECU" : xcp ? "XCP" : "";
    }

    static void writeSegment(JsonWriter& json, const SegmentState& segment) {
        json.beginObject();
        json.member("segment", segment.number);
        if (!segment.name.empty()) json.member("name", segment.name);
        json.member("address", segment.address.address);
        json.member("addressExtension", segment.address.extension);
        json.member("size", segment.size);
        if (segment.ecuPage) json.member("ecuPage", *segment.ecuPage);
        if (segment.xcpPage) json.member("xcpPage", *segment.xcpPage);
        json.key("pages").beginArray();
        for (const PageState& page : segment.pages) {
            json.beginObject();
            json.member("page", page.number);
            json.member("ecuAccess", a2l::pageAccessName(page.ecu));
            json.member("readAccess", a2l::pageAccessName(page.read));
            json.member("writeAccess", a2l::pageAccessName(page.write));
            json.endObject();
        }
        json.endArray();
        json.endObject();
    }

    const PageOverview& overview_;
};

Result<void> fitsPage(std::uint32_t page) {
    if (page <= UINT8_MAX) return {};
    return Error{ErrorCode::invalidArgument, fmt::format("page {}: 0 to 255 are possible", page)};
}

/// By which parameters the pages differ from those that the users are on, in words.
Result<std::string> changeText(session::Session& session, const PageOverview& overview,
                               const std::vector<std::pair<PagePlace, PagePlace>>& pairs) {
    session::PageDifference all;
    for (const auto& [before, after] : pairs) {
        if (before == after) continue;
        const auto different = session::comparePages(session.pages(), session.description(), overview, before,
                                                     after, stopToken());
        if (!different) return fmt::format("which parameters is not known ({})", different.error().text());
        all.objects += different.value().objects;
        all.otherBytes += different.value().otherBytes;
    }
    return fmt::format("{} change", all.text());
}

}  // namespace

int PageCommand::run(Workplace& place) {
    const auto overview = place.session->pages().look();
    if (!overview) {
        place.results.failOrStopped("page", overview.error());
        return 1;
    }
    place.results.show(PageReport(overview.value()));
    return stopRequested() ? 1 : 0;
}

void PageChange::addCommon(OptionSet& options) {
    options.add("--segment", segment_, "Only this segment (all when it is not given)");
    options.addFlag("--yes", yes_, "Do not ask");
}

Result<std::vector<std::uint8_t>> PageChange::chosen(const PageOverview& overview) const {
    std::vector<std::uint8_t> numbers;
    for (const SegmentState& one : overview.segments)
        if (!segment_ || *segment_ == one.number) numbers.push_back(one.number);
    if (!numbers.empty()) return numbers;
    return Error{ErrorCode::notFound, fmt::format("there is no segment {}", segment_.value_or(0))};
}

int PageChange::run(Workplace& place) {
    session::Session& session = *place.session;
    const auto done = [&]() -> Result<bool> {
        if (auto right = session.checkIdentity(); !right) return right.error();
        const auto overview = session.pages().look();
        if (!overview) return overview.error();
        if (auto some = chosen(overview.value()); !some) return some.error();
        if (!yes_) {
            const auto asked = question(session, overview.value());
            if (!asked) return asked.error();
            auto wanted = asked.value().empty() ? Result<bool>(true) : isWanted(asked.value());
            if (!wanted || !wanted.value()) return wanted;
        }
        if (stopRequested()) return Error::stopped("stopped");
        if (auto changed = change(session, overview.value()); !changed) return changed.error();
        return true;
    }();
    if (!done || !done.value()) {
        if (done) printMessage("nothing was changed\n");
        if (!done) place.results.failOrStopped("page", done.error());
        return 1;
    }
    const auto overview = session.pages().look();
    if (!overview) {
        place.results.failOrStopped("page", overview.error());
        return 1;
    }
    place.results.show(PageReport(overview.value()));
    return 0;
}

void PageSetCommand::addOptions(OptionSet& options) {
    options.add("page", page_, "Number of the page").required();
    options.addFlag("--ecu", ecu_, "Only what the ECU uses");
    options.addFlag("--xcp", xcp_, "Only what XCP reads and writes");
    addCommon(options);
}

Result<void> PageSetCommand::prepare(Form /*form*/) {
    return fitsPage(page_);
}

PageUser PageSetCommand::user() const {
    if (ecu_ == xcp_) return PageUser::both;
    return ecu_ ? PageUser::ecu : PageUser::xcp;
}

Result<std::string> PageSetCommand::question(session::Session& session, const PageOverview& overview) const {
    if (user() == PageUser::xcp) return std::string();
    std::vector<std::pair<PagePlace, PagePlace>> pairs;
    const auto numbers = chosen(overview);
    if (!numbers) return numbers.error();
    for (const std::uint8_t number : numbers.value()) {
        const SegmentState* one = overview.segment(number);
        if (one->page(static_cast<std::uint8_t>(page_)) == nullptr)
            return Error{ErrorCode::notFound, fmt::format("segment {} has no page {}", number, page_)};
        if (one->ecuPage)
            pairs.push_back({{number, *one->ecuPage}, {number, static_cast<std::uint8_t>(page_)}});
    }
    const auto text = changeText(session, overview, pairs);
    if (!text) return text.error();
    return fmt::format("The ECU goes to page {}: {}. Go on?", page_, text.value());
}

Result<void> PageSetCommand::change(session::Session& session, const PageOverview& overview) const {
    std::optional<std::uint8_t> number;
    if (segment()) number = static_cast<std::uint8_t>(*segment());
    return session.pages().set(overview, user(), number, static_cast<std::uint8_t>(page_));
}

void PageCopyCommand::addOptions(OptionSet& options) {
    options.add("from", from_, "Number of the page that is copied").required();
    options.add("to", to_, "Number of the page that becomes the same").required();
    addCommon(options);
}

Result<void> PageCopyCommand::prepare(Form /*form*/) {
    return fitsPage(std::max(from_, to_));
}

/// A page that the ECU uses changes under it.
Result<std::string> PageCopyCommand::question(session::Session& session, const PageOverview& overview) const {
    std::vector<std::pair<PagePlace, PagePlace>> pairs;
    for (const SegmentState& one : overview.segments) {
        if ((segment() && *segment() != one.number) || one.ecuPage != to_) continue;
        pairs.push_back(
            {{one.number, static_cast<std::uint8_t>(to_)}, {one.number, static_cast<std::uint8_t>(from_)}});
    }
    if (pairs.empty()) return std::string();
    const auto text = changeText(session, overview, pairs);
    if (!text) return text.error();
    return fmt::format("The ECU uses page {}: {}. Go on?", to_, text.value());
}

Result<void> PageCopyCommand::change(session::Session& session, const PageOverview& overview) const {
    const auto numbers = chosen(overview);
    if (!numbers) return numbers.error();
    for (const std::uint8_t number : numbers.value()) {
        auto copied = session.pages().copy(overview, {number, static_cast<std::uint8_t>(from_)},
                                           {number, static_cast<std::uint8_t>(to_)});
        if (!copied) return copied;
    }
    return {};
}

void PageStoreCommand::addOptions(OptionSet& options) {
    addCommon(options);
}

Result<std::string> PageStoreCommand::question(session::Session& session,
                                               const PageOverview& overview) const {
    std::vector<std::pair<PagePlace, PagePlace>> pairs;
    const auto numbers = chosen(overview);
    if (!numbers) return numbers.error();
    for (const std::uint8_t number : numbers.value()) {
        const SegmentState* one = overview.segment(number);
        if (!one->xcpPage) continue;
        const PageState* page = one->page(*one->xcpPage);
        pairs.push_back({{page == nullptr ? number : page->initSegment, 0}, {number, *one->xcpPage}});
    }
    const auto text = changeText(session, overview, pairs);
    if (!text) return text.error();
    return fmt::format("What the ECU starts with becomes what XCP's pages hold: {}. Go on?", text.value());
}

Result<void> PageStoreCommand::change(session::Session& session, const PageOverview& overview) const {
    const auto numbers = chosen(overview);
    if (!numbers) return numbers.error();
    return session.pages().store(overview, numbers.value());
}

}  // namespace lm::cli
