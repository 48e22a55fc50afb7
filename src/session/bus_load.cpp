#include "session/bus_load.h"

#include <array>

namespace lm::session {
namespace {

std::uint32_t identificationSize(std::uint8_t type) {
    return type <= 3 ? type + 1U : 1U;
}

/// Calls visit(rate in 1/s, packet bytes) for every ODT of every cyclic list and sums the frame rate.
template <typename Visit>
LoadEstimate forEachFrame(const LoadInput& input, Visit visit) {
    LoadEstimate estimate;
    for (const LoadList& list : input.lists) {
        if (list.cycleNs == 0) {
            estimate.incomplete = true;
            continue;
        }
        const double prescaler = list.prescaler == 0 ? 1 : list.prescaler;
        const double rate = 1e9 / static_cast<double>(list.cycleNs) / prescaler;
        for (std::size_t odt = 0; odt < list.odtBytes.size(); ++odt) {
            std::uint32_t bytes = identificationSize(input.identificationType) + list.odtBytes[odt];
            if (odt == 0 && list.timestamp) bytes += input.timestampSize;
            estimate.framesPerSecond += rate;
            visit(rate, bytes);
        }
    }
    return estimate;
}

std::uint32_t canFdLength(std::uint32_t bytes) {
    constexpr std::array<std::uint32_t, 7> kLongLengths = {12, 16, 20, 24, 32, 48, 64};
    if (bytes <= 8) return bytes;
    for (const std::uint32_t length : kLongLengths) {
        if (bytes <= length) return length;
    }
    return 64;
}

/// ISO 11898-1 classic frame with the most stuff bits that its stuffed part can hold.
double classicFrameTime(std::uint32_t bytes, const CanTiming& timing) {
    const std::uint32_t payloadBits = 8 * (timing.maxDlcRequired ? 8 : bytes);
    const std::uint32_t stuffedHeader = timing.extendedIds ? 54 : 34;
    const std::uint32_t overhead = timing.extendedIds ? 67 : 47;
    const std::uint32_t bits = (payloadBits + stuffedHeader - 1) / 4 + payloadBits + overhead;
    return static_cast<double>(bits) / timing.bitrate;
}

/// CAN FD: arbitration and end of frame at the nominal rate, the rest at the data rate, a tenth for stuffing.
double fdFrameTime(std::uint32_t bytes, const CanTiming& timing) {
    const std::uint32_t length = timing.maxDlcRequired ? 64 : canFdLength(bytes);
    const std::uint32_t crcBits = length <= 16 ? 17 : 21;
    const double dataPhase = (8 * length + 9 + crcBits + 1) * 1.1;
    const double nominalPhase = (timing.extendedIds ? 50 : 31) * 1.1;
    return dataPhase / timing.dataBitrate + nominalPhase / timing.bitrate;
}

}  // namespace

LoadEstimate estimateCanLoad(const LoadInput& input, const CanTiming& timing) {
    double load = 0;
    LoadEstimate estimate = forEachFrame(input, [&](double rate, std::uint32_t bytes) {
        if (timing.bitrate == 0) return;
        load +=
            rate * (timing.dataBitrate == 0 ? classicFrameTime(bytes, timing) : fdFrameTime(bytes, timing));
    });
    estimate.fraction = load;
    estimate.bitsPerSecond = load * timing.bitrate;
    return estimate;
}

LoadEstimate estimateSerialLoad(const LoadInput& input, std::uint32_t baudrate) {
    double bitsPerSecond = 0;
    LoadEstimate estimate = forEachFrame(input, [&](double rate, std::uint32_t bytes) {
        // Two delimiters, two CRC bytes and the first code byte, and one more code byte per 254.
        const std::uint32_t wireBytes = bytes + (bytes + 2) / 254 + 5;
        bitsPerSecond += rate * wireBytes * 10;
    });
    if (baudrate == 0) return estimate;
    estimate.fraction = bitsPerSecond / baudrate;
    estimate.bitsPerSecond = bitsPerSecond;
    return estimate;
}

LoadEstimate estimateUdpLoad(const LoadInput& input) {
    return forEachFrame(input, [](double, std::uint32_t) {});
}

}  // namespace lm::session
