// The memory of takes: what it keeps, what it says when not all fits, and what is written out of it.
#include "watch/take_recorder.h"

#include <array>
#include <deque>
#include <random>
#include <semaphore>

#include <gtest/gtest.h>

#include "storage/read/recording_reader.h"
#include "support/temp_dir.h"

namespace lm::watch {
namespace {

TEST(RecordMemory, KeepsWhatAQueueKeeps) {
    std::mt19937 random(1);
    RecordMemory memory(1000);
    std::deque<std::vector<std::uint8_t>> queue;
    for (std::int64_t i = 0; i < 20000; ++i) {
        std::vector<std::uint8_t> bytes(random() % 120, static_cast<std::uint8_t>(i));
        const bool toBeEmptied = random() % 500 == 0;
        for (; toBeEmptied && !queue.empty(); queue.pop_front())
            memory.dropOldest();
        while (!memory.push(7, i, bytes.data(), bytes.size())) {
            // A record that does not fit before the end of the block wastes less than its own room.
            ASSERT_GT(memory.end() - memory.begin(), 1000U - 2 * 136U);
            memory.dropOldest();
            queue.pop_front();
        }
        queue.push_back(std::move(bytes));
        auto at = memory.begin();
        std::int64_t number = i + 1 - static_cast<std::int64_t>(queue.size());
        for (const auto& kept : queue) {
            const RecordMemory::Entry entry = memory.at(at);
            ASSERT_EQ(entry.timeNs, number++);
            ASSERT_EQ(std::vector(entry.data, entry.data + entry.size), kept);
            at = entry.next;
        }
        ASSERT_EQ(at, memory.end());
    }
}

class Heard final : public ITakeListener {
  public:
    void onTakeBegun(const Take& take) override { begun.push_back(take); }
    void onTakeEnded(const Take& take) override {
        ended.push_back(take);
        count.release();
    }

    std::vector<Take> begun;
    std::vector<Take> ended;
    std::counting_semaphore<> count{0};
};

TEST(TakeRecorder, TakesRecordsOutOfAMemoryThatWasEmptyBefore) {
    constexpr std::uint32_t kRecordBytes = 50'000;
    constexpr std::int64_t kRecords = 300;  // nearly the whole memory, all before their files are made
    const auto describe = [](const std::filesystem::path& directory) {
        storage::RecordingInfo info;
        info.name = directory.filename().string();
        info.groups.push_back({"of unknown rate", kRecordBytes, 0, {}});
        return info;
    };
    const test::TempDir directory;
    Heard heard;
    TakeOptions options{.directory = directory.path() / "takes", .starts = {"a>1"}, .repeat = 2};
    options.post = std::chrono::nanoseconds(kRecords - 1);
    TakeRecorder takes(options, describe, heard);
    ASSERT_TRUE(takes.begin().ok());
    std::int64_t now = 0;
    for (int take = 0; take < 2; ++take) {
        for (std::int64_t i = -3; i <= kRecords; ++i) {  // some before the trigger, and one behind the end
            const std::vector<std::uint8_t> bytes(kRecordBytes, static_cast<std::uint8_t>(++now));
            xcp::DaqRecord record;
            record.receiveTimeNs = now;
            record.data = bytes.data();
            record.size = bytes.size();
            takes.onRecord(record, i == 0 ? Fired{.start = 0} : Fired{});
        }
        heard.count.acquire();
    }
    takes.finish();
    for (const Take& take : heard.ended) {
        EXPECT_EQ((std::array{take.recorded, take.dropped}), (std::array<std::uint64_t, 2>{kRecords, 0}));
        const auto recording = storage::RecordingReader::open(take.directory);
        ASSERT_TRUE(recording.ok());
        ASSERT_EQ(recording.value().events().triggers.at(0).timeNs, take.triggerNs);
        auto group = recording.value().openGroup(0);
        ASSERT_TRUE(group.ok());
        std::int64_t expected = take.triggerNs;
        storage::RecordStream stream = group.value().read(group.value().all());
        for (auto batch = stream.next(); batch.value().count != 0; batch = stream.next()) {
            for (std::size_t i = 0; i < batch.value().count; ++i, ++expected) {
                ASSERT_EQ(batch.value().timestampNs(i), expected);
                ASSERT_EQ(batch.value().data(i)[kRecordBytes - 1], static_cast<std::uint8_t>(expected));
            }
        }
    }
}

TEST(TakeRecorder, SaysWhenTheMemoryDoesNotHoldTheTimeBeforeATrigger) {
    constexpr std::uint32_t kRecordBytes = 1U << 20U;
    constexpr std::int64_t kSecond = 1'000'000'000;
    const auto describe = [](const std::filesystem::path&) {
        storage::RecordingInfo info;
        info.groups.push_back({"of unknown rate", kRecordBytes, 0, {}});
        return info;
    };
    struct Row {
        std::int64_t records;
        bool cut;
        std::uint64_t recorded;
    };
    // The least memory is 16 MiB, of which a quarter is free when the trigger comes.
    for (const Row& row : {Row{10, false, 10}, Row{40, true, 13}}) {
        const test::TempDir directory;
        Heard heard;
        TakeOptions options{.directory = directory.path() / "takes", .starts = {"a>1"}};
        options.pre = std::chrono::minutes(5);
        options.post = std::chrono::seconds(0);
        TakeRecorder takes(options, describe, heard);
        ASSERT_TRUE(takes.begin().ok());
        const std::vector<std::uint8_t> bytes(kRecordBytes, 1);
        for (std::int64_t i = 1; i <= row.records; ++i) {
            xcp::DaqRecord record;
            record.receiveTimeNs = i * kSecond;
            record.data = bytes.data();
            record.size = bytes.size();
            Fired fired;
            if (i == row.records) fired.start = 0;
            takes.onRecord(record, fired);
        }
        takes.finish();
        ASSERT_EQ(heard.begun.size(), 1U);
        EXPECT_EQ(heard.begun[0].preCut, row.cut);
        ASSERT_EQ(heard.ended.size(), 1U);
        EXPECT_EQ(heard.ended[0].recorded, row.recorded);
        EXPECT_EQ(heard.ended[0].dropped, 0U);
        EXPECT_EQ(heard.ended[0].firstNs,
                  (row.records - static_cast<std::int64_t>(row.recorded) + 1) * kSecond);
    }
}

}  // namespace
}  // namespace lm::watch
