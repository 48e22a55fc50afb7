// A transport whose slave follows a script: each packet the master sends must be the next row's, and is
// answered with the row's packets before send() returns.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "xcp/transport.h"

namespace lm::xcp::test {

using Bytes = std::vector<std::uint8_t>;

/// "FF 05" as bytes.
inline Bytes hex(const std::string& text) {
    Bytes bytes;
    for (std::size_t at = 0; at + 1 < text.size(); at += 3) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(at, 2), nullptr, 16)));
    }
    return bytes;
}

inline std::string hexText(const std::uint8_t* data, std::size_t length) {
    std::string text;
    for (std::size_t i = 0; i < length; ++i) {
        char byte[4];
        std::snprintf(byte, sizeof byte, i == 0 ? "%02X" : " %02X", static_cast<unsigned>(data[i]));
        text += byte;
    }
    return text;
}

/// Stands for this answer in scripts: Intel, MAX_CTO 8, MAX_DTO 8, AG 1, DAQ.
inline const std::string kConnected = "FF 05 00 08 08 00 01 01";

class ScriptedSlave final : public ITransport {
  public:
    explicit ScriptedSlave(std::size_t maxPacketSize = 255) : maxPacketSize_(maxPacketSize) {}

    /// "SENT > ANSWER, ANSWER; SENT; ..."; an answer "@" is kConnected.
    void play(const std::string& script) {
        expectDone();
        rows_.clear();
        next_ = 0;
        for (const std::string& text : split(script, "; ")) {
            const auto sides = split(text, " > ");
            rows_.push_back(
                {sides.front(), sides.size() > 1 ? split(sides[1], ", ") : std::vector<std::string>{}});
        }
    }
    /// Every row was used.
    void expectDone() const { EXPECT_EQ(next_, rows_.size()) << "packets of the script were not sent"; }

    void deliver(const std::string& packet, std::int64_t hostNs = 0) {
        const Bytes bytes = hex(packet == "@" ? kConnected : packet);
        sink_->onPacket(bytes.data(), bytes.size(), {hostNs, 0});
    }
    /// Waits until that many packets have been sent in all.
    void awaitSent(std::size_t count) {
        std::unique_lock lock(mutex_);
        sentOne_.wait(lock, [&] { return sent_ >= count; });
    }

    void setSink(IPacketSink* sink) override { sink_ = sink; }
    Result<void> open() override { return {}; }
    void close() override {}
    std::size_t maxPacketSize() const override { return maxPacketSize_; }
    Result<void> send(const std::uint8_t* data, std::size_t length) override {
        const std::string packet = hexText(data, length);
        if (endless) {
            EXPECT_EQ(packet, *endless);
        } else if (next_ == rows_.size()) {
            ADD_FAILURE() << "unexpected packet " << packet;
        } else {
            const Row row = rows_[next_++];
            EXPECT_EQ(packet, row.sent) << "at row " << next_ - 1;
            for (const std::string& answer : row.answers) {
                deliver(answer);
            }
        }
        const std::lock_guard lock(mutex_);
        ++sent_;
        sentOne_.notify_all();
        return {};
    }

    /// When set, any number of this packet may be sent and none is answered.
    const std::string* endless = nullptr;

  private:
    struct Row {
        std::string sent;
        std::vector<std::string> answers;
    };

    static std::vector<std::string> split(const std::string& text, const std::string& separator) {
        std::vector<std::string> parts;
        for (std::size_t at = 0; at < text.size();) {
            const std::size_t end = std::min(text.find(separator, at), text.size());
            parts.push_back(text.substr(at, end - at));
            at = end + separator.size();
        }
        return parts;
    }

    const std::size_t maxPacketSize_;
    IPacketSink* sink_ = nullptr;
    std::vector<Row> rows_;
    std::size_t next_ = 0;
    std::mutex mutex_;
    std::condition_variable sentOne_;
    std::size_t sent_ = 0;
};

}  // namespace lm::xcp::test
