// Seed & key: the exact packets, with answers lost at each step, and what a refused command or key leads to.
#include <gtest/gtest.h>

#include "xcp/scripted_slave.h"

namespace lm::xcp {
namespace {

/// The seed with 1 added to each byte; none to a seed of EE, 256 bytes to one of 00.
Result<std::vector<std::uint8_t>> plusOne(Resource, std::span<const std::uint8_t> seed) {
    if (seed[0] == 0xEE) return Error{.code = ErrorCode::ioError, .message = "no key"};
    if (seed[0] == 0x00) return std::vector<std::uint8_t>(256);
    std::vector<std::uint8_t> key(seed.begin(), seed.end());
    for (std::uint8_t& byte : key)
        ++byte;
    return key;
}

struct Row {
    const char* commands;
    const char* script;  ///< after CONNECT and the status
    const char* results;
};

constexpr Row kRows[] = {
    {"unlock 1", "F8 00 01 > FF 02 10 20; F7 02 11 21 > FF 04", "opened"},
    {"unlock 4", "F8 00 04 > FF 00", "open"},
    {"unlock 1",
     "F8 00 01 > FF 08 01 02 03 04 05 06; F8 01 01 > FF 02 07 08; F7 08 02 03 04 05 06 07 > FF 05; "
     "F7 02 08 09 > FF 04",
     "opened"},
    // Lost: the seed, its next part, the answer to a part of the key, that to the last one.
    {"unlock 1", "F8 00 01; FC > FE 00; F8 00 01 > FF 01 10; F7 01 11 > FF 04", "opened"},
    {"unlock 1",
     "F8 00 01 > FF 07 01 02 03 04 05 06; F8 01 01; FC > FE 00; F8 00 01 > FF 01 10; F7 01 11 > FF 04",
     "opened"},
    {"unlock 1",
     "F8 00 01 > FF 07 01 02 03 04 05 06; F8 01 01 > FF 01 07; F7 07 02 03 04 05 06 07; FC > FE 00; "
     "F8 00 01 > FF 01 10; F7 01 11 > FF 04",
     "opened"},
    {"unlock 1", "F8 00 01 > FF 01 10; F7 01 11; FC > FE 00; F8 00 01 > FF 00", "open"},
    {"unlock 1", "F8 00 01; FC > FE 00; F8 00 01; FC > FE 00; F8 00 01",
     "GET_SEED: no response from slave (t1)"},
    // What does not fit.
    {"unlock 1",
     "F8 00 01 > FF 08 01 02 03 04 05 06; F8 01 01 > FF 08 01 02 03 04 05 06; F8 00 01 > FF 01 10; "
     "F7 01 11 > FE 29; F8 00 01 > FF 03 01 02",
     "GET_SEED: less of the seed came than was announced"},
    {"unlock 1", "F8 00 01 > FF 01 EE", "no key"},
    {"unlock 1", "F8 00 01 > FF 01 00", "UNLOCK: a key of 256 bytes, 1 to 255 are possible"},
    // A wrong key ends the session, which is opened again once.
    {"unlock 1; unlock 1; unlock 4; unlock 4",
     "F8 00 01 > FF 01 10; F7 01 11 > FE 25; FF 00 > @; FD > FF 00 05 00 00 00; F8 00 04 > FF 01 10; "
     "F7 01 11 > FE 25",
     "UNLOCK: the ECU refused the key for CAL/PAG and ended the session; the ECU refused the key for "
     "CAL/PAG before; UNLOCK: the ECU refused the key for DAQ and ended the session; XCP slave not "
     "connected"},
    // What is locked is unlocked before it is written, once; what only turns out to be so, afterwards.
    {"download 01; download 02",
     "F8 00 01 > FF 01 10; F7 01 11 > FF 04; F6 00 00 00 10 00 00 00 > FF; F0 01 01 > FF; "
     "F6 00 00 00 10 00 00 00 > FF; F0 01 02 > FF",
     "ok; ok"},
    {"download 01", "F8 00 01 > FE 20; F6 00 00 00 10 00 00 00 > FF; F0 01 01 > FF", "ok"},
    {"upload 1",
     "F4 01 00 01 78 56 34 12 > FE 25; F8 00 01 > FF 01 10; F7 01 11 > FF 00; F4 01 00 01 78 56 34 12 > FF "
     "42",
     "42"},
    // The pointer is set again when a SYNCH may have cleared it.
    {"unlock 1; download 01",
     "F8 00 01 > FF 00; F6 00 00 00 10 00 00 00 > FF; F0 01 01 > FE 25; F8 00 01; FC > FE 00; F8 00 01 > FF "
     "00; F6 00 00 00 10 00 00 00 > FF; F0 01 01 > FE 25; F8 00 01 > FF 00; F0 01 01 > FE 25",
     "open; DOWNLOAD: ERR_ACCESS_LOCKED (0x25)"},
};

TEST(Unlock, TheRoundAndWhatLeadsToIt) {
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.script);
        test::Bench bench(std::string("FF 00 > @; FD > FF 00 05 00 00 00; ") + row.script,
                          {.t1 = 20, .t7 = 0, .keys = plusOne});
        EXPECT_EQ(bench.run(std::string("connect; ") + row.commands), std::string("ok; ") + row.results);
    }
}

}  // namespace
}  // namespace lm::xcp
