// A master and the slave it talks to, which follows a script: each packet the master sends must be the next
// row's, and is answered with the row's packets before send() returns.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <spdlog/fmt/ranges.h>

#include "support/hex.h"
#include "support/virtual_clock.h"
#include "xcp/master.h"

namespace lm::xcp::test {

using lm::test::hex;
using lm::test::VirtualClock;
using Bytes = std::vector<std::uint8_t>;

inline std::string hexText(const std::uint8_t* data, std::size_t length) {
    return fmt::format("{:02X}", fmt::join(data, data + length, " "));
}

inline std::vector<std::string> split(const std::string& text, const std::string& separator) {
    std::vector<std::string> parts;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find(separator, at), text.size());
        parts.push_back(text.substr(at, end - at));
        at = end + separator.size();
    }
    return parts;
}

class ScriptedSlave final : public ITransport {
  public:
    /// "SENT > ANSWER, ANSWER; SENT; ..."; an answer "@" is that of CONNECT: Intel, MAX_CTO 8, MAX_DTO 8,
    /// AG 1, DAQ.
    explicit ScriptedSlave(const std::string& script) : rows_(split(script, "; ")) {}
    ~ScriptedSlave() override { EXPECT_EQ(next_, rows_.size()) << "packets of the script were not sent"; }

    void deliver(const std::string& packet, std::int64_t hostNs = 0) {
        const Bytes bytes = hex(packet == "@" ? "FF 05 00 08 08 00 01 01" : packet);
        sink_->onPacket(bytes.data(), bytes.size(), {hostNs, 0});
    }
    /// Called when that many packets have been sent.
    void after(std::size_t count, std::function<void()> action) {
        count_ = count;
        action_ = std::move(action);
    }

    void setSink(IPacketSink* sink) override { sink_ = sink; }
    Result<void> open() override { return {}; }
    void close() override {}
    std::size_t maxPacketSize() const override { return 254; }
    Result<void> send(const std::uint8_t* data, std::size_t length) override {
        const std::string packet = hexText(data, length);
        if (next_ == rows_.size()) {
            ADD_FAILURE() << "unexpected packet " << packet;
            return {};
        }
        const auto sides = split(rows_[next_], " > ");
        EXPECT_EQ(packet, sides.front()) << "at row " << next_;
        for (const std::string& answer : split(sides.size() > 1 ? sides[1] : "", ", ")) {
            deliver(answer);
        }
        if (++next_ == count_) action_();
        return {};
    }

  private:
    const std::vector<std::string> rows_;
    IPacketSink* sink_ = nullptr;
    std::size_t count_ = 0;
    std::function<void()> action_;
    std::size_t next_ = 0;
};

struct Bench {
    explicit Bench(const std::string& script, const MasterOptions& options = {.t1 = 20, .t7 = 0})
        : slave(script), master(slave, options, stop.token(), clock) {}

    /// Runs "COMMAND; COMMAND ARGUMENT; ..." and joins the results likewise: bytes in hexadecimal, the text
    /// of an error, or "ok".
    std::string run(const std::string& commands) {
        std::string results;
        for (const std::string& command : split(commands, "; ")) {
            const auto words = split(command, " ");
            const std::string argument = command.substr(std::min(command.size(), words[0].size() + 1));
            results += (results.empty() ? "" : "; ") + perform(words[0], argument);
        }
        return results;
    }

    VirtualClock clock;
    ScriptedSlave slave;
    StopSource stop = StopSource::create().value();
    Master master;

  private:
    static std::string told(const Result<void>& result) { return result ? "ok" : result.error().text(); }
    template <typename T>
    static std::string told(const Result<T>& result) {
        if (!result) return result.error().text();
        if constexpr (std::is_same_v<T, SlaveStatus>) {
            return fmt::format("{:02X}", result.value().sessionStatus);
        } else {
            return hexText(result.value().data(), result.value().size());
        }
    }
    Result<Packet> fetch() { return master.transact(buildUpload(2), {.minimumLength = 3}); }
    std::string perform(const std::string& name, const std::string& argument) {
        if (name == "connect") return told(master.connect());
        if (name == "status") return told(master.getStatus());
        if (name == "fetch") return told(fetch());
        if (name == "fetchInStep") return told(inStep(master, [this] { return fetch(); }));
        if (name == "uploadInStep") {
            const std::size_t size = std::stoul(argument);
            return told(inStep(master, [&] { return master.upload({0x12345678, 1}, size); }));
        }
        if (name == "confirm") {
            const auto confirmed = master.confirm();
            return !confirmed ? confirmed.error().text() : confirmed.value() ? "in step" : "out of step";
        }
        if (name == "upload") return told(master.upload({0x12345678, 1}, std::stoul(argument)));
        if (name == "unlock") {
            const auto done = master.unlock(static_cast<Resource>(std::stoul(argument)));
            return !done ? done.error().text() : done.value() == Unlocking::opened ? "opened" : "open";
        }
        if (name == "uploadBlocks") return told(master.uploadBlocks({0x12345678, 1}, std::stoul(argument)));
        if (name == "downloadBlocks") return told(master.downloadBlocks({0x10, 0}, hex(argument)));
        if (name == "download") return told(master.download({0x10, 0}, hex(argument)));
        if (name == "stopUnconnected") return told(master.stopDaqUnconnected());
        if (name == "stopOnce") return told(master.stopDaqOnce());
        if (name == "disconnect") return told(master.disconnect());
        if (name == "disconnectBlindly") return told(master.disconnectWithoutWaiting());
        if (name == "requestStop") return stop.request(), "ok";
        return "no such command: " + name;
    }
};

}  // namespace lm::xcp::test
