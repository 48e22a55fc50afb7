#include <algorithm>
#include <array>

#include "sim/daq.h"

namespace lm::sim {

void DaqLists::sample(std::uint8_t event, std::uint64_t ticks, Outbox& out) {
    for (std::size_t i = 0; i < lists_.size(); ++i) {
        List& list = lists_[i];
        if (!list.running || list.event != event) continue;
        if (++list.skipped < list.prescaler) continue;
        list.skipped = 0;
        ++counters_.samples;
        counters_.dtos += list.used;
        if (faults_.due(StreamFault::overload)) {
            ++counters_.samplesLost;
            counters_.dtosLost += list.used;
            list.overloaded = true;
            if (options_.overload == OverloadIndication::event) {
                out.append(std::array<std::uint8_t, 2>{kEventPacket, kEvDaqOverload});
            }
            continue;
        }
        sampleList(i, ticks, out);
    }
}

void DaqLists::sampleList(std::size_t index, std::uint64_t ticks, Outbox& out) {
    List& list = lists_[index];
    const std::size_t head = headSize(list);
    for (std::size_t odt = 0; odt < list.used; ++odt) {
        const Odt& source = list.odts[odt];
        const std::size_t stamp = odt == 0 && list.timestamp ? options_.timestampSize : 0U;
        const std::size_t whole = head + stamp + source.bytes;
        if (faults_.due(StreamFault::loseOdt)) {
            ++counters_.dtosLost;
            continue;
        }
        std::uint8_t* to =
            out.append(std::min<std::size_t>(whole + options_.pad, options_.maxDto), true, list.canId).data();
        if (head != 0) writeHead(to, index, odt, odt == 0 && list.overloaded);
        to += head;
        if (stamp != 0) writeSized(to, ticks, stamp, ByteOrder::littleEndian);
        to += stamp;
        for (const Entry& entry : source.entries) {
            if (entry.at == nullptr) break;
            std::memcpy(to, entry.at, entry.size);
            to += entry.size;
        }
    }
    list.overloaded = false;
}

void DaqLists::writeHead(std::uint8_t* to, std::size_t list, std::size_t odt, bool overloaded) const {
    const std::size_t number = list + firstList();
    to[0] = static_cast<std::uint8_t>(odt);
    switch (options_.identification) {
        case 0:
            to[0] = static_cast<std::uint8_t>(firstPid(static_cast<std::uint16_t>(number)) + odt);
            break;
        case 1:
            to[1] = static_cast<std::uint8_t>(number);
            break;
        default:
            writeLittle(to + options_.identification - 1, static_cast<std::uint16_t>(number));
    }
    if (overloaded && options_.overload == OverloadIndication::topBit) to[0] |= 0x80;
}

}  // namespace lm::sim
