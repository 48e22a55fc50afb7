// An ECU under test with a clock of its own: packets go in and come out as hexadecimal text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "sim/ecu.h"

namespace lm::sim {

inline std::vector<std::uint8_t> bytesOf(const std::string& hex) {
    std::vector<std::uint8_t> bytes;
    for (std::size_t at = 0; at + 1 < hex.size(); at += 3) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(at, 2), nullptr, 16)));
    }
    return bytes;
}

inline std::string hexOf(std::span<const std::uint8_t> bytes) {
    return fmt::format("{:02X}", fmt::join(bytes, " "));
}

using Packets = std::vector<std::string>;

class SimBench {
  public:
    explicit SimBench(const Options& options = {})
        : options_(options), ecu(options_, FaultPlan::parse(options.faults).value(), 0) {}

    Packets send(const std::string& hex) {
        Outbox out;
        ecu.receive(bytesOf(hex), nowNs_, out);
        return take(out);
    }
    /// Sends commands that are all expected to succeed.
    void drive(const Packets& commands) {
        for (const std::string& command : commands) {
            const Packets answers = send(command);
            ASSERT_EQ(answers.size(), 1U) << command;
            ASSERT_EQ(answers[0].substr(0, 2), "FF") << command << " gives " << answers[0];
        }
    }
    /// Lets time pass in one step, as if the program had been asleep.
    Packets pass(std::int64_t ms) {
        nowNs_ += ms * 1'000'000;
        Packets all;
        for (bool done = false; !done;) {
            Outbox out;
            done = ecu.advance(nowNs_, out);
            const Packets more = take(out);
            all.insert(all.end(), more.begin(), more.end());
        }
        return all;
    }

  private:
    static Packets take(const Outbox& out) {
        Packets packets;
        for (const Outbox::Packet& packet : out.packets())
            packets.push_back(hexOf(out.bytes(packet)));
        return packets;
    }

    Options options_;
    std::int64_t nowNs_ = 0;

  public:
    Ecu ecu;
};

}  // namespace lm::sim
