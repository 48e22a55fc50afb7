// How one ECU is reached: everything that differs between CAN, UDP and a serial line, one file for each.
//
// Threads: texts() is constant; counters(), silenceHint(), lost() and sendText() may be called from any
// thread; report() comes on the receive thread; the rest belongs to the session's thread, and reopenIfLost()
// and prepareLists() also to the supervisor while a measurement runs. Lifetime: a medium owns its transport;
// the text sink is borrowed until the transport is closed.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "core/stop_token.h"
#include "session/bus_load.h"
#include "session/daq_list_ids.h"
#include "xcp/text_sink.h"
#include "xcp/transport.h"

namespace lm::a2l {
struct XcpInterface;
}

namespace lm::session {

class ChannelPool;
class ISharing;
struct SessionConfig;

/// The medium in the words of its users.
struct MediumTexts {
    std::string name;         ///< "can:INTERFACE", "udp:HOST:PORT" or "serial:PORT"
    std::string description;  ///< as `info` shows it: "XCP on UDP/IP, HOST:PORT"
    std::string source;       ///< as a recording tells it, see storage/format/recording_source.h
    std::string silence;      ///< where no one answered, and why that may be
    std::string place;        ///< what tells this ECU from others: the name, on CAN with the identifiers
};

/// Counters that the statistics line shows whatever the medium is.
inline constexpr std::string_view kCanDropped = "CAN dropped";
inline constexpr std::string_view kErrorFrames = "error frames";

/// Something that a medium counts.
struct MediumCounter {
    std::string_view name;  ///< as it is printed, a constant
    std::uint64_t value = 0;
    bool isLoss = true;  ///< samples may have gone with it
};

class IMedium {
  public:
    virtual ~IMedium() = default;

    virtual const MediumTexts& texts() const = 0;
    virtual xcp::ITransport& transport() = 0;

    /// The largest DTO that can come from an ECU that says `told`; warns when it is less.
    virtual std::uint16_t largestDto(std::uint16_t told) const { return told; }
    /// Whether a DTO of `planned` bytes may have been filled up to `length` on its way.
    virtual bool mayFill(std::size_t /*planned*/, std::size_t /*length*/) const { return false; }
    /// The load of all ECUs on the line (fraction of 1), once this session's measurement has its part of it.
    /// Error: invalidArgument "estimated ... exceeds the limit of ...", with nothing claimed.
    virtual Result<double> claimLoad(const LoadInput& input, double limit) = 0;
    virtual void releaseLoad() {}
    /// Whether a load is estimated at all.
    virtual bool hasLoad() const { return true; }

    /// Totals, always the same in the same order. One may fall, when what was missing comes late.
    virtual std::vector<MediumCounter> counters() const = 0;
    /// Why DTOs of this ECU may stay unheard, and what to do about it; empty when nothing is known.
    virtual std::string silenceHint() const { return {}; }

    /// Before lists are started, which exist and do not run: sees to it that their DTOs are heard. Errors:
    /// the master's, those of the line's other users.
    virtual Result<void> prepareLists(xcp::Master& /*master*/, std::span<const std::uint16_t> /*lists*/) {
        return {};
    }
    /// The CAN identifiers of these lists and of those that A2L or configuration name, as far as known.
    /// Errors: the master's.
    virtual Result<std::vector<DaqListId>> listIds(xcp::Master& /*master*/,
                                                   std::span<const std::uint16_t> /*lists*/) {
        return std::vector<DaqListId>{};
    }

    /// Makes good what CONNECT's opening of the transport does not: a device under it that was lost. Errors:
    /// those of opening it.
    virtual Result<void> reopenIfLost() { return {}; }
    /// The device has gone since the transport was opened, and does not come back by itself.
    virtual bool lost() const { return false; }
    /// Warns of a medium that is in trouble already.
    virtual void reportTrouble() {}
    /// Tells what is worth telling of an event. True when packets were lost.
    virtual bool report(const xcp::TransportEvent& /*event*/) { return false; }

    /// Of a medium that goes through another program's connection; else null.
    virtual ISharing* sharing() { return nullptr; }

    /// Whether the ECU prints text beside its packets and reads lines. Without: setTextSink() does nothing
    /// and sendText() fails.
    virtual bool hasText() const { return false; }
    virtual void setTextSink(xcp::ITextSink* /*sink*/) {}
    /// Error without text: unsupported "text input needs a serial line".
    virtual Result<void> sendText(std::string_view /*line*/) {
        return Error{ErrorCode::unsupported, "text input needs a serial line"};
    }
};

/// Null when the configuration does not name the medium. A stop ends waits of the medium's own.
using MediumMaker = Result<std::unique_ptr<IMedium>>(const SessionConfig& config,
                                                     const a2l::XcpInterface& ifData, ChannelPool& pool,
                                                     const StopToken& stop);

}  // namespace lm::session
