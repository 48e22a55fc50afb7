#include "sim/page_commands.h"

#include <algorithm>

#include "sim/checksums.h"

namespace lm::sim {
namespace {

constexpr std::uint8_t kModeEcu = 0x01;
constexpr std::uint8_t kModeXcp = 0x02;
constexpr std::uint8_t kModeAll = 0x80;
constexpr std::uint8_t kStoreCal = 0x01;
constexpr int kStoreLasts = 3;
constexpr std::size_t kIdHead = 8;

}  // namespace

PageCommands::Refusal PageCommands::execute(Packet packet, Answer& answer, MemoryPointer& pointer) {
    switch (packet[0]) {
        case kGetId:
            return identify(packet[1], answer, pointer);
        case kBuildChecksum:
            return sumUp(answer.dword(packet, 4), answer, pointer);
        case kSetRequest:
            return request(packet[1]);
        case kSetCalPage:
            return setPage(packet[1], packet[2], packet[3]);
        case kGetCalPage:
            return getPage(packet[1], packet[2], answer);
        case kGetPagProcessorInfo:
            answer.begin(3)[2] = options_.paging.freeze ? 1 : 0;
            answer.setByte(1, static_cast<std::uint8_t>(pages_.segments()));
            return std::nullopt;
        case kGetSegmentInfo:
            return segmentInfo(packet, answer);
        case kGetPageInfo:
            return pageInfo(packet, answer);
        case kCopyCalPage:
            return copy(packet);
        default:
            break;
    }
    if (packet[2] >= pages_.segments()) return Err::segmentNotValid;
    if (!options_.paging.freeze) return Err::modeNotValid;
    if (packet[0] == kSetSegmentMode) {
        pages_.freeze(packet[2], (packet[1] & 1U) != 0);
    } else {
        answer.begin(3)[2] = pages_.frozen(packet[2]) ? 1 : 0;
    }
    return std::nullopt;
}

PageCommands::Refusal PageCommands::identify(std::uint8_t type, Answer& answer, MemoryPointer& pointer) {
    const std::string text = catalog_.idText(type);
    const bool fits = kIdHead + text.size() <= options_.maxCto;
    std::uint8_t* to = answer.begin(kIdHead + (fits ? text.size() : 0));
    to[1] = fits ? 1 : 0;
    answer.putDword(4, static_cast<std::uint32_t>(text.size()));
    if (fits) {
        std::copy(text.begin(), text.end(), to + kIdHead);
    } else {
        pointer = {kIdExtension, type * kIdSlot};
    }
    return std::nullopt;
}

PageCommands::Refusal PageCommands::sumUp(std::uint32_t elements, Answer& answer, MemoryPointer& pointer) {
    const std::uint32_t most = options_.paging.checksumBlock;
    const std::uint8_t type = options_.paging.checksumType;
    const std::uint64_t size = std::uint64_t{elements} * options_.granularity;
    if (most != 0 && size > most) {
        answer.begin(8)[0] = kErrorPacket;
        answer.setByte(1, static_cast<std::uint8_t>(Err::outOfRange));
        answer.putWord(2, 1);
        answer.putDword(4, most / options_.granularity);
        return std::nullopt;
    }
    const std::uint8_t* from = world_.readByXcp(pointer.extension, pointer.address, size);
    if (size == 0 || from == nullptr || size % checksumStep(type) != 0) return Err::outOfRange;
    answer.begin(8)[1] = type;
    answer.putDword(4, checksumOf(type, {from, static_cast<std::size_t>(size)}, options_.order));
    pointer.address += static_cast<std::uint32_t>(size);
    return std::nullopt;
}

PageCommands::Refusal PageCommands::request(std::uint8_t mode) {
    if (mode != kStoreCal || !options_.paging.freeze) return Err::outOfRange;
    storingFor_ = kStoreLasts;
    return std::nullopt;
}

bool PageCommands::storing() {
    if (storingFor_ == 0) return false;
    if (--storingFor_ == 0) pages_.store();
    return storingFor_ != 0;
}

PageCommands::Refusal PageCommands::setPage(std::uint8_t mode, std::uint8_t segment, std::uint8_t page) {
    const bool all = (mode & kModeAll) != 0;
    if ((mode & (kModeEcu | kModeXcp)) == 0) return Err::modeNotValid;
    if (!all && segment >= pages_.segments()) return Err::segmentNotValid;
    if (page >= pages_.pages()) return Err::pageNotValid;
    if (options_.paging.stuck) return std::nullopt;
    for (std::size_t i = all ? 0 : segment; i < (all ? pages_.segments() : segment + 1U); ++i) {
        if ((mode & kModeEcu) != 0) pages_.setEcuPage(i, page);
        if ((mode & kModeXcp) != 0) pages_.setXcpPage(i, page);
    }
    world_.memoryChanged();
    return std::nullopt;
}

PageCommands::Refusal PageCommands::getPage(std::uint8_t mode, std::uint8_t segment, Answer& answer) const {
    if (mode != kModeEcu && mode != kModeXcp) return Err::modeNotValid;
    if (segment >= pages_.segments()) return Err::segmentNotValid;
    answer.begin(4)[3] = mode == kModeEcu ? pages_.ecuPage(segment) : pages_.xcpPage(segment);
    return std::nullopt;
}

PageCommands::Refusal PageCommands::segmentInfo(Packet packet, Answer& answer) const {
    const std::uint8_t mode = packet[1];
    if (packet[2] >= pages_.segments()) return Err::segmentNotValid;
    const SegmentPlace& place = pages_.place(packet[2]);
    if (mode == 0 && packet[3] <= 1) {
        answer.begin(8);
        answer.putDword(4, packet[3] == 0 ? place.base : place.size);
        return std::nullopt;
    }
    if (mode != 1) return Err::outOfRange;
    std::uint8_t* to = answer.begin(6);
    to[1] = pages_.pages();
    to[2] = place.extension;
    return std::nullopt;
}

PageCommands::Refusal PageCommands::pageInfo(Packet packet, Answer& answer) const {
    if (packet[2] >= pages_.segments()) return Err::segmentNotValid;
    if (packet[3] >= pages_.pages()) return Err::pageNotValid;
    std::uint8_t* to = answer.begin(3);
    to[1] = pages_.properties(packet[3]);
    to[2] = packet[2];
    return std::nullopt;
}

PageCommands::Refusal PageCommands::copy(Packet packet) {
    if (packet[1] >= pages_.segments() || packet[3] >= pages_.segments()) return Err::segmentNotValid;
    if (packet[2] >= pages_.pages() || packet[4] >= pages_.pages()) return Err::pageNotValid;
    if (pages_.isFlash(packet[4])) return Err::writeProtected;
    pages_.copy(packet[1], packet[2], packet[3], packet[4]);
    world_.memoryChanged();
    return std::nullopt;
}

void PageCommands::beforeWrite() {
    if (!options_.paging.switched || switched_) return;
    switched_ = true;
    for (std::size_t i = 0; i < pages_.segments(); ++i) {
        pages_.setEcuPage(i, 0);
        pages_.setXcpPage(i, 0);
    }
    world_.memoryChanged();
}

}  // namespace lm::sim
