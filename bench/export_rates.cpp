// What exports cost: a plain MF4 file beside `cp` of the same record file, a deflated one beside zlib alone,
// and the output of CSV.
//
//     export_rates [MEGABYTES [DIRECTORY]]        default 500 in the directory for temporary files
//
// Rounds alternate between the rivals, and the best of each counts: other work on the machine only adds time.

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "core/bytes.h"
#include "exporter/deflater.h"
#include "exporter/export_recording.h"
#include "storage/format/recording_format.h"
#include "storage/format/recording_meta.h"

namespace {

namespace value = lm::value;
namespace storage = lm::storage;
namespace exporter = lm::exporter;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kRecordSize = 24;
constexpr std::size_t kStride = kRecordSize + storage::kTimestampSize;
constexpr std::int64_t kCycleNs = 1000000;

[[noreturn]] void fail(const std::string& reason) {
    std::fprintf(stderr, "%s\n", reason.c_str());
    std::exit(1);
}

storage::RecordingInfo describe() {
    storage::RecordingInfo info;
    info.name = "bench";
    storage::GroupInfo group;
    group.name = "1ms";
    group.recordSize = kRecordSize;
    group.cycleNs = kCycleNs;
    const auto add = [&](const char* name, value::DataType type, std::uint32_t offset,
                         value::Conversion::Kind kind) {
        storage::SignalInfo signal;
        signal.name = name;
        signal.coding.dataType = type;
        signal.recordOffset = offset;
        signal.conversion = std::make_shared<const value::Conversion>(std::move(kind), "%8.3", "");
        group.signals.push_back(std::move(signal));
    };
    value::Conversion::VerbalTable gears;
    for (int gear = 0; gear < 7; ++gear)
        gears.ranges.push_back({double(gear), double(gear), "gear " + std::to_string(gear)});
    add("speed", value::DataType::uword, 0, value::Conversion::Linear{0.25, 0});
    add("temperature", value::DataType::sbyte, 2, value::Conversion::Linear{0.5, -40});
    add("gear", value::DataType::ubyte, 3, gears);
    add("wave", value::DataType::float32, 4, value::Conversion::Identical{});
    add("count", value::DataType::ulong, 8, value::Conversion::Identical{});
    add("pressure", value::DataType::sword, 12, value::Conversion::Linear{0.1, 1});
    add("voltage", value::DataType::uword, 14, value::Conversion::Linear{0.001, 0});
    add("position", value::DataType::float64, 16, value::Conversion::Identical{});
    info.groups.push_back(std::move(group));
    return info;
}

void makeRecord(std::uint8_t* to, std::uint64_t n) {
    const double phase = std::sin(static_cast<double>(n) / 500);
    const auto noise = static_cast<std::uint32_t>(n * 2654435761U >> 20U);
    lm::writeLittle(to, n * kCycleNs + noise % 2000);
    std::uint8_t* data = to + storage::kTimestampSize;
    lm::writeLittle(data, static_cast<std::uint16_t>(4000 + 3000 * phase));
    data[2] = static_cast<std::uint8_t>(60 + n / 90000 % 20);
    data[3] = static_cast<std::uint8_t>(n / 3000 % 7);
    lm::writeLittle(data + 4,
                    std::bit_cast<std::uint32_t>(static_cast<float>(phase * 10 + noise % 16 * 1e-3)));
    lm::writeLittle(data + 8, static_cast<std::uint32_t>(n));
    lm::writeLittle(data + 12, static_cast<std::uint16_t>(1000 * phase + noise % 3));
    lm::writeLittle(data + 14, static_cast<std::uint16_t>(13500 + 100 * phase + noise % 5));
    lm::writeLittle(data + 16, std::bit_cast<std::uint64_t>(phase * static_cast<double>(n)));
}

void makeRecording(const std::filesystem::path& directory, std::uint64_t records) {
    std::filesystem::create_directories(directory);
    storage::MetaFile meta(directory);
    auto written = meta.stage(describe());
    if (written) written = meta.commit();
    if (!written) fail(written.error().text());
    std::ofstream file(directory / storage::recordFileName(0), std::ios::binary);
    const storage::FileHeader header = storage::recordHeader(kRecordSize);
    file.write(reinterpret_cast<const char*>(header.data()), header.size());
    Bytes block;
    for (std::uint64_t n = 0; n < records; ++n) {
        block.resize(block.size() + kStride);
        makeRecord(&block[block.size() - kStride], n);
        if (block.size() < (1U << 20U) && n + 1 < records) continue;
        file.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(block.size()));
        block.clear();
    }
    if (!file.flush()) fail("cannot write " + directory.string());
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

template <typename Work>
double timed(const Work& work) {
    const auto start = Clock::now();
    work();
    return secondsSince(start);
}

std::uint64_t exportTo(const std::filesystem::path& recording, const std::filesystem::path& output,
                       bool compress) {
    auto opened = storage::RecordingReader::open(recording);
    if (!opened) fail(opened.error().text());
    exporter::ExportOptions options;
    options.output = output;
    options.format = output.extension() == ".csv" ? exporter::Format::csv : exporter::Format::mf4;
    options.compress = compress;
    options.force = true;
    auto done = exporter::exportRecording(opened.value(), options, {});
    if (!done) fail(done.error().text());
    return std::filesystem::file_size(output);
}

/// Seconds that zlib takes for the same bytes in the same blocks.
double deflateAlone(const std::filesystem::path& recordFile) {
    constexpr std::size_t kBlock = 4000000;
    std::ifstream file(recordFile, std::ios::binary);
    file.seekg(storage::kHeaderSize);
    exporter::Deflater deflater;
    Bytes records(kBlock);
    Bytes turned(kBlock);
    double seconds = 0;
    while (file.read(reinterpret_cast<char*>(records.data()), kBlock)) {
        for (std::size_t i = 0; i < kBlock; ++i)
            turned[i % kStride * (kBlock / kStride) + i / kStride] = records[i];
        seconds += timed([&] {
            if (auto done = deflater.deflate(turned); !done) fail(done.error().text());
        });
    }
    return seconds;
}

}  // namespace

int main(int argc, char** argv) {
    const std::uint64_t megabytes = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 500;
    const std::filesystem::path parent = argc > 2 ? argv[2] : std::filesystem::temp_directory_path();
    std::string name = (parent / "xcplumo-bench-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) fail("cannot create " + name);
    const std::filesystem::path directory = name;
    const std::filesystem::path recording = directory / "recording";
    const std::filesystem::path records = recording / storage::recordFileName(0);
    const std::filesystem::path target = directory / "copy";
    const std::string copy = "cp '" + records.string() + "' '" + target.string() + "'";
    makeRecording(recording, megabytes * 1000000 / kStride);
    const auto size = static_cast<double>(std::filesystem::file_size(records)) / 1e6;
    double cp = 1e9, plain = 1e9, zlib = 1e9, deflated = 1e9, csv = 1e9, csvSize = 0;
    // The first round also brings everything into the page cache. Each writes to a name that is not there.
    for (int round = 0; round < 5; ++round) {
        cp = std::min(cp, timed([&] {
                          if (std::system(copy.c_str()) != 0) fail("cp failed");
                      }));
        std::filesystem::remove(target);
        plain = std::min(plain, timed([&] { exportTo(recording, directory / "plain.mf4", false); }));
        std::filesystem::remove(directory / "plain.mf4");
        if (round % 2 != 0) continue;
        zlib = std::min(zlib, deflateAlone(records));
        deflated = std::min(deflated, timed([&] { exportTo(recording, directory / "z.mf4", true); }));
        const auto start = Clock::now();
        csvSize = static_cast<double>(exportTo(recording, directory / "out.csv", false)) / 1e6;
        csv = std::min(csv, secondsSince(start));
        std::filesystem::remove(directory / "out.csv");
    }
    std::printf("records         %8.0f MB\n", size);
    std::printf("cp              %8.0f MB/s\n", size / cp);
    std::printf("MF4, as it lies %8.0f MB/s   %.2f of cp\n", size / plain, cp / plain);
    std::printf("zlib alone      %8.0f MB/s\n", size / zlib);
    std::printf("MF4, deflated   %8.0f MB/s   %.2f of zlib\n", size / deflated, zlib / deflated);
    std::printf("CSV             %8.0f MB/s of output, %.0f MB/s of records\n", csvSize / csv, size / csv);
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
    return 0;
}
