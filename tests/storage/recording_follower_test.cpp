#include "storage/read/recording_follower.h"

#include <atomic>
#include <fcntl.h>
#include <thread>

#include <gtest/gtest.h>

#include "core/file_lock.h"
#include "core/unique_fd.h"
#include "storage/recording_fixture.h"
#include "support/temp_dir.h"

namespace lm::storage {
namespace {

using test::Bytes;

// The follower is there before the first record.
TEST(RecordingFollowerTest, SeesEveryRecordAndEntryOnceAndOnlyWholeOnesWhileTheyAreWritten) {
    constexpr std::size_t kRecords = 40000;
    const lm::test::TempDir dir;
    const auto path = dir.path() / "rec";
    auto writer = RecordingWriter::create(path, test::smallRecording(), {.flushIntervalMs = 0}).value();
    auto follower = RecordingFollower::open(path);
    ASSERT_TRUE(follower && follower.value().look().value());
    EXPECT_EQ(follower.value().group(0).nextRecords().value().count, 0U);
    std::atomic<bool> seen{false};
    std::thread producer([&] {
        for (std::size_t n = 0; n < kRecords; ++n) {
            if (n == kRecords / 2) seen.wait(false);
            const Bytes data = test::smallRecord(n);
            writer->write(0, 1000000000 + static_cast<std::int64_t>(n), data.data(), data.size());
        }
        static_cast<void>(writer->close());
    });
    Bytes records;
    Bytes entries[3];
    for (bool more = true; more; std::this_thread::yield()) {
        more = follower.value().look().value();
        GroupFollower& group = follower.value().group(0);
        for (std::size_t file = 0; file < std::size(entries); ++file) {
            const auto bytes = group.nextEntries(file).value().bytes;
            entries[file].insert(entries[file].end(), bytes.begin(), bytes.end());
        }
        for (auto batch = group.nextRecords().value(); batch.count > 0; batch = group.nextRecords().value())
            records.insert(records.end(), batch.bytes, batch.bytes + batch.count * batch.stride);
        seen = !records.empty();
        seen.notify_one();
    }
    producer.join();
    ASSERT_EQ(records.size(), kRecords * 11);
    const auto bodyOf = [&path](const std::string& name) {
        const Bytes file = test::readFile(path / name);
        return Bytes(file.begin() + kHeaderSize, file.end());
    };
    EXPECT_EQ(records, bodyOf("g0000.rec"));
    for (std::size_t file = 0; file < std::size(entries); ++file)
        EXPECT_EQ(entries[file], bodyOf(SummaryFile::path("", 0, file))) << file;
}

TEST(RecordingFollowerTest, LeavesLevelsThatNobodyWritesUntilTheEnd) {
    const lm::test::TempDir dir;
    test::writeSmallRecording(dir.path(), 16);
    UniqueFd writing(::open((dir.path() / "events.jsonl").c_str(), O_WRONLY));
    ASSERT_TRUE(lockForWriting(writing.get()));
    auto follower = RecordingFollower::open(dir.path()).value();
    EXPECT_TRUE(follower.look().value());
    EXPECT_TRUE(follower.group(0).nextEntries(1).value().bytes.empty());
    writing.close();
    EXPECT_FALSE(follower.look().value());
    EXPECT_EQ(follower.group(0).nextEntries(1).value().bytes.size(), 16U);
}

}  // namespace
}  // namespace lm::storage
