// The options of the program, how they overrule the configuration, and options that several commands have.
//
// Threads: pure functions. Lifetime: the parser refers to what an option sets until it has parsed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/option_set.h"
#include "core/result.h"
#include "session/session_config.h"
#include "value/value_text.h"

namespace lm::cli {

/// The options of the program, which stand before or behind any command; one that was not given is absent.
struct Options {
    std::optional<std::string> configFile;
    std::optional<std::string> ecu;  ///< of several in the configuration
    std::optional<std::string> a2l;
    std::optional<std::string> interface;
    std::optional<std::string> udp;
    std::optional<std::string> serial;
    std::int32_t resetDelayMs = -1;  ///< below 0: not given
    std::optional<std::string> cmdId;
    std::optional<std::string> resId;
    std::uint32_t bitrate = 0;  ///< 0: not given
    bool noShortUpload = false;
    std::optional<double> connectTimeout;  ///< seconds
    std::optional<std::string> reconnect;
    bool ignoreIdentity = false;
    bool direct = false;
    bool takeOver = false;
    bool verbose = false;
};

void addProgramOptions(OptionSet& set, Options& options);

// Options that several commands have.
/// What a command ends with that stands for the state of an ECU when no ECU answered.
inline constexpr int kNoOneAnswered = 4;
inline constexpr const char* kDirectoriesHelp =
    "Recording directory; several, or a folder of recordings, are read as one";
void addExact(OptionSet& command, bool& exact);
/// --fail-on identity.
void addFailOnIdentity(OptionSet& command, std::vector<std::string>& failOn);
/// 3 instead of 0 when that was given and the session warned of it.
int withIdentity(int exitCode, const std::vector<std::string>& failOn, bool warned);
value::NumberStyle numberStyle(const session::SessionConfig& config);
/// -t; refuses what is no number of seconds from 0.
void addDuration(OptionSet& command, double& seconds, const char* help);
/// --read-only.
void addReadOnly(OptionSet& command, bool& readOnly);
/// --from, --to.
void addTimes(OptionSet& command, std::optional<std::string>& from, std::optional<std::string>& to,
              const char* helpTo);
/// --group, --function.
void addFolders(OptionSet& command, std::vector<std::string>& groups, std::vector<std::string>& functions);
/// -s, which takes all words behind it and may stand before the directory all the same: that option has been
/// added before.
AddedOption addPatterns(OptionSet& command, std::vector<std::string>& signals, const char* help,
                        AddedOption directory);

/// HOST, HOST:PORT, [ADDRESS] or [ADDRESS]:PORT; an address with several colons and no brackets is the host
/// as a whole. Error: parseUnsigned's for the port.
struct UdpTarget {
    std::string host;
    std::optional<std::uint16_t> port;
};
Result<UdpTarget> splitUdpTarget(std::string_view text);

/// PORT or PORT:BAUD; what stands behind the last colon counts as baud rate when it is all digits. Error:
/// parseUnsigned's for a baud rate above 32 bits.
struct SerialTarget {
    std::string port;
    std::optional<std::uint32_t> baudrate;
};
Result<SerialTarget> splitSerialTarget(std::string_view text);

/// Lays the options over the configuration. Errors (the whole line to print): "unknown reconnect policy
/// TEXT", parseUnsigned's "stoul: ..."; the configuration is then to be thrown away.
Result<void> applyOverrides(const Options& options, session::SessionConfig& config);

/// The first of the options that were given and concern one ECU alone: how it is reached, its A2L. None: "".
std::string_view optionOfOneEcu(const Options& options);

}  // namespace lm::cli
