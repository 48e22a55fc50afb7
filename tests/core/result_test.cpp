#include "core/result.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include <gtest/gtest.h>

namespace lm {
namespace {

TEST(Result, ErrorWithoutMessageShowsItsCodeName) {
    EXPECT_EQ(Error{ErrorCode::notOpen}.text(), "not open");
    EXPECT_EQ((Error{ErrorCode::notOpen, "x"}).text(), "x");
    EXPECT_EQ(errorName(static_cast<ErrorCode>(10)), "closed");
    EXPECT_EQ(errorName(static_cast<ErrorCode>(11)), "unknown error");
    EXPECT_EQ(errorName(static_cast<ErrorCode>(255)), "unknown error");
}

TEST(Result, SystemErrorsMapToCategories) {
    struct Row {
        int systemError;
        ErrorCode code;
    };
    const Row rows[] = {
        {EPERM, ErrorCode::permissionDenied}, {EACCES, ErrorCode::permissionDenied},
        {ENOENT, ErrorCode::notFound},        {ENXIO, ErrorCode::notFound},
        {ENODEV, ErrorCode::notFound},        {EAGAIN, ErrorCode::wouldBlock},
        {ENOBUFS, ErrorCode::wouldBlock},     {EINVAL, ErrorCode::invalidArgument},
        {ERANGE, ErrorCode::invalidArgument}, {EOPNOTSUPP, ErrorCode::unsupported},
        {ETIMEDOUT, ErrorCode::timeout},      {0, ErrorCode::ioError},
        {ENOSPC, ErrorCode::ioError},
    };
    for (const Row& row : rows) {
        const Error error = Error::fromErrno(row.systemError, "where");
        EXPECT_EQ(error.code, row.code) << row.systemError;
        EXPECT_EQ(error.text(), std::string("where: ") + std::strerror(row.systemError));
        EXPECT_EQ(error.sysErrno, row.systemError);
        EXPECT_EQ(error.detail, -1);
    }
    EXPECT_EQ(Error::fromErrno(ErrorCode::closed, ENOENT, "x").code, ErrorCode::closed);
}

TEST(Result, HoldsOneSideAndMovesIt) {
    Result<std::unique_ptr<int>> result = std::make_unique<int>(7);
    ASSERT_TRUE(result.ok());
    const std::unique_ptr<int> taken = std::move(result).value();
    EXPECT_EQ(*taken, 7);
    EXPECT_TRUE(Result<void>().ok());
    EXPECT_FALSE(Result<void>(Error{}).ok());
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
