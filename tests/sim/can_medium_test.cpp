#include "sim/can_medium.h"

#include <gtest/gtest.h>

namespace lm::sim {
namespace {

TEST(CanMedium, FramesHaveLengthsThatTheBusKnows) {
    struct Row {
        std::size_t packet;
        bool fd;
        bool full;
        std::size_t frame;
    };
    for (const Row& row : {Row{1, false, false, 1}, Row{8, false, false, 8}, Row{2, false, true, 8},
                           Row{8, true, false, 8}, Row{9, true, false, 12}, Row{33, true, false, 48},
                           Row{64, true, false, 64}, Row{3, true, true, 64}}) {
        Options options;
        options.canFd = row.fd;
        options.maxDlcRequired = row.full;
        options.fillByte = 0xAA;
        std::vector<std::uint8_t> expected(row.packet, 1);
        expected.resize(row.frame, 0xAA);
        EXPECT_EQ(canPayload(std::vector<std::uint8_t>(row.packet, 1), options), expected) << row.packet;
    }
}

}  // namespace
}  // namespace lm::sim
