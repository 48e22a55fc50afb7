// The session configuration: everything needed to reach one ECU and measure it, or several, read from and
// written to a JSON document.
//
// Threads: a plain record and pure functions. Lifetime: owns everything.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/bytes.h"
#include "core/result.h"
#include "core/stop_token.h"
#include "session/daq_list_ids.h"
#include "xcp/daq_setup.h"

namespace lm::session {

/// What to do when the connection is lost while measuring.
enum class ReconnectPolicy : std::uint8_t {
    abort = 0,
    retry = 1,
    retryForever = 2,
};

/// "abort", "retry", "retry_forever"; the texts are case-sensitive.
std::string_view reconnectPolicyName(ReconnectPolicy policy);

/// Error: invalidArgument "unknown reconnect policy 'TEXT'".
Result<ReconnectPolicy> parseReconnectPolicy(std::string_view text);

/// In which event channel signals without an event of their own are measured.
struct DefaultEvent {
    std::uint16_t number = 0;
    std::string name = {};   ///< when not empty, that of an event of the ECU
    bool automatic = false;  ///< the one that the A2L names for the signal, where it names one

    bool operator==(const DefaultEvent&) const = default;
};

/// N, NAME or auto, not empty; `before` gives the number for what auto finds no event for.
DefaultEvent parseDefaultEvent(const std::string& text, const DefaultEvent& before);

/// Who tells what an ECU can do in DAQ.
enum class DaqTold : std::uint8_t {
    ecu,  ///< the ECU
    a2l,  ///< the A2L; the ECU is asked for what the A2L leaves out
};

/// Defaults are those of a document without any key. What is absent is taken from the A2L, else from the
/// protocol's own default.
struct SessionConfig {
    struct Can {
        std::string interface;                     ///< network interface, e.g. can1
        std::optional<std::uint32_t> bitrate;      ///< bit/s to set on the interface
        std::optional<std::uint32_t> dataBitrate;  ///< bit/s of the CAN FD data phase
        bool fd = false;
        std::optional<std::uint32_t> cmdId;  ///< master to ECU; bit 31 marks a 29-bit identifier
        std::optional<std::uint32_t> resId;  ///< ECU to master; likewise
        bool maxDlcRequired = false;
        CanIdByList daqIds = {};  ///< set in the ECU before lists are started

        bool operator==(const Can&) const = default;
    };
    struct Udp {
        std::string host;
        std::optional<std::uint16_t> port;

        bool operator==(const Udp&) const = default;
    };
    struct Serial {
        std::string port;  ///< device path
        std::optional<std::uint32_t> baudrate;
        std::chrono::milliseconds resetDelay{2000};  ///< from opening the port to the first command

        bool operator==(const Serial&) const = default;
    };
    /// Of the DAQ timestamps.
    struct Timestamp {
        std::optional<std::uint8_t> size;  ///< bytes: 0, 1, 2 or 4
        std::optional<std::uint32_t> tickNs;
        std::optional<bool> fixed;

        bool operator==(const Timestamp&) const = default;
    };
    /// What counts instead of what the ECU says of itself.
    struct Overrides {
        std::optional<std::uint8_t> granularity;  ///< 1, 2 or 4
        std::optional<ByteOrder> byteOrder;
        std::optional<std::uint16_t> maxDto;  ///< at least 8
        Timestamp timestamp;
        bool ignoreDaqRunningBit = false;

        bool operator==(const Overrides&) const = default;
    };
    struct Xcp {
        std::optional<std::array<std::uint16_t, 7>> timeoutsMs;  ///< T1 to T7
        bool useShortUpload = true;
        std::uint32_t connectAttempts = 3;
        bool modifyBits = false;  ///< masked writes by MODIFY_BITS, where the ECU offers it
        std::optional<std::chrono::milliseconds> connectTimeout;  ///< instead of a number of attempts
        Overrides overrides;

        bool operator==(const Xcp&) const = default;
    };
    struct Daq {
        bool useTimestamps = true;
        double maxBusLoad = 0.8;  ///< fraction of 1
        DefaultEvent defaultEvent = {};
        xcp::FirstPids firstPid = xcp::FirstPids::told;
        DaqTold source = DaqTold::ecu;

        bool operator==(const Daq&) const = default;
    };
    /// What computes the keys of an ECU with seed & key: a library or a program, or neither.
    struct Security {
        std::filesystem::path library;     ///< a shared object
        std::vector<std::string> command;  ///< a program and its arguments
        std::chrono::milliseconds timeout{5000};
        std::vector<std::string> sha256;  ///< of the library, or of files among the command; lower case
        /// Why nothing of this is used: others can have changed the file that it stands in. Not written.
        std::string refusal;

        bool configured() const { return !library.empty() || !command.empty(); }
        bool operator==(const Security&) const = default;
    };
    struct Reconnect {
        ReconnectPolicy policy = ReconnectPolicy::abort;
        std::uint32_t attempts = 5;
        std::chrono::milliseconds interval{1000};   ///< between attempts, at least 1 ms
        std::chrono::milliseconds heartbeat{1000};  ///< supervision while measuring, at least 1 ms

        bool operator==(const Reconnect&) const = default;
    };

    /// What an ECU of another software than the A2L's means.
    enum class IdentityCheck : std::uint8_t {
        warn,    ///< nothing is written; reading warns
        refuse,  ///< nothing is read either
        off,     ///< no one asks
    };

    /// What follows when an ECU comes back without the parameters that it had.
    enum class OnReset : std::uint8_t {
        tell,
        stop,     ///< the measurement ends
        reapply,  ///< what this session wrote is written again
    };

    struct Display {
        bool exact = false;  ///< integers with all digits, others with the shortest text that reads back

        bool operator==(const Display&) const = default;
    };

    std::string name;
    std::filesystem::path a2l;
    Can can;
    Udp udp;
    Serial serial;
    Xcp xcp;
    Daq daq;
    Reconnect reconnect;
    Security security;                                  ///< written only when it is not the default
    std::vector<std::string> measurement;               ///< default signals, see chooseSignals()
    IdentityCheck identityCheck = IdentityCheck::warn;  ///< written only when it is not the default
    OnReset onReset = OnReset::tell;                    ///< written only when it is not the default
    Display display;                                    ///< written only when it is not the default

    bool operator==(const SessionConfig&) const = default;
};

/// A whole configuration: one ECU, or several.
struct ConfigDocument {
    SessionConfig one;                ///< without "ecus"
    std::vector<SessionConfig> ecus;  ///< each with what stands beside "ecus" under what it says itself

    bool isOfSeveral() const { return !ecus.empty(); }
    bool operator==(const ConfigDocument&) const = default;
};

/// Empty, or why an ECU beside others cannot have that name: it stands before a slash in the names of
/// signals, and beside patterns and events.
std::string whyNoEcuName(std::string_view name);

/// Reads a document (comments allowed); a relative `a2l` or `security.library` is taken from `baseDirectory`.
/// A document that is not an object, and a section that is not one (but "security"), keep the defaults; an
/// unknown key is logged as a warning. Errors (invalidArgument): "configuration: ..." with line and column of
/// a syntax error or the path of the value ("configuration: can.bitrate: ..."), "unknown reconnect policy
/// 'TEXT'".
Result<SessionConfig> sessionConfigFromJson(std::string_view text,
                                            const std::filesystem::path& baseDirectory);

/// The same of one that may have "ecus". Further errors: that beside them stands what each must say itself,
/// that a name is given twice or is none.
Result<ConfigDocument> configDocumentFromJson(std::string_view text,
                                              const std::filesystem::path& baseDirectory);

/// The document, indented by 2 blanks, without a final newline. Bytes of a text (a file name) that are
/// not UTF-8 become U+FFFD.
std::string sessionConfigToJson(const SessionConfig& config);
std::string configDocumentToJson(const ConfigDocument& document);

/// A stop ends the reading. Errors: notFound "cannot open configuration PATH", ioError "cannot read
/// configuration PATH" (both with the errno), and "PATH: " with an error of the conversion.
Result<ConfigDocument> loadConfigDocument(const std::filesystem::path& path, const StopToken& stop = {});
/// The same of one ECU. Further error: that it is of several.
Result<SessionConfig> loadSessionConfig(const std::filesystem::path& path, const StopToken& stop = {});

/// Replaces the file that `path` names by a new one, whole and on the disk, of the same owner (as far as the
/// system allows) and rights, or writes to the device or pipe. Errors: "cannot write PATH" with the errno, a
/// file is then the whole old or the whole new one; invalidArgument "cannot write PATH: ..." when a text of
/// the configuration is not UTF-8, the file is then untouched.
Result<void> saveConfigDocument(const std::filesystem::path& path, const ConfigDocument& document);
Result<void> saveSessionConfig(const std::filesystem::path& path, const SessionConfig& config);

}  // namespace lm::session
