// On which calibration pages a set of parameters is written: on those that the ECU does not use, to which it
// goes with one switch once everything is there, where there are such; else on those that XCP sees.
//
// The way: begin() before the parameters are read, choose() when it is known what changes, enter() before the
// first write, conclude() after the last one. retreat() gives the ECU the pages that it used, and lets XCP
// see what was written, to take it back. What is left open the destructor puts right: XCP is on the pages on
// which it was.
//
// Threads: one at a time; a stop may be requested from any. Lifetime: everything given is borrowed.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "a2l/description.h"
#include "core/result.h"
#include "session/object_bytes.h"
#include "session/page_control.h"
#include "session/undo_file.h"
#include "xcp/master.h"

namespace lm::session {

class PagedWrite {
  public:
    PagedWrite(xcp::Master& master, PageControl& pages, const a2l::Description& description)
        : master_(master), pages_(pages), description_(description) {}
    ~PagedWrite();
    PagedWrite(const PagedWrite&) = delete;
    PagedWrite& operator=(const PagedWrite&) = delete;

    /// With a page wished XCP goes where the ECU is, as that is what a set is compared with. Without one an
    /// A2L without segments of several pages is reason enough to ask nothing. Errors: those of
    /// PageControl::look().
    Result<void> begin(std::optional<std::uint8_t> wish);

    /// What will be written. Errors, of a page that was wished: notFound, unsupported, permissionDenied when
    /// the ECU's facts do not allow it.
    Result<void> choose(const std::vector<const ObjectBytes*>& changes);

    /// The ECU will go to other pages.
    bool switches() const { return switches_; }
    /// Of what will be written, objects that lie in no segment: the ECU has them at once.
    std::size_t outside() const { return outside_; }
    /// The segments that are written, and what an undo has to know of them.
    const std::vector<WrittenPage>& written() const { return written_; }
    /// Between choose() and enter(): where both sides are.
    PageOverview overviewNow() const;
    /// "page 1 of segment 0 (parameters_0)", for each page that is written
    std::string placeText() const;

    /// The inactive pages become what the active ones are, and XCP goes to them. Errors: those of
    /// PageControl; unsupported when the ECU copies none.
    Result<void> enter();
    /// Looks whether everything is where it was left and holds what was written, and switches the ECU.
    /// Errors: the memory's, PageControl's, protocolError when it is not so. The ECU may be on any page then.
    Result<void> conclude(IMemory& memory, const std::vector<const ObjectBytes*>& changes);
    /// Errors: those of PageControl, when the ECU or XCP cannot be put there.
    Result<void> retreat();

  private:
    Result<void> gather(const std::vector<const ObjectBytes*>& changes);
    Result<std::uint8_t> target(const SegmentState& segment, std::optional<std::uint8_t> wish);
    Result<void> chooseTargets();
    bool switchesPages(const SegmentState& segment);
    Result<void> expect(xcp::PageUser user, const WrittenPage& place, std::uint8_t page);
    Result<void> setXcp(std::uint8_t segment, std::uint8_t page);
    Result<void> setEcu();
    Result<void> checkOthers();

    xcp::Master& master_;
    PageControl& pages_;
    const a2l::Description& description_;
    std::optional<std::uint8_t> wish_;
    PageOverview overview_;  ///< as it was before anything
    std::vector<WrittenPage> written_;
    std::vector<std::uint8_t> moved_;  ///< segments in which XCP may be elsewhere
    std::size_t outside_ = 0;
    bool switches_ = false;
};

/// Whether the A2L tells a segment with several pages.
bool hasPages(const a2l::Description& description);

/// The segments that are written on the pages that XCP sees, as far as they tell their pages.
std::vector<WrittenPage> pagesOf(const PageOverview& overview, const std::vector<ObjectBytes>& changes);

/// Before an undo: XCP goes to the pages that were written. Errors: those of PageControl::set().
Result<void> goToPages(PageControl& pages, const PageOverview& wasThere,
                       const std::vector<WrittenPage>& written);

/// Whether the ECU still uses the page from before and another one was written: what it sees of the object
/// was never touched, whatever the other page holds.
bool isUntouched(const PageOverview& wasThere, const std::vector<WrittenPage>& written,
                 const ObjectBytes& change);

/// After an undo: gives the ECU the page that it used before where it sees no difference, and XCP its own.
/// `wasThere`: where XCP was before the undo. What stays otherwise is in the result, in words.
std::vector<std::string> returnToPages(PageControl& pages, const PageOverview& wasThere,
                                       const std::vector<WrittenPage>& written);

}  // namespace lm::session
