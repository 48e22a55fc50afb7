#include "core/result.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <gtest/gtest.h>

namespace lm {
namespace {

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

}  // namespace
}  // namespace lm
