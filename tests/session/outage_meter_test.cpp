#include "session/outage_meter.h"

#include <gtest/gtest.h>

namespace lm::session {
namespace {

using Stop = OutageMeter::Stop;

constexpr std::int64_t kMsNs = 1'000'000;

/// Records every 10 ms until 1000 ms; a heartbeat of 500 ms.
class Outages : public testing::Test {
  protected:
    Outages() {
        meter_.start(0);
        records(10, 1000);
    }
    void records(int from, int to, int late = 0) {
        for (int at = from; at <= to; at += 10)
            meter_.onRecord(at * kMsNs, (at + late) * kMsNs);
    }
    std::int64_t before() const { return meter_.beforeReconnectionsNs() / kMsNs; }
    std::int64_t upToEnd() const { return meter_.upToEndNs() / kMsNs; }

    OutageMeter meter_{40 * kMsNs, 500 * kMsNs};
};

TEST_F(Outages, OldListsAndLateFramesHideNone) {
    meter_.begin(2000 * kMsNs);
    records(2500, 3000);  // the old lists run again
    meter_.end(3100 * kMsNs);
    EXPECT_EQ(before(), 1500 + 100);
    records(3100, 4000);

    meter_.begin(5000 * kMsNs);
    records(4010, 4100, 3700);  // out of the ECU's queue, with their own times
    records(7810, 8000);
    meter_.end(8000 * kMsNs);
    EXPECT_EQ(before(), 1600 + 3710);
    EXPECT_EQ(meter_.ended(), 2U);
    meter_.finish(8000 * kMsNs, Stop::answered, true);
    EXPECT_EQ(upToEnd(), 0);
}

TEST_F(Outages, ARecordThatComesWhileTheLossIsNoticedBelongsToIt) {
    records(2000, 2000);
    meter_.begin(2001 * kMsNs);
    meter_.end(2501 * kMsNs);
    EXPECT_EQ(before(), 1000 + 501);
    records(2510, 5000);
    meter_.begin(6000 * kMsNs);
    meter_.end(6100 * kMsNs);
    EXPECT_EQ(before(), 1501 + 1100) << "no gap counts twice";
}

TEST_F(Outages, OneThatLastsToTheEndIsTold) {
    const struct {
        int end;
        Stop stop;
        bool cyclic;
        int told;
    } rows[] = {
        {1400, Stop::answered, true, 0},      {1600, Stop::answered, true, 600},  // not noticed yet
        {1600, Stop::answered, false, 0},     {1030, Stop::unanswered, true, 0},  // the answer alone was lost
        {1400, Stop::unanswered, false, 400}, {1400, Stop::lost, true, 400}};
    for (const auto& row : rows) {
        OutageMeter meter(40 * kMsNs, 500 * kMsNs);
        meter.start(1000 * kMsNs);
        meter.finish(row.end * kMsNs, row.stop, row.cyclic);
        EXPECT_EQ(meter.upToEndNs() / kMsNs, row.told);
    }
    meter_.begin(2000 * kMsNs);
    records(3000, 3100);
    meter_.finish(4000 * kMsNs, Stop::answered, false);
    EXPECT_EQ(upToEnd(), 2000 + 900);
    EXPECT_EQ(meter_.ended(), 0U);
}

}  // namespace
}  // namespace lm::session
