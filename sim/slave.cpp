#include "sim/slave.h"

#include <algorithm>
#include <cstring>

#include "sim/event_cycle.h"
#include "sim/offered_commands.h"

namespace lm::sim {
namespace {

constexpr std::uint8_t kOptionalInfo = 0x80;  // COMM_MODE_BASIC: GET_COMM_MODE_INFO is there
constexpr std::uint8_t kDaqRunning = 0x40;
constexpr std::uint8_t kDriverVersion = 0x10;
constexpr std::uint8_t kProtocolVersion = 1;

constexpr bool isDaqCommand(std::uint8_t code) {
    return code <= kSetDaqPtr && code >= kAllocOdtEntry;
}

}  // namespace

Slave::Slave(const Options& options, const Catalog& catalog, World& world, FaultPlan& faults)
    : options_(options),
      catalog_(catalog),
      world_(world),
      daq_(options, world, faults),
      security_(options.lock, options.maxCto) {}

void Slave::reset() {
    connected_ = false;
    mta_ = 0;
    mtaExtension_ = 0;
    daq_.reset();
    security_.lockAll();
}

void Slave::command(Packet packet, std::uint64_t ticks, Outbox& out) {
    if (packet.empty() || (!connected_ && packet[0] != kConnect)) return;
    const Refusal refusal = execute(packet, ticks);
    if (refusal) {
        out.append(std::array<std::uint8_t, 2>{kErrorPacket, static_cast<std::uint8_t>(*refusal)});
    } else {
        out.append({answer_.data(), answerSize_});
    }
}

Slave::Refusal Slave::execute(Packet packet, std::uint64_t ticks) {
    const std::uint8_t code = packet[0];
    const CommandInfo* info = findCommand(code);
    if (info == nullptr || !isOffered(*info, options_)) return Err::cmdUnknown;
    if (isDaqCommand(code) && !options_.daq) return Err::cmdUnknown;
    if (packet.size() < info->length || packet.size() > options_.maxCto) return Err::cmdSyntax;
    if (!security_.admit(code)) return Err::accessLocked;
    answer(1);
    switch (code) {
        case kConnect:
            connect();
            return std::nullopt;
        case kDisconnect:
            reset();
            return std::nullopt;
        case kGetStatus:
            status();
            return std::nullopt;
        case kSynch:
            if (options_.synchClears) clearPointers();
            return Err::cmdSynch;
        case kGetCommModeInfo:
            commModeInfo();
            return std::nullopt;
        case kGetSeed:
        case kUnlock:
            return executeSecurity(packet);
        case kGetDaqClock:
        case kGetDaqProcessorInfo:
        case kGetDaqResolutionInfo:
        case kGetDaqEventInfo:
            return executeDaqInfo(packet, ticks);
        default:
            return isDaqCommand(code) ? executeDaq(packet) : executeMemory(packet);
    }
}

Slave::Refusal Slave::executeSecurity(Packet packet) {
    if (packet[0] == kGetSeed) {
        const Refusal refusal = security_.requestSeed(packet[1], packet[2]);
        if (refusal) return refusal;
        const std::vector<std::uint8_t> part = security_.seedPart();
        answer(2 + part.size())[1] = security_.seedLeft();
        std::copy(part.begin(), part.end(), answer_.begin() + 2);
        security_.seedPartSent();
        return std::nullopt;
    }
    const Refusal refusal = security_.unlock(packet[1], packet.subspan(2));
    if (refusal == Err::accessLocked) reset();
    if (!refusal) answer(2)[1] = security_.toldLocked();
    return refusal;
}

Slave::Refusal Slave::executeMemory(Packet packet) {
    if (packet[0] == kSetMta || packet[0] == kShortUpload) {
        mtaExtension_ = packet[3];
        mta_ = dword(packet, 4);
    }
    switch (packet[0]) {
        case kSetMta:
            return std::nullopt;
        case kDownload:
            return download(packet);
        default:
            return upload(packet[1]);
    }
}

Slave::Refusal Slave::executeDaqInfo(Packet packet, std::uint64_t ticks) {
    switch (packet[0]) {
        case kGetDaqClock:
            answer(8);
            writeBytes(&answer_[4], static_cast<std::uint32_t>(ticks), options_.order);
            return std::nullopt;
        case kGetDaqProcessorInfo:
            processorInfo();
            return std::nullopt;
        case kGetDaqResolutionInfo:
            resolutionInfo();
            return std::nullopt;
        default:
            return eventInfo(word(packet, 2));
    }
}

Slave::Refusal Slave::executeDaq(Packet packet) {
    const bool allocates = packet[0] <= kFreeDaq;
    if (allocates && options_.staticDaq) return Err::cmdUnknown;
    switch (packet[0]) {
        case kFreeDaq:
            daq_.free();
            return std::nullopt;
        case kAllocDaq:
            return daq_.allocLists(word(packet, 2));
        case kAllocOdt:
            return daq_.allocOdts(word(packet, 2), packet[4]);
        case kAllocOdtEntry:
            return daq_.allocEntries(word(packet, 2), packet[4], packet[5]);
        case kSetDaqPtr:
            return daq_.setPointer(word(packet, 2), packet[4], packet[5]);
        case kWriteDaq:
            return daq_.writeEntry(packet[1], std::size_t{packet[2]} * options_.granularity, packet[3],
                                   dword(packet, 4));
        case kSetDaqListMode:
            return daq_.setMode(word(packet, 2), packet[1], word(packet, 4), packet[6]);
        case kStartStopDaqList: {
            const Refusal refusal = daq_.startStop(word(packet, 2), packet[1]);
            if (!refusal) {
                answer(2)[1] = options_.sameFirstPid == SameFirstPid::told ? options_.firstPid
                                                                           : daq_.firstPid(word(packet, 2));
            }
            return refusal;
        }
        default:
            return daq_.startStopSelected(packet[1]);
    }
}

void Slave::connect() {
    reset();
    connected_ = true;
    std::uint8_t* to = answer(8);
    to[1] = static_cast<std::uint8_t>(kCalibration | (options_.daq ? kDaq : 0));
    const std::uint8_t granularity = options_.granularity == 4 ? 0x04 : options_.granularity == 2 ? 0x02 : 0;
    to[2] = static_cast<std::uint8_t>((options_.order == ByteOrder::bigEndian ? 0x01 : 0) | granularity |
                                      (options_.without.count(kGetCommModeInfo) != 0 ? 0 : kOptionalInfo));
    to[3] = options_.maxCto;
    putWord(4, options_.maxDto);
    to[6] = kProtocolVersion;
    to[7] = kProtocolVersion;
}

void Slave::clearPointers() {
    mtaExtension_ = 0;
    mta_ = catalog_.regions().front().base;
    daq_.clearPointer();
}

void Slave::status() {
    std::uint8_t* to = answer(6);
    to[1] = daq_.running() ? kDaqRunning : 0;
    to[2] = security_.toldLocked();
}

void Slave::commModeInfo() {
    answer(8)[7] = kDriverVersion;
}

Slave::Refusal Slave::upload(std::size_t elements) {
    const std::size_t size = elements * options_.granularity;
    const std::size_t head = options_.granularity;
    if (elements == 0 || head + size > options_.maxCto) return Err::outOfRange;
    const std::uint8_t* from = world_.read(mtaExtension_, mta_, size);
    if (from == nullptr || mta_ % options_.granularity != 0) return Err::outOfRange;
    std::memcpy(answer(head + size) + head, from, size);
    mta_ += static_cast<std::uint32_t>(size);
    return std::nullopt;
}

Slave::Refusal Slave::download(Packet packet) {
    const std::size_t head = options_.granularity == 4 ? 4 : 2;
    const std::size_t size = std::size_t{packet[1]} * options_.granularity;
    if (size == 0 || mta_ % options_.granularity != 0) return Err::outOfRange;
    if (packet.size() < head + size) return Err::cmdSyntax;
    switch (world_.write(mtaExtension_, mta_, packet.subspan(head, size))) {
        case Access::outOfRange:
            return Err::outOfRange;
        case Access::writeProtected:
            return Err::writeProtected;
        case Access::granted:
            break;
    }
    mta_ += static_cast<std::uint32_t>(size);
    ++writes_;
    return std::nullopt;
}

void Slave::processorInfo() {
    std::uint8_t* to = answer(8);
    const bool topBit = options_.overload == OverloadIndication::topBit;
    const bool event = options_.overload == OverloadIndication::event;
    to[1] = static_cast<std::uint8_t>((options_.staticDaq ? 0 : 0x01) | 0x02 |
                                      (options_.timestampSize != 0 ? 0x10 : 0) | (topBit ? 0x40 : 0) |
                                      (event ? 0x80 : 0));
    putWord(2, options_.minDaq + std::size_t{daq_.count()});
    putWord(4, kEventCount);
    to[6] = options_.minDaq;
    to[7] = static_cast<std::uint8_t>(options_.identification << 6);
}

void Slave::resolutionInfo() {
    std::uint8_t* to = answer(8);
    to[1] = options_.granularity;
    to[2] = static_cast<std::uint8_t>(options_.maxOdtEntrySize());
    to[3] = options_.granularity;
    if (options_.timestampSize == 0) return;
    to[5] = static_cast<std::uint8_t>(options_.tickExponent() << 4 | (options_.timestampFixed ? 0x08 : 0) |
                                      options_.timestampSize);
    putWord(6, 1);
}

Slave::Refusal Slave::eventInfo(std::uint16_t event) {
    if (event >= kEventCount) return Err::outOfRange;
    const EventCycle cycle = eventCycle(options_, static_cast<std::uint8_t>(event));
    std::uint8_t* to = answer(7);
    to[1] = 0x04;  // direction DAQ
    to[2] = 0xFF;  // any number of lists
    to[3] = static_cast<std::uint8_t>(catalog_.eventNames()[event].size());
    to[4] = cycle.count;
    to[5] = cycle.unit;
    mtaExtension_ = kNameExtension;
    mta_ = catalog_.eventNameAddress(event);
    return std::nullopt;
}

std::uint16_t Slave::word(Packet packet, std::size_t at) const {
    return readBytes<std::uint16_t>(&packet[at], options_.order);
}

std::uint32_t Slave::dword(Packet packet, std::size_t at) const {
    return readBytes<std::uint32_t>(&packet[at], options_.order);
}

std::uint8_t* Slave::answer(std::size_t size) {
    std::fill_n(answer_.begin(), size, std::uint8_t{0});
    answer_[0] = kResponse;
    answerSize_ = size;
    return answer_.data();
}

void Slave::putWord(std::size_t at, std::size_t value) {
    writeBytes(&answer_[at], static_cast<std::uint16_t>(value), options_.order);
}

}  // namespace lm::sim
