// The CAN identifiers of DAQ lists: fixed by the A2L, set in the ECU as the configuration wants it, or told
// by the ECU. What no one tells goes with the response identifier.
//
// Threads: one at a time; it sends commands. Lifetime: owns everything; the master is borrowed for a call.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "a2l/xcp_interface.h"
#include "core/result.h"
#include "xcp/master.h"

namespace lm::session {

/// Identifiers in A2L notation, in which bit 31 marks 29 bits, by list number.
using CanIdByList = std::map<std::uint16_t, std::uint32_t>;

struct DaqListId {
    enum class Source : std::uint8_t { a2l, configuration, ecu };

    std::uint16_t list = 0;
    std::uint32_t id = 0;
    Source source = Source::a2l;
};

/// "a2l", "configuration", "ecu"
const char* sourceName(DaqListId::Source source);

class DaqListIds {
  public:
    /// `mayAsk`: the ECU may know GET_DAQ_ID; lists that the A2L calls VARIABLE are asked for in any case.
    DaqListIds(CanIdByList wanted, std::vector<a2l::XcpDaqListId> described, bool mayAsk)
        : wanted_(std::move(wanted)), described_(std::move(described)), mayAsk_(mayAsk) {}

    /// Error: invalidArgument "can.daqIds: the A2L fixes CAN-ID 0xID for DAQ list N".
    Result<void> check() const;

    /// Those known without a question, by list: of the A2L and of the configuration.
    std::vector<DaqListId> given() const;

    /// Those of the lists that are known, the ECU asked for what is not given; nothing is changed. Errors:
    /// the master's.
    Result<std::vector<DaqListId>> find(xcp::Master& master, std::span<const std::uint16_t> lists);

    /// The same once those of the configuration are set in the ECU. The lists exist and do not run. Further
    /// errors: the ECU's to SET_DAQ_ID, protocolError when it then tells another one.
    Result<std::vector<DaqListId>> settle(xcp::Master& master, std::span<const std::uint16_t> lists);

  private:
    std::optional<std::uint32_t> fixed(std::uint16_t list) const;
    bool isVariable(std::uint16_t list) const;
    Result<std::optional<xcp::DaqId>> ask(xcp::Master& master, std::uint16_t list);
    Result<void> set(xcp::Master& master, std::uint16_t list, std::uint32_t id);

    const CanIdByList wanted_;
    const std::vector<a2l::XcpDaqListId> described_;
    bool mayAsk_;  ///< until the ECU shows that it does not know the question
    bool neverAnswers_ = false;
};

}  // namespace lm::session
