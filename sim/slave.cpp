#include "sim/slave.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "sim/offered_commands.h"

namespace lm::sim {
namespace {

constexpr std::uint8_t kOptionalInfo = 0x80;  // COMM_MODE_BASIC: GET_COMM_MODE_INFO is there
constexpr std::uint8_t kSendsBlocks = 0x40;   // and several packets answer one UPLOAD
constexpr std::uint8_t kTakesBlocks = 0x01;   // COMM_MODE_OPTIONAL
constexpr std::uint8_t kDaqRunning = 0x40;
constexpr std::uint8_t kStoringPages = 0x01;
constexpr std::uint8_t kDriverVersion = 0x10;
constexpr std::uint8_t kProtocolVersion = 1;

}  // namespace

Slave::Slave(const Options& options, const Catalog& catalog, World& world, FaultPlan& faults)
    : options_(options),
      catalog_(catalog),
      world_(world),
      daq_(options, world, faults),
      daqCommands_(options, catalog, daq_),
      pageCommands_(options, catalog, world),
      security_(options.lock, options.maxCto),
      answer_(options.order) {}

void Slave::reset() {
    connected_ = false;
    mta_ = {};
    toCome_ = 0;
    daq_.reset();
    security_.lockAll();
}

void Slave::command(Packet packet, std::uint64_t ticks, Outbox& out) {
    if (packet.empty() || (!connected_ && packet[0] != kConnect)) return;
    const std::size_t expected = toCome_;
    if (packet[0] != kDownloadNext) toCome_ = 0;
    const Refusal refusal = execute(packet, ticks);
    if (refusal == Err::sequence && packet[0] == kDownloadNext) {
        out.append(std::array<std::uint8_t, 3>{kErrorPacket, static_cast<std::uint8_t>(*refusal),
                                               static_cast<std::uint8_t>(expected)});
    } else if (refusal) {
        out.append(std::array<std::uint8_t, 2>{kErrorPacket, static_cast<std::uint8_t>(*refusal)});
    } else if (toCome_ == 0) {
        out.append(answer_.bytes());
        sendRestOfBlock(out);
    }
}

void Slave::sendRestOfBlock(Outbox& out) {
    while (toSend_ != 0) {
        upload(toSend_, true);
        out.append(answer_.bytes());
    }
}

Slave::Refusal Slave::execute(Packet packet, std::uint64_t ticks) {
    const std::uint8_t code = packet[0];
    const CommandInfo* info = findCommand(code);
    if (info == nullptr || !isOffered(*info, options_)) return Err::cmdUnknown;
    if (packet.size() < info->length || packet.size() > options_.maxCto) return Err::cmdSyntax;
    if (!security_.admit(code)) return Err::accessLocked;
    answer_.begin(1);
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
        case kGetDaqEventInfo: {
            const Refusal refusal = daqCommands_.execute(packet, ticks, answer_);
            if (refusal) return refusal;
            mta_ = {kNameExtension, catalog_.eventNameAddress(answer_.word(packet, 2))};
            return std::nullopt;
        }
        default:
            if (isPageCommand(code)) return pageCommands_.execute(packet, answer_, mta_);
            return isDaqCommand(code) ? daqCommands_.execute(packet, ticks, answer_) : executeMemory(packet);
    }
}

Slave::Refusal Slave::executeSecurity(Packet packet) {
    if (packet[0] == kGetSeed) {
        const Refusal refusal = security_.requestSeed(packet[1], packet[2]);
        if (refusal) return refusal;
        const std::vector<std::uint8_t> part = security_.seedPart();
        std::uint8_t* to = answer_.begin(2 + part.size());
        to[1] = security_.seedLeft();
        std::copy(part.begin(), part.end(), to + 2);
        security_.seedPartSent();
        return std::nullopt;
    }
    const Refusal refusal = security_.unlock(packet[1], packet.subspan(2));
    if (refusal == Err::accessLocked) reset();
    if (!refusal) answer_.begin(2)[1] = security_.toldLocked();
    return refusal;
}

Slave::Refusal Slave::executeMemory(Packet packet) {
    if (packet[0] == kSetMta || packet[0] == kShortUpload) {
        mta_ = {packet[3], answer_.dword(packet, 4)};
    }
    switch (packet[0]) {
        case kSetMta:
            return std::nullopt;
        case kDownload:
        case kDownloadNext:
            return download(packet);
        case kModifyBits:
            return modifyBits(packet);
        default:
            return upload(packet[1], packet[0] == kUpload && options_.blocks.answers);
    }
}

void Slave::connect() {
    reset();
    connected_ = true;
    std::uint8_t* to = answer_.begin(8);
    to[1] = static_cast<std::uint8_t>(kCalibration | (options_.daq ? kDaq : 0));
    const std::uint8_t told = options_.tells.granularity.value_or(options_.granularity);
    const std::uint8_t granularity = told == 4 ? 0x04 : told == 2 ? 0x02 : 0;
    const ByteOrder order = options_.tells.order.value_or(options_.order);
    to[2] = static_cast<std::uint8_t>((order == ByteOrder::bigEndian ? 0x01 : 0) | granularity |
                                      (options_.blocks.answers ? kSendsBlocks : 0) |
                                      (options_.without.count(kGetCommModeInfo) != 0 ? 0 : kOptionalInfo));
    to[3] = options_.tells.maxCto.value_or(options_.maxCto);
    answer_.putWord(4, options_.tells.maxDto.value_or(options_.maxDto));
    to[6] = kProtocolVersion;
    to[7] = kProtocolVersion;
}

void Slave::clearPointers() {
    mta_ = {0, catalog_.regions().front().base};
    daq_.clearPointer();
}

void Slave::status() {
    std::uint8_t* to = answer_.begin(6);
    to[1] = options_.tells.running.value_or(daq_.running()) ? kDaqRunning : 0;
    if (pageCommands_.storing()) to[1] |= kStoringPages;
    to[2] = security_.toldLocked();
}

void Slave::commModeInfo() {
    std::uint8_t* to = answer_.begin(8);
    to[2] = options_.blocks.maxBs != 0 ? kTakesBlocks : std::uint8_t{0};
    to[4] = options_.blocks.maxBs;
    to[5] = options_.blocks.pause;
    to[7] = kDriverVersion;
}

Slave::Refusal Slave::upload(std::size_t elements, bool inBlocks) {
    const std::size_t head = options_.granularity;
    const std::size_t all = elements * options_.granularity;
    const std::size_t size = inBlocks ? std::min<std::size_t>(all, options_.maxCto - head) : all;
    toSend_ = 0;
    if (elements == 0 || head + size > options_.maxCto) return Err::outOfRange;
    const std::uint8_t* from = world_.readByXcp(mta_.extension, mta_.address, all);
    if (from == nullptr || mta_.address % options_.granularity != 0) return Err::outOfRange;
    std::memcpy(answer_.begin(head + size) + head, from, size);
    mta_.address += static_cast<std::uint32_t>(size);
    toSend_ = (all - size) / options_.granularity;
    return std::nullopt;
}

/// A DOWNLOAD tells the elements of its whole block, DOWNLOAD_NEXT those that are still to come.
Slave::Refusal Slave::download(Packet packet) {
    const std::size_t unit = options_.granularity;
    const std::size_t head = unit == 4 ? 4 : 2;
    const std::size_t each = (options_.maxCto - head) / unit;
    const std::size_t elements = packet[1];
    const bool isNext = packet[0] == kDownloadNext;
    if (isNext && elements != std::exchange(toCome_, 0)) return Err::sequence;
    if (elements == 0 || mta_.address % unit != 0) return Err::outOfRange;
    const std::size_t here = options_.blocks.maxBs == 0 ? elements : std::min(elements, each);
    if (!isNext && elements > here && elements > options_.blocks.maxBs * each) return Err::outOfRange;
    if (packet.size() < head + here * unit) return Err::cmdSyntax;
    const Refusal refusal = write(packet.subspan(head, here * unit));
    if (refusal) return refusal;
    mta_.address += static_cast<std::uint32_t>(here * unit);
    toCome_ = elements - here;
    return std::nullopt;
}

/// Changes 32 bits in one go, so that none is lost which the ECU changes meanwhile.
Slave::Refusal Slave::modifyBits(Packet packet) {
    const std::uint8_t shift = packet[1];
    const std::uint8_t* at = world_.readByXcp(mta_.extension, mta_.address, sizeof(std::uint32_t));
    if (shift > 31 || at == nullptr || mta_.address % options_.granularity != 0) return Err::outOfRange;
    const std::uint32_t cleared = (~std::uint32_t{answer_.word(packet, 2)} & 0xFFFFU) << shift;
    const std::uint32_t inverted = std::uint32_t{answer_.word(packet, 4)} << shift;
    const auto old = readBytes<std::uint32_t>(at, options_.order);
    std::array<std::uint8_t, sizeof(std::uint32_t)> bytes{};
    writeBytes(bytes.data(), (old & ~cleared) ^ inverted, options_.order);
    return write(bytes);
}

Slave::Refusal Slave::write(std::span<const std::uint8_t> bytes) {
    pageCommands_.beforeWrite();
    switch (world_.write(mta_.extension, mta_.address, bytes)) {
        case Access::outOfRange:
            return Err::outOfRange;
        case Access::writeProtected:
            return Err::writeProtected;
        case Access::granted:
            ++writes_;
    }
    return std::nullopt;
}

}  // namespace lm::sim
