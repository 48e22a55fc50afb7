// How costs grow: per record with the signals of a list and with the lists, and of a recording with its
// length. Prints comma-separated values: what, size, nanoseconds (per record, or of the whole recording).
//
// A record goes the whole way behind the socket: the DTOs through the decoder into the writer's queue, and
// through the writer's thread into the files; the time is the processor time of both threads together.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "core/bytes.h"
#include "storage/write/recording_writer.h"
#include "xcp/daq_decoder.h"

namespace {

using namespace lm;

constexpr std::uint16_t kMaxDto = 1464;
constexpr std::uint32_t kSignalBytes = 4;

double processSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

xcp::DaqCapabilities slave(std::size_t lists) {
    xcp::DaqCapabilities capabilities = {.dynamicConfiguration = true,
                                         .timestampSupported = true,
                                         .maxEventChannel = static_cast<std::uint16_t>(lists),
                                         .identification = xcp::DaqIdentification::relativeWord,
                                         .timestampSize = 4,
                                         .tickNs = 1000};
    for (std::size_t i = 0; i < lists; ++i)
        capabilities.events.push_back({.number = static_cast<std::uint16_t>(i)});
    return capabilities;
}

/// Hands the decoder's records to a writer; waits while the writer's queue is full.
class Recorder final : public xcp::IDaqRecordSink {
  public:
    explicit Recorder(storage::RecordingWriter& writer) : writer_(writer) {}
    void onRecord(const xcp::DaqRecord& record) override {
        while (!writer_.write(record.listIndex, record.timeNs(), record.data, record.size))
            std::this_thread::sleep_for(std::chrono::microseconds(200));
    }

  private:
    storage::RecordingWriter& writer_;
};

storage::RecordingInfo describe(const xcp::DaqPlan& plan, std::size_t signalsPerList) {
    storage::RecordingInfo info;
    for (const xcp::DaqList& list : plan.lists) {
        storage::GroupInfo group;
        group.name = "list " + std::to_string(list.eventChannel);
        group.recordSize = list.recordSize;
        for (std::size_t i = 0; i < signalsPerList; ++i) {
            storage::SignalInfo signal;
            signal.name = "s" + std::to_string(i);
            signal.coding.dataType = value::DataType::ulong;
            signal.recordOffset = static_cast<std::uint32_t>(i * kSignalBytes);
            signal.conversion =
                std::make_shared<const value::Conversion>(value::Conversion::Linear{0.5, 1}, "", "");
            group.signals.push_back(std::move(signal));
        }
        info.groups.push_back(std::move(group));
    }
    return info;
}

/// The DTOs of one record of every list, with their lengths.
std::vector<std::vector<std::uint8_t>> dtosOf(const xcp::DaqPlan& plan) {
    std::vector<std::vector<std::uint8_t>> dtos;
    for (std::size_t list = 0; list < plan.lists.size(); ++list) {
        for (std::size_t odt = 0; odt < plan.lists[list].odts.size(); ++odt) {
            const std::size_t header = 3U + (odt == 0 ? 4U : 0U);
            std::vector<std::uint8_t> dto(header + plan.lists[list].odts[odt].payloadSize);
            for (std::size_t i = 0; i < dto.size(); ++i)
                dto[i] = static_cast<std::uint8_t>(i * 31 + list);
            dto[0] = static_cast<std::uint8_t>(odt);
            writeLittle(&dto[1], plan.lists[list].number);
            dtos.push_back(std::move(dto));
        }
    }
    return dtos;
}

/// Processor seconds of `records` records spread over the lists.
double record(const std::filesystem::path& directory, std::size_t lists, std::size_t signalsPerList,
              std::uint64_t records) {
    std::vector<xcp::DaqSignal> signals;
    for (std::size_t i = 0; i < lists * signalsPerList; ++i) {
        signals.push_back({{static_cast<std::uint32_t>(i * kSignalBytes), 0},
                           kSignalBytes,
                           static_cast<std::uint16_t>(i / signalsPerList)});
    }
    const auto capabilities = slave(lists);
    const auto plan = xcp::planDaq(signals, capabilities, {.maxDto = kMaxDto});
    if (!plan) {
        std::fprintf(stderr, "%s\n", plan.error().text().c_str());
        std::exit(1);
    }
    auto writer = storage::RecordingWriter::create(directory, describe(plan.value(), signalsPerList), {});
    if (!writer) {
        std::fprintf(stderr, "%s\n", writer.error().text().c_str());
        std::exit(1);
    }
    Recorder recorder(*writer.value());
    xcp::DaqDecoder decoder(plan.value(), capabilities, {});
    decoder.setSink(&recorder);
    auto dtos = dtosOf(plan.value());
    const double begin = processSeconds();
    std::int64_t now = 1'000'000'000;
    std::uint32_t ticks = 0;
    for (std::uint64_t done = 0; done < records; done += lists) {
        now += 100'000;
        ticks += 100;
        for (auto& dto : dtos) {
            if (dto[0] == 0) writeLittle(&dto[3], ticks);
            decoder.onDto(dto.data(), dto.size(), {now, 0});
        }
    }
    const bool written = writer.value()->close().ok();
    const double seconds = processSeconds() - begin;
    std::filesystem::remove_all(directory);
    if (!written) std::exit(1);
    return seconds;
}

double least(const std::filesystem::path& directory, std::size_t lists, std::size_t signalsPerList,
             std::uint64_t records) {
    double seconds = record(directory, lists, signalsPerList, records);
    for (int round = 1; round < 3; ++round)
        seconds = std::min(seconds, record(directory, lists, signalsPerList, records));
    return seconds;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: growth DIRECTORY, which must not exist and holds the recordings meanwhile\n",
                   stderr);
        return 1;
    }
    const std::filesystem::path directory = argv[1];
    for (const std::size_t signals : {1, 10, 50, 100, 200, 500, 1000, 1500, 2000}) {
        const std::uint64_t records = std::max<std::uint64_t>(4'000'000 / (signals + 20), 2000);
        std::printf("signals,%zu,%.1f\n", signals,
                    least(directory, 1, signals, records) * 1e9 / static_cast<double>(records));
        std::fflush(stdout);
    }
    for (const std::size_t lists : {1, 5, 10, 25, 50, 100, 150, 200}) {
        const std::uint64_t records = 400'000 / lists * lists;
        std::printf("lists,%zu,%.1f\n", lists,
                    least(directory, lists, 10, records) * 1e9 / static_cast<double>(records));
        std::fflush(stdout);
    }
    for (const std::uint64_t records : {100'000, 200'000, 400'000, 800'000, 1'600'000, 3'200'000}) {
        std::printf("length,%llu,%.0f\n", static_cast<unsigned long long>(records),
                    least(directory, 1, 20, records) * 1e9);
        std::fflush(stdout);
    }
    return 0;
}
