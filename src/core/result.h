// A value or an error: what every fallible operation of the system returns.
//
// Threads: plain values; share one between threads only under the owner's lock.
// Lifetime: owns everything it holds. Reading the side that is not there is a programming fault and ends the
// process with a line on standard error.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace lm {

/// The closed set of error categories. Values are fixed; errorName() gives the text of each.
enum class ErrorCode : std::uint8_t {
    invalidArgument = 0,
    notFound = 1,
    permissionDenied = 2,
    ioError = 3,
    timeout = 4,
    wouldBlock = 5,
    notOpen = 6,
    alreadyOpen = 7,
    unsupported = 8,
    protocolError = 9,
    closed = 10,
};

/// The text of a code, "unknown error" for a value outside the enumeration.
std::string_view errorName(ErrorCode code);

/// The category of an operating-system error number; what the table does not know is ErrorCode::ioError.
ErrorCode codeFromErrno(int systemError);

struct Error {
    static constexpr std::int32_t kNoDetail = -1;

    ErrorCode code = ErrorCode::ioError;
    std::string message = {};         ///< may be empty: text() then gives the name of the code
    std::int32_t sysErrno = 0;        ///< operating-system error number, 0 when none
    std::int32_t detail = kNoDetail;  ///< XCP error code of an ERR packet, else kNoDetail
    std::string hint = {};            ///< cause or mend, told in a line of its own; empty: none is known

    /// The text to print: the message, or the name of the code when there is none.
    std::string text() const;

    /// What was ended because a stop was requested: ErrorCode::closed with ECANCELED. Some file systems fail
    /// with that number, too; those errors have another code.
    static Error stopped(std::string message);
    bool isStop() const;

    /// "context: strerror(systemError)" with the code given, or derived from `systemError`.
    static Error fromErrno(ErrorCode code, int systemError, std::string_view context);
    static Error fromErrno(int systemError, std::string_view context);
    /// The same with the strerror text as the hint, for messages that do not end in a reason.
    static Error withReasonAsHint(ErrorCode code, int systemError, std::string message);
};

/// ErrorCode::invalidArgument with the text.
inline Error invalidArgument(std::string message) {
    return {.code = ErrorCode::invalidArgument, .message = std::move(message)};
}

namespace detail {
[[noreturn]] void abortOnMissingValue(const Error& error);
[[noreturn]] void abortOnMissingError();
}  // namespace detail

/// Exactly one of a T or an Error. Moved, not shared.
template <typename T>
class [[nodiscard]] Result {
  public:
    Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}      // NOLINT(*-explicit-*)
    Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}  // NOLINT(*-explicit-*)
    Result(Result&&) noexcept = default;
    Result& operator=(Result&&) noexcept = default;
    Result(const Result&) = delete;
    Result& operator=(const Result&) = delete;
    ~Result() = default;

    bool ok() const { return state_.index() == 0; }
    explicit operator bool() const { return ok(); }

    T& value() & {
        requireValue();
        return *std::get_if<0>(&state_);
    }
    const T& value() const& {
        requireValue();
        return *std::get_if<0>(&state_);
    }
    T&& value() && {
        requireValue();
        return std::move(*std::get_if<0>(&state_));
    }
    const Error& error() const {
        if (ok()) detail::abortOnMissingError();
        return *std::get_if<1>(&state_);
    }

  private:
    void requireValue() const {
        if (!ok()) detail::abortOnMissingValue(*std::get_if<1>(&state_));
    }

    std::variant<T, Error> state_;
};

/// Success without a value, or an Error.
template <>
class [[nodiscard]] Result<void> {
  public:
    Result() = default;
    Result(Error error) : state_(std::move(error)) {}  // NOLINT(*-explicit-*)
    Result(Result&&) noexcept = default;
    Result& operator=(Result&&) noexcept = default;
    Result(const Result&) = delete;
    Result& operator=(const Result&) = delete;
    ~Result() = default;

    bool ok() const { return state_.index() == 0; }
    explicit operator bool() const { return ok(); }

    void value() const {
        if (!ok()) detail::abortOnMissingValue(*std::get_if<1>(&state_));
    }
    const Error& error() const {
        if (ok()) detail::abortOnMissingError();
        return *std::get_if<1>(&state_);
    }

  private:
    std::variant<std::monostate, Error> state_;
};

}  // namespace lm
