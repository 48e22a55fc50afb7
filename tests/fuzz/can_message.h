// A message of a raw CAN socket as the kernel delivers it, made from an input.
//
// Threads: a plain value. Lifetime: owns everything.
#pragma once

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <sys/socket.h>
#include <vector>

#include "fuzz_input.h"
#include "hal/can_receiver.h"

namespace lm::fuzz {

inline constexpr hal::CanClocks kClocks{.steadyNs = 200'000'000'000, .steadyMinusRealNs = -100'000'000'000};

// Flags of an identifier.
inline constexpr std::uint32_t kExtended = 0x80000000;
inline constexpr std::uint32_t kRemote = 0x40000000;
inline constexpr std::uint32_t kError = 0x20000000;

/// Mostly one of a few, so that frames find takers.
inline std::uint32_t takeId(Input& input) {
    constexpr std::array<std::uint32_t, 5> kUsual = {0x7E0, 0x7E1, kExtended | 0x7E0, kExtended | 0x1FFFFFFF,
                                                     0};
    const auto which = input.take<std::uint8_t>();
    return which < 0xC0 ? kUsual[which % kUsual.size()] : input.take<std::uint32_t>();
}

struct Message {
    std::vector<std::uint8_t>
        bytes;  ///< identifier with flags, length, flags of CAN FD, two reserved ones, data
    alignas(cmsghdr) std::array<std::uint8_t, 152> control{};
    std::size_t controlSize = 0;
    bool hasDrops = false;
    std::uint32_t drops = 0;
    std::array<timespec, 3> stamps{};  ///< software, unused, hardware

    Message(Input& input, unsigned shape) : bytes(72) {
        writeLittle(bytes.data(), takeId(input) | ((shape & 4U) != 0 ? kError : 0));
        const auto rest = input.takeBytes(input.takeBelow(69));
        std::copy(rest.begin(), rest.end(), bytes.begin() + 4);
        bytes.resize((shape & 3U) == 3 ? input.takeBelow(73) : (shape & 3U) == 2 ? 72 : 16);
        if ((shape & 8U) != 0) {
            hasDrops = true;
            drops = input.take<std::uint32_t>();
            addControl(SO_RXQ_OVFL, &drops, sizeof drops);
        }
        if ((shape & 16U) == 0) return;
        stamps[0] = {input.take<std::uint16_t>(), input.take<std::uint16_t>()};
        stamps[2] = {input.take<std::uint16_t>(), input.take<std::uint16_t>()};
        addControl(SCM_TIMESTAMPING, stamps.data(), sizeof stamps);
    }
    std::uint32_t id() const { return readLittle<std::uint32_t>(bytes.data()); }
    std::int64_t hostNs() const {
        const std::int64_t real = stamps[0].tv_sec * 1'000'000'000 + stamps[0].tv_nsec;
        return real == 0 ? kClocks.steadyNs : std::min(real - 100'000'000'000, kClocks.steadyNs);
    }

  private:
    void addControl(int type, const void* data, std::size_t size) {
        cmsghdr head{.cmsg_len = CMSG_LEN(size), .cmsg_level = SOL_SOCKET, .cmsg_type = type};
        std::memcpy(&control[controlSize], &head, sizeof head);
        std::memcpy(&control[controlSize + CMSG_LEN(0)], data, size);
        controlSize += CMSG_SPACE(size);
    }
};

}  // namespace lm::fuzz
