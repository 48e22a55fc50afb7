#include "xcp/master.h"

#include <utility>

#include "xcp/daq_decoder.h"

namespace lm::xcp {

Master::Master(ITransport& transport, const MasterOptions& options, StopToken stop, IMasterClock& clock)
    : transport_(transport),
      connection_(transport, options, std::move(stop), clock),
      memory_(connection_),
      pages_(connection_),
      daq_(connection_) {
    transport_.setSink(this);
}

Master::~Master() {
    transport_.close();
    transport_.setSink(nullptr);
}

Result<void> Master::connect(ConnectMode mode, std::optional<std::int32_t> attempts,
                             std::optional<std::chrono::milliseconds> longest) {
    return connection_.connect(mode, attempts.value_or(connection_.options().connectAttempts), longest);
}

Result<void> Master::unlockBefore(Resource resource) {
    auto turn = connection_.turn();
    if (!turn) return turn.error();
    return turn.value().unlockBefore(resource);
}

Result<Packet> Master::transact(const Packet& command, const Exchange& rules) {
    auto turn = connection_.turn();
    if (!turn) return turn.error();
    return turn.value().transact(command, rules);
}

Result<SlaveStatus> Master::getStatus() {
    auto reply = transact(buildPlain(Command::getStatus), {.minimumLength = 6});
    if (!reply) return reply.error();
    return parseStatus(reply.value().view(), connectInfo().byteOrder());
}

Result<CommModeInfo> Master::getCommModeInfo() {
    auto reply = transact(buildPlain(Command::getCommModeInfo), {.minimumLength = 8});
    if (!reply) return reply.error();
    return parseCommModeInfo(reply.value().view());
}

MasterStatistics Master::statistics() const {
    MasterStatistics all = connection_.statistics();
    all.events = events_.load();
    all.dtos = dtos_.get();
    return all;
}

void Master::setDtoSink(IDtoSink* sink) {
    dtoSink_.set(sink);
}

void Master::setListener(IMasterListener* listener) {
    listener_.set(listener);
}

// Receive thread

void Master::onPacket(const std::uint8_t* data, std::size_t length, ReceiveTime time) {
    if (length == 0) return;
    if (data[0] < kPidService) {
        dtos_.add(1);
        dtoSink_.deliver([=](IDtoSink& sink) { sink.onDto(data, length, time); });
    } else if (data[0] == kPidEvent) {
        onEvent(data, length, time);
    } else if (data[0] == kPidService) {
        const std::uint8_t code = length > 1 ? data[1] : std::uint8_t{0};
        listener_.deliver([=](IMasterListener& listener) { listener.onServiceRequest(code, data, length); });
    } else {
        connection_.onAnswer(data, length, time);
    }
}

void Master::onEvent(const std::uint8_t* data, std::size_t length, ReceiveTime time) {
    ++events_;
    const std::uint8_t code = length > 1 ? data[1] : kEvUser;
    if (code == kEvSessionTerminated) connection_.onTerminated();
    if (code == kEvCmdPending) connection_.onPending();
    listener_.deliver([=](IMasterListener& listener) { listener.onEvent(code, data, length, time); });
}

void Master::onTransportEvent(const TransportEvent& event) {
    listener_.deliver([&event](IMasterListener& listener) { listener.onTransportEvent(event); });
}

}  // namespace lm::xcp
