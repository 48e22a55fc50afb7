#include "storage/byte_ring.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace lm::storage {
namespace {

TEST(ByteRing, RoundsItsCapacityUp) {
    const std::uint64_t rows[][2] = {{0, 64}, {64, 64}, {65, 128}, {100, 128}, {5000, 8192}};
    for (const auto& row : rows)
        EXPECT_EQ(ByteRing(row[0]).capacity(), row[1]);
}

TEST(ByteRing, RefusesEntriesAboveHalfItsCapacity) {
    const std::vector<std::uint8_t> data(200);
    for (std::size_t length = 0; length <= data.size(); ++length) {
        ByteRing ring(100);
        // 20 bytes stand in front of a record; 64 are half of the ring.
        EXPECT_EQ(ring.push(0, 0, data.data(), length), length <= 44) << length;
    }
}

TEST(ByteRing, RefusesWhatHasNoRoom) {
    ByteRing ring(128);
    const std::vector<std::uint8_t> data(12);  // an entry of 32 bytes
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(ring.push(0, i, data.data(), data.size()), i < 4);
    }
    ASSERT_TRUE(ring.front());
    ring.pop();
    EXPECT_TRUE(ring.push(0, 4, data.data(), data.size()));
}

// Entries of every size at every place of a small ring, over many wraps, with a queue of one to three.
TEST(ByteRing, KeepsEveryEntryAcrossTheEndOfItsBuffer) {
    for (std::size_t queued = 1; queued <= 2; ++queued) {
        ByteRing ring(128);
        std::size_t next = 0;
        const auto lengthOf = [](std::size_t n) { return n * 7 % 29; };
        for (std::size_t n = 0; n < 2000; ++n) {
            const std::vector<std::uint8_t> data(lengthOf(n), static_cast<std::uint8_t>(n));
            ASSERT_TRUE(ring.push(static_cast<std::uint16_t>(n), -static_cast<std::int64_t>(n), data.data(),
                                  data.size()));
            if (n + 1 < next + queued) continue;
            const auto entry = ring.front();
            ASSERT_TRUE(entry);
            EXPECT_EQ(entry->group, static_cast<std::uint16_t>(next));
            EXPECT_EQ(entry->timestampNs, -static_cast<std::int64_t>(next));
            const std::vector<std::uint8_t> expected(lengthOf(next), static_cast<std::uint8_t>(next));
            EXPECT_EQ(std::vector<std::uint8_t>(entry->data, entry->data + entry->length), expected);
            ring.pop();
            ++next;
        }
    }
}

TEST(ByteRing, CarriesEntriesFromTwoProducersToAConsumer) {
    constexpr int kEntries = 20000;
    ByteRing ring(128);
    const auto produce = [&ring](std::uint16_t group) {
        for (int n = 0; n < kEntries; ++n) {
            const std::vector<std::uint8_t> data(static_cast<std::size_t>(n % 40),
                                                 static_cast<std::uint8_t>(n));
            while (!ring.push(group, n, data.data(), data.size()))
                std::this_thread::yield();
        }
    };
    std::thread first(produce, std::uint16_t{0});
    std::thread second(produce, std::uint16_t{1});
    int next[2] = {0, 0};
    int damaged = 0;
    while (next[0] + next[1] < 2 * kEntries) {
        const auto entry = ring.front();
        if (!entry) {
            std::this_thread::yield();
            continue;
        }
        const int n = next[entry->group]++;
        bool intact = entry->timestampNs == n && entry->length == static_cast<std::size_t>(n % 40);
        for (std::size_t i = 0; i < entry->length; ++i) {
            intact = intact && entry->data[i] == static_cast<std::uint8_t>(n);
        }
        if (!intact) ++damaged;
        ring.pop();
    }
    first.join();
    second.join();
    EXPECT_EQ(damaged, 0);
}

}  // namespace
}  // namespace lm::storage
