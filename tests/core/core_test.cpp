// Bytes, results and what the platform gives.
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <sys/resource.h>
#include <utility>

#include <gtest/gtest.h>

#include "core/bytes.h"
#include "core/platform.h"
#include "core/result.h"
#include "core/sha256.h"
#include "core/stop_token.h"

namespace lm {
namespace {

TEST(Bytes, EveryWidthLiesInTheOrderNamed) {
    std::array<std::uint8_t, 8> buffer{};
    writeBytes<std::uint32_t>(buffer.data(), 0x12345678, ByteOrder::bigEndian);
    EXPECT_EQ(buffer, (std::array<std::uint8_t, 8>{0x12, 0x34, 0x56, 0x78}));
    EXPECT_EQ(readLittle<std::uint32_t>(buffer.data()), 0x78563412U);
    writeLittle<std::uint64_t>(buffer.data(), 0x0102030405060708U);
    EXPECT_EQ(buffer, (std::array<std::uint8_t, 8>{8, 7, 6, 5, 4, 3, 2, 1}));
    EXPECT_EQ(readBytes<std::uint64_t>(buffer.data(), ByteOrder::bigEndian), 0x0807060504030201U);
    writeSized(buffer.data(), 0xFF123456, 3, ByteOrder::bigEndian);
    EXPECT_EQ(buffer, (std::array<std::uint8_t, 8>{0x12, 0x34, 0x56, 5, 4, 3, 2, 1}));
    EXPECT_EQ(readSized(buffer.data(), 3, ByteOrder::bigEndian), 0x123456U);
    EXPECT_EQ(readSized(buffer.data(), 3, ByteOrder::littleEndian), 0x563412U);
}

TEST(StopSource, IsRequestedByItselfAndByItsParentUntilItIsReset) {
    StopSource parent = StopSource::create().value();
    StopSource child = StopSource::create(parent.token()).value();
    const StopToken token = child.token();
    int calls = 0;
    const StopCallback callback(token, [&calls] { ++calls; });
    const auto stands = [&](bool requested) {
        pollfd wait{token.descriptor(), POLLIN, 0};
        return token.requested() == requested && (::poll(&wait, 1, 0) == 1) == requested &&
               token.waitFor(std::chrono::milliseconds(0)) == requested;
    };
    EXPECT_TRUE(stands(false));
    child.request();
    EXPECT_TRUE(stands(true));
    EXPECT_FALSE(parent.token().requested());
    child.reset();
    EXPECT_TRUE(stands(false));
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(parent.requestFromSignalHandler());
    EXPECT_FALSE(parent.requestFromSignalHandler());
    EXPECT_TRUE(token.requested());
    parent.request();
    EXPECT_EQ(calls, 2);
    child.reset();
    EXPECT_TRUE(stands(true));
    const StopCallback late(token, [&calls] { ++calls; });
    EXPECT_EQ(calls, 3);
    EXPECT_FALSE(StopToken().waitFor(std::chrono::milliseconds(0)));
}

TEST(Sha256, OfPublishedTextsAndAroundTheBordersOfABlock) {
    EXPECT_EQ(sha256Hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    const std::pair<std::size_t, const char*> rows[] = {
        {0, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {55, "9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318"},
        {56, "b35439a4ac6f0948b6d6f9e3c6af0f5f590ce20f1bde7090ef7970686ec6738a"},
        {64, "ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb"},
        {119, "31eba51c313a5c08226adf18d4a359cfdfd8d2e816b13f4af952f7ea6584dcfb"},
        {120, "2f3d335432c70b580af0e8e1b3674a7c020d683aa5f73aaaedfdc55af904c21c"},
        {1000000, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
    for (const auto& [length, expected] : rows)
        EXPECT_EQ(sha256Hex(std::string(length, 'a')), expected) << length;
}

TEST(Result, ErrorsTellTheirTextAndTheirCategory) {
    EXPECT_EQ(Error{ErrorCode::notOpen}.text(), "not open");
    EXPECT_EQ(errorName(static_cast<ErrorCode>(10)), "closed");
    EXPECT_EQ(errorName(static_cast<ErrorCode>(11)), "unknown error");
    using enum ErrorCode;
    const std::pair<int, ErrorCode> rows[] = {
        {EACCES, permissionDenied}, {ENODEV, notFound},   {EAGAIN, wouldBlock}, {EINVAL, invalidArgument},
        {EOPNOTSUPP, unsupported},  {ETIMEDOUT, timeout}, {ENOSPC, ioError}};
    for (const auto& [systemError, code] : rows) {
        const Error error = Error::fromErrno(systemError, "where");
        EXPECT_EQ(error.code, code) << systemError;
        EXPECT_EQ(error.text(), std::string("where: ") + std::strerror(systemError));
        EXPECT_EQ(error.sysErrno, systemError);
    }
}

TEST(ResultDeathTest, ReadingTheMissingSideEndsTheProcess) {
    const Result<int> failed = Error{ErrorCode::timeout, "no answer"};
    EXPECT_DEATH(static_cast<void>(failed.value()), "^lm: accessed value of failed Result: no answer\n$");
    const Result<void> failedVoid = Error{ErrorCode::timeout};
    EXPECT_DEATH(failedVoid.value(), "^lm: accessed value of failed Result: timeout\n$");
    const Result<int> good = 1;
    EXPECT_DEATH(static_cast<void>(good.error()), "^lm: accessed error of successful Result\n$");
}

TEST(Platform, KnowsItsOwnPathAndRaisesTheFileLimit) {
    EXPECT_EQ(executablePath().filename(), "core_test");
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max / 2;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    raiseOpenFileLimit();
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(limit.rlim_cur, limit.rlim_max);
}

}  // namespace
}  // namespace lm
