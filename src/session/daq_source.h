// What an ECU can do in DAQ: asked of it, read in the A2L, overruled by the configuration. The one place
// where the three meet.
//
// Threads: any; each operation holds the line of the master while it asks. Lifetime: master, configuration
// and interface data are borrowed and must outlive this.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "a2l/xcp_interface.h"
#include "core/result.h"
#include "session/session_config.h"
#include "xcp/master.h"

namespace lm::session {

/// Who told a part of the capabilities.
enum class Origin : std::uint8_t {
    none,  ///< no one: what is least is taken for it
    ecu,
    a2l,
};

/// "none", "ecu" or "a2l"
const char* originName(Origin origin);

struct DaqOrigins {
    Origin configuration = Origin::none;  ///< static or dynamic, identification field, numbers of lists
    Origin resolution = Origin::none;     ///< ODT entries, timestamp
    Origin events = Origin::none;
    Origin lists = Origin::none;  ///< static and predefined ones; none: there are none, or not asked yet

    bool anyFromA2l() const;
};

/// What the DAQ block says, in the form in which an ECU tells it. `granularity` is that of addresses.
xcp::DaqCapabilities describedCapabilities(const a2l::XcpDaq& daq, std::uint8_t granularity);

class DaqSource {
  public:
    DaqSource(xcp::Master& master, const SessionConfig& config, const a2l::XcpInterface& interface)
        : master_(master), config_(config), interface_(interface) {}

    /// All but the lists; with `daq.source` "a2l" the ECU is asked for nothing that the A2L tells. Errors:
    /// those of xcp::askDaqParts, with a hint where the A2L could tell instead.
    Result<DaqOrigins> ask(xcp::DaqCapabilities& capabilities) const;

    /// The static and predefined lists, if there are any: for who is going to measure. Errors: those of
    /// xcp::askDaqLists for an ECU that cannot be measured without an answer, with a hint likewise.
    Result<void> askLists(xcp::DaqCapabilities& capabilities, DaqOrigins& origins) const;

    /// What the ECU says otherwise than the A2L, a sentence each; overrides speak for themselves. An ECU that
    /// was not asked so far is asked now, once for each part, and may be silent.
    std::vector<std::string> contradictions(const xcp::DaqCapabilities& capabilities,
                                            const DaqOrigins& origins) const;

    /// Who told how a DTO is laid out, when it was not the ECU, as a sentence; else empty.
    std::string layoutTold(const DaqOrigins& origins) const;

    /// What the ECU did not tell and the A2L would, as a sentence; empty when there is nothing.
    std::string advice(const DaqOrigins& origins) const;

  private:
    bool prefersA2l() const { return config_.daq.source == DaqTold::a2l && interface_.daq.has_value(); }
    Error withHint(Error error) const;
    void overrule(xcp::DaqCapabilities& capabilities) const;
    bool takeDescribedLists(xcp::DaqCapabilities& capabilities) const;
    void completeLayouts(xcp::DaqCapabilities& capabilities) const;
    void compareTimestamp(const xcp::DaqCapabilities& ecu, const char* counts,
                          std::vector<std::string>& found) const;

    xcp::Master& master_;
    const SessionConfig& config_;
    const a2l::XcpInterface& interface_;
};

}  // namespace lm::session
