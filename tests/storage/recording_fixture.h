// A small recording and its files as bytes, for the tests of this folder.
#pragma once

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/resource.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core/bytes.h"
#include "storage/format/recording_info.h"
#include "storage/write/recording_writer.h"
#include "support/hex.h"

namespace lm::storage::test {

using lm::test::hex;
using Bytes = std::vector<std::uint8_t>;

/// Empty when there is no such file.
inline Bytes readFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeFile(const std::filesystem::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline SignalInfo makeSignal(std::string name, value::DataType type, std::uint32_t offset,
                             value::Conversion conversion = {}) {
    SignalInfo signal;
    signal.name = std::move(name);
    signal.coding.dataType = type;
    signal.recordOffset = offset;
    signal.conversion = std::make_shared<const value::Conversion>(std::move(conversion));
    return signal;
}

/// One group "10ms" of three bytes: Speed (UWORD, 0.5 per bit) and Temp (SBYTE).
inline RecordingInfo smallRecording() {
    RecordingInfo info;
    info.source = "XCP on CAN can0";
    info.startUtcNs = 1700000000000000000;
    info.startHostNs = 999000000;
    info.name = "demo";
    info.ecu = "ECU1";
    GroupInfo group;
    group.name = "10ms";
    group.recordSize = 3;
    group.cycleNs = 10000000;
    group.signals.push_back(makeSignal("Speed", value::DataType::uword, 0,
                                       value::Conversion(value::Conversion::Linear{0.5, 0}, "%6.1", "km/h")));
    group.signals.push_back(makeSignal("Temp", value::DataType::sbyte, 2));
    info.groups.push_back(std::move(group));
    return info;
}

/// Record n of smallRecording(): Speed counts 100, 101, ..., Temp counts 0, -1, ...
inline Bytes smallRecord(std::size_t n) {
    Bytes record(3);
    writeLittle(record.data(), static_cast<std::uint16_t>(100 + n));
    record[2] = static_cast<std::uint8_t>(0U - n);
    return record;
}

/// Writes records of smallRecording() from 1 s on, every 10 ms, into a new recording.
inline void writeSmallRecording(const std::filesystem::path& directory, std::size_t count,
                                RecordingInfo info = smallRecording()) {
    auto writer = RecordingWriter::create(directory, std::move(info), {}).value();
    for (std::size_t n = 0; n < count; ++n) {
        const Bytes data = smallRecord(n);
        writer->write(0, 1000000000 + static_cast<std::int64_t>(n) * 10000000, data.data(), data.size());
    }
    ASSERT_TRUE(writer->close().ok());
}

/// A file size at which the disk is full.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(std::uint64_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &before_);
        rlimit now = before_;
        now.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &now);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }

  private:
    void (*handler_)(int);
    rlimit before_{};
};

}  // namespace lm::storage::test
