#include "hal/can_interface_message.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/can/netlink.h>
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <string>

namespace lm::hal {
namespace {

static_assert(CanInterfaceState::kListenOnly == CAN_CTRLMODE_LISTENONLY &&
              CanInterfaceState::kFd == CAN_CTRLMODE_FD);

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t aligned(std::size_t size) {
    return NLMSG_ALIGN(size);
}

template <typename T>
T readAt(Bytes bytes, std::size_t offset) {
    T value{};
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

/// A request about one interface, growing attribute by attribute.
class Request {
  public:
    Request(std::uint16_t type, std::uint16_t flags, std::uint32_t sequence, const ifinfomsg& head)
        : header_{.nlmsg_len = 0,
                  .nlmsg_type = type,
                  .nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags),
                  .nlmsg_seq = sequence,
                  .nlmsg_pid = 0} {
        append(&header_, sizeof header_);
        append(&head, sizeof head);
    }

    void add(std::uint16_t type, const void* data, std::size_t size) {
        const std::size_t start = open(type);
        append(data, size);
        close(start);
    }
    void addText(std::uint16_t type, std::string_view text) {
        const std::string terminated(text);
        add(type, terminated.c_str(), terminated.size() + 1);
    }

    /// Begins an attribute whose content follows; returns what close() needs.
    std::size_t open(std::uint16_t type) {
        const std::size_t start = bytes_.size();
        const rtattr head{.rta_len = 0, .rta_type = type};
        append(&head, sizeof head);
        return start;
    }
    void close(std::size_t start) {
        const auto length = static_cast<std::uint16_t>(bytes_.size() - start);
        std::memcpy(bytes_.data() + start, &length, sizeof length);
        bytes_.resize(aligned(bytes_.size()));
    }

    NetlinkMessage finish() {
        header_.nlmsg_len = static_cast<std::uint32_t>(bytes_.size());
        std::memcpy(bytes_.data(), &header_, sizeof header_);
        return std::move(bytes_);
    }

  private:
    void append(const void* data, std::size_t size) {
        const auto* const from = static_cast<const std::uint8_t*>(data);
        bytes_.insert(bytes_.end(), from, from + size);
    }

    nlmsghdr header_;
    NetlinkMessage bytes_;
};

ifinfomsg interfaceFlags(bool change, bool up) {
    ifinfomsg head{};
    head.ifi_change = change ? IFF_UP : 0;
    head.ifi_flags = up ? IFF_UP : 0;
    return head;
}

void addBitTiming(Request& request, std::uint16_t type, const CanBitTiming& timing) {
    can_bittiming bits{};
    bits.bitrate = timing.bitrate;
    bits.sample_point = timing.samplePoint;
    request.add(type, &bits, sizeof bits);
}

/// The content of the first attribute of the type; none when there is no whole one.
std::optional<Bytes> findAttribute(Bytes attributes, unsigned type) {
    while (attributes.size() >= sizeof(rtattr)) {
        const auto head = readAt<rtattr>(attributes, 0);
        if (head.rta_len < sizeof head || head.rta_len > attributes.size()) return std::nullopt;
        if ((head.rta_type & NLA_TYPE_MASK) == type) {
            return attributes.subspan(sizeof head, head.rta_len - sizeof head);
        }
        attributes = attributes.subspan(std::min(aligned(head.rta_len), attributes.size()));
    }
    return std::nullopt;
}

template <typename T>
std::optional<T> findValue(Bytes attributes, unsigned type) {
    const auto content = findAttribute(attributes, type);
    if (!content || content->size() < sizeof(T)) return std::nullopt;
    return readAt<T>(*content, 0);
}

CanBitTiming findBitTiming(Bytes attributes, unsigned type) {
    const auto bits = findValue<can_bittiming>(attributes, type);
    if (!bits) return {};
    return {.bitrate = bits->bitrate, .samplePoint = static_cast<std::uint16_t>(bits->sample_point)};
}

CanBusState busStateFrom(std::optional<std::uint32_t> state) {
    if (!state || *state > CAN_STATE_BUS_OFF) return CanBusState::unknown;
    return static_cast<CanBusState>(*state + 1);
}

void readController(Bytes attributes, CanInterfaceState& state) {
    state.bitTiming = findBitTiming(attributes, IFLA_CAN_BITTIMING);
    state.dataBitTiming = findBitTiming(attributes, IFLA_CAN_DATA_BITTIMING);
    state.controlMode = findValue<can_ctrlmode>(attributes, IFLA_CAN_CTRLMODE).value_or(can_ctrlmode{}).flags;
    state.busState = busStateFrom(findValue<std::uint32_t>(attributes, IFLA_CAN_STATE));
    state.restartMs = findValue<std::uint32_t>(attributes, IFLA_CAN_RESTART_MS).value_or(0);
}

Error unexpectedReply() {
    return Error::fromErrno(ErrorCode::protocolError, EBADMSG, "unexpected netlink reply");
}

struct Reply {
    std::uint16_t type;
    Bytes content;
};

/// The one message of a reply; a refusal by the kernel is an error.
Result<Reply> readReply(Bytes reply, std::uint32_t sequence) {
    if (reply.size() < sizeof(nlmsghdr)) return unexpectedReply();
    const auto header = readAt<nlmsghdr>(reply, 0);
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > reply.size() || header.nlmsg_seq != sequence) {
        return unexpectedReply();
    }
    const Reply message{.type = header.nlmsg_type,
                        .content = reply.subspan(sizeof header, header.nlmsg_len - sizeof header)};
    if (message.type == NLMSG_ERROR) {
        if (message.content.size() < sizeof(nlmsgerr)) return unexpectedReply();
        const int failure = -readAt<nlmsgerr>(message.content, 0).error;
        if (failure != 0) return Error::fromErrno(failure, "netlink request");
    }
    return message;
}

}  // namespace

NetlinkMessage interfaceQuery(std::string_view name, std::uint32_t sequence) {
    Request request(RTM_GETLINK, 0, sequence, interfaceFlags(false, false));
    request.addText(IFLA_IFNAME, name);
    return request.finish();
}

NetlinkMessage interfaceSwitch(std::string_view name, bool up, std::uint32_t sequence) {
    Request request(RTM_NEWLINK, NLM_F_ACK, sequence, interfaceFlags(true, up));
    request.addText(IFLA_IFNAME, name);
    return request.finish();
}

NetlinkMessage interfaceSettings(std::string_view name, const CanInterfaceSettings& settings,
                                 std::uint32_t sequence) {
    Request request(RTM_NEWLINK, NLM_F_ACK, sequence, interfaceFlags(false, false));
    request.addText(IFLA_IFNAME, name);
    const std::size_t info = request.open(IFLA_LINKINFO);
    request.addText(IFLA_INFO_KIND, "can");
    const std::size_t data = request.open(IFLA_INFO_DATA);
    addBitTiming(request, IFLA_CAN_BITTIMING, settings.bitTiming);
    if (settings.dataBitTiming) addBitTiming(request, IFLA_CAN_DATA_BITTIMING, *settings.dataBitTiming);
    can_ctrlmode mode{};
    mode.mask = CanInterfaceState::kFd | CanInterfaceState::kListenOnly;
    mode.flags = (settings.fd ? CanInterfaceState::kFd : 0U) |
                 (settings.listenOnly ? CanInterfaceState::kListenOnly : 0U);
    request.add(IFLA_CAN_CTRLMODE, &mode, sizeof mode);
    request.close(data);
    request.close(info);
    return request.finish();
}

Result<CanInterfaceState> readInterfaceReply(Bytes reply, std::uint32_t sequence) {
    const auto message = readReply(reply, sequence);
    if (!message) return message.error();
    const Bytes content = message.value().content;
    if (message.value().type != RTM_NEWLINK || content.size() < sizeof(ifinfomsg)) return unexpectedReply();
    CanInterfaceState state;
    state.up = (readAt<ifinfomsg>(content, 0).ifi_flags & IFF_UP) != 0;
    const Bytes attributes = content.subspan(sizeof(ifinfomsg));
    state.mtu = findValue<std::uint32_t>(attributes, IFLA_MTU).value_or(0);
    const Bytes info = findAttribute(attributes, IFLA_LINKINFO).value_or(Bytes{});
    if (const auto kind = findAttribute(info, IFLA_INFO_KIND)) {
        state.kind.assign(kind->begin(), std::find(kind->begin(), kind->end(), 0));
    }
    if (state.isController()) readController(findAttribute(info, IFLA_INFO_DATA).value_or(Bytes{}), state);
    return state;
}

Result<void> readAcknowledgement(Bytes reply, std::uint32_t sequence) {
    const auto message = readReply(reply, sequence);
    if (!message) return message.error();
    if (message.value().type != NLMSG_ERROR) return unexpectedReply();
    return {};
}

}  // namespace lm::hal
