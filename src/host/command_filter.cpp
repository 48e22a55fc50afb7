#include "host/command_filter.h"

#include "core/bytes.h"

namespace lm::host {

using xcp::Command;

CommandKind kindOf(const xcp::Packet& command) {
    switch (static_cast<Command>(command.code())) {
        case Command::getStatus:
        case Command::getCommModeInfo:
        case Command::getId:
        case Command::setMta:
        case Command::upload:
        case Command::shortUpload:
        case Command::buildChecksum:
        case Command::getCalPage:
        case Command::getPagProcessorInfo:
        case Command::getSegmentInfo:
        case Command::getPageInfo:
        case Command::getSegmentMode:
        case Command::getDaqClock:
        case Command::getDaqProcessorInfo:
        case Command::getDaqResolutionInfo:
        case Command::getDaqListInfo:
        case Command::getDaqEventInfo:
            return CommandKind::reads;
        case Command::download:
        case Command::modifyBits:
        case Command::setCalPage:
        case Command::copyCalPage:
        case Command::setSegmentMode:
            return CommandKind::writes;
        case Command::setRequest: {
            // Only to store the calibration pages, not the DAQ lists.
            constexpr std::uint8_t kStoreCal = 0x01;
            return command.size() > 1 && command.bytes[1] == kStoreCal ? CommandKind::writes
                                                                       : CommandKind::refused;
        }
        case Command::transportLayer: {
            constexpr std::uint8_t kGetSlaveId = 0xFF;
            constexpr std::uint8_t kGetDaqId = 0xFE;
            const std::uint8_t sub = command.size() > 1 ? command.bytes[1] : 0;
            return sub == kGetSlaveId || sub == kGetDaqId ? CommandKind::reads : CommandKind::refused;
        }
        default:
            return CommandKind::refused;
    }
}

std::size_t leastAnswer(const xcp::Packet& command, const xcp::ConnectInfo& slave) {
    switch (static_cast<Command>(command.code())) {
        case Command::upload:
        case Command::shortUpload:
            return (std::size_t{command.bytes[1]} + 1) * slave.granularity();
        case Command::getStatus:
            return 6;
        case Command::buildChecksum:
            return 8;
        default:
            return 1;
    }
}

unsigned timeoutOf(const xcp::Packet& command) {
    constexpr unsigned kT2 = 1;
    return command.code() == static_cast<std::uint8_t>(Command::buildChecksum) ? kT2 : 0;
}

void MtaTracker::advance(std::size_t bytes) {
    if (mta_) mta_->address += static_cast<std::uint32_t>(bytes);
}

void MtaTracker::take(const xcp::Packet& command, const xcp::ConnectInfo& slave) {
    const std::size_t elements = command.size() > 1 ? command.bytes[1] : 0;
    const auto addressAt = [&](std::size_t at) {
        return readBytes<std::uint32_t>(command.data() + at, slave.byteOrder());
    };
    switch (static_cast<Command>(command.code())) {
        case Command::setMta:
            if (command.size() >= 8) mta_ = xcp::Address{addressAt(4), command.bytes[3]};
            return;
        case Command::upload:
        case Command::download:
            return advance(elements * slave.granularity());
        case Command::shortUpload:
            if (command.size() >= 8) mta_ = xcp::Address{addressAt(4), command.bytes[3]};
            return advance(elements * slave.granularity());
        case Command::buildChecksum:
            if (command.size() >= 8) advance(std::size_t{addressAt(4)} * slave.granularity());
            return;
        case Command::getId:
        case Command::getDaqEventInfo:
        case Command::getSegmentInfo:
            // The slave puts it where a name is to be read.
            mta_.reset();
            return;
        default:
            return;
    }
}

}  // namespace lm::host
