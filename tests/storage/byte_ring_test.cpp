#include "storage/write/byte_ring.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace lm::storage {
namespace {

TEST(ByteRing, TakesWhatItsCapacityAllows) {
    const std::uint64_t rows[][2] = {{0, 64}, {64, 64}, {65, 128}, {5000, 8192}};
    for (const auto& row : rows)
        EXPECT_EQ(ByteRing(row[0]).capacity(), row[1]);

    const std::vector<std::uint8_t> data(200);
    for (std::size_t length = 0; length <= data.size(); ++length) {
        ByteRing ring(100);
        // 20 bytes stand in front of a record; 64 are half of the ring.
        EXPECT_EQ(ring.push(0, 0, data.data(), length), length <= 44) << length;
    }
    ByteRing ring(128);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(ring.push(0, i, data.data(), 12), i < 4) << "entries of 32 bytes";
    ASSERT_TRUE(ring.front());
    ring.pop();
    EXPECT_TRUE(ring.push(0, 4, data.data(), 12));
}

std::vector<std::uint8_t> contentOf(std::int64_t n) {
    return std::vector<std::uint8_t>(static_cast<std::size_t>(n * 7 % 41), static_cast<std::uint8_t>(n));
}

// Entries of every size at every place of a small ring, over many wraps.
TEST(ByteRing, CarriesEntriesFromTwoProducersToAConsumer) {
    constexpr std::int64_t kEntries = 5000;
    ByteRing ring(128);
    const auto produce = [&ring](std::uint16_t group) {
        for (std::int64_t n = 0; n < kEntries; ++n) {
            const auto data = contentOf(n);
            while (!ring.push(group, -n, data.data(), data.size()))
                std::this_thread::yield();
        }
    };
    std::thread first(produce, std::uint16_t{0});
    std::thread second(produce, std::uint16_t{0xFFFF});
    std::int64_t next[2] = {0, 0};
    int damaged = 0;
    while (next[0] + next[1] < 2 * kEntries) {
        const auto entry = ring.front();
        if (!entry) {
            ring.rewind();
            std::this_thread::yield();
            continue;
        }
        const std::int64_t n = next[entry->group == 0 ? 0 : 1]++;
        const std::vector<std::uint8_t> data(entry->data, entry->data + entry->length);
        if (entry->timestampNs != -n || data != contentOf(n)) ++damaged;
        ring.pop();
    }
    first.join();
    second.join();
    EXPECT_EQ(damaged, 0);
}

}  // namespace
}  // namespace lm::storage
