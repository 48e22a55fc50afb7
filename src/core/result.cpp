#include "core/result.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace lm {
namespace {

std::string reasonText(int systemError) {
    std::array<char, 256> buffer{};
    // The GNU strerror_r returns the text, which need not stand in the buffer.
    return strerror_r(systemError, buffer.data(), buffer.size());
}

}  // namespace

std::string_view errorName(ErrorCode code) {
    static constexpr std::array<std::string_view, 11> kNames = {
        "invalid argument", "not found",    "permission denied", "I/O error",      "timeout", "would block",
        "not open",         "already open", "unsupported",       "protocol error", "closed"};
    const auto index = static_cast<std::size_t>(code);
    return index < kNames.size() ? kNames[index] : "unknown error";
}

ErrorCode codeFromErrno(int systemError) {
    switch (systemError) {
        case EPERM:
        case EACCES:
            return ErrorCode::permissionDenied;
        case ENOENT:
        case ENXIO:
        case ENODEV:
            return ErrorCode::notFound;
        case EAGAIN:
        case ENOBUFS:
            return ErrorCode::wouldBlock;
        case EINVAL:
        case ERANGE:
            return ErrorCode::invalidArgument;
        case EOPNOTSUPP:
            return ErrorCode::unsupported;
        case ETIMEDOUT:
            return ErrorCode::timeout;
        default:
            return ErrorCode::ioError;
    }
}

std::string Error::text() const {
    return message.empty() ? std::string(errorName(code)) : message;
}

Error Error::stopped(std::string message) {
    return {ErrorCode::closed, std::move(message), ECANCELED};
}

bool Error::isStop() const {
    return code == ErrorCode::closed && sysErrno == ECANCELED;
}

Error Error::fromErrno(ErrorCode code, int systemError, std::string_view context) {
    return Error{code, std::string(context) + ": " + reasonText(systemError), systemError, kNoDetail};
}

Error Error::withReasonAsHint(ErrorCode code, int systemError, std::string message) {
    return Error{code, std::move(message), systemError, kNoDetail, reasonText(systemError)};
}

Error Error::fromErrno(int systemError, std::string_view context) {
    return fromErrno(codeFromErrno(systemError), systemError, context);
}

namespace detail {

void abortOnMissingValue(const Error& error) {
    std::fprintf(stderr, "lm: accessed value of failed Result: %s\n", error.text().c_str());
    std::abort();
}

void abortOnMissingError() {
    std::fputs("lm: accessed error of successful Result\n", stderr);
    std::abort();
}

}  // namespace detail
}  // namespace lm
