#include "xcp/daq_ids.h"

#include "core/log.h"
#include "xcp/optional_question.h"

namespace lm::xcp {

Result<DaqIdAnswer> askDaqId(Connection& connection, std::uint16_t list) {
    constexpr std::size_t kLength = 8;
    auto held = connection.turn();
    if (!held) return held.error();
    const ByteOrder order = held.value().slave().byteOrder();
    const auto reply = askOptional(held.value(), buildGetDaqId(list, order), kLength);
    if (!reply && reply.error().detail == Error::kNoDetail) return reply.error();
    if (!reply) log::info("GET_DAQ_ID of DAQ list {}: {}", list, reply.error().text());
    if (!reply) return DaqIdAnswer{};
    if (!reply.value()) return DaqIdAnswer{.known = false};
    const Packet& answer = *reply.value();
    if (answer.size() < kLength) {
        log::info("GET_DAQ_ID of DAQ list {}: the answer is too short", list);
        return DaqIdAnswer{};
    }
    const auto id = readBytes<std::uint32_t>(answer.data() + 4, order);
    return DaqIdAnswer{.told = DaqId{id, (answer.bytes[1] & 0x01U) != 0}};
}

Result<void> setDaqId(Connection& connection, std::uint16_t list, std::uint32_t id) {
    auto held = connection.turn();
    if (!held) return held.error();
    return held.value().perform(buildSetDaqId(list, id, held.value().slave().byteOrder()));
}

}  // namespace lm::xcp
