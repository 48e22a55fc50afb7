// The command line: the table of options and subcommands, and how options overrule the configuration.
//
// Threads: pure functions (parseOptions prints help and parse errors). Lifetime: results own their texts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/result.h"
#include "exporter/export_plan.h"
#include "session/session_config.h"

namespace lm::cli {

enum class Command : std::uint8_t {
    none,
    info,
    list,
    get,
    set,
    measure,
    console,
    saveConfig,
    recording,
    exportRecording
};

/// The subcommands of `recording`.
enum class RecordingAction : std::uint8_t { info, check, repair, show };

/// What stood behind `recording`.
struct RecordingOptions {
    RecordingAction action = RecordingAction::info;
    std::string directory;
    std::vector<std::string> signals;  ///< show: patterns
    std::optional<std::string> from;   ///< show
    std::optional<std::string> to;     ///< show
};

/// What stood behind `export`.
struct ExportRequest {
    std::string directory;
    exporter::ExportOptions options;    ///< without what the two below say
    std::optional<std::string> format;  ///< none: as the output's name ends
    bool noCompress = false;
};

/// What stood on the command line; an option that was not given is absent.
struct Options {
    Command command = Command::none;

    std::optional<std::string> configFile;
    std::optional<std::string> a2l;
    std::optional<std::string> interface;
    std::optional<std::string> udp;
    std::optional<std::string> serial;
    std::int32_t resetDelayMs = -1;  ///< below 0: not given
    std::optional<std::string> cmdId;
    std::optional<std::string> resId;
    std::uint32_t bitrate = 0;  ///< 0: not given
    bool noShortUpload = false;
    std::optional<std::string> reconnect;
    bool verbose = false;

    std::string pattern;                   ///< list
    bool onlyParameters = false;           ///< list
    bool onlyMeasurements = false;         ///< list
    std::vector<std::string> names;        ///< get
    std::vector<std::string> assignments;  ///< set
    bool allowMeasurements = false;        ///< set
    bool exact = false;                    ///< get, set, measure, recording info
    std::vector<std::string> signals;      ///< measure
    std::string recordDirectory;           ///< measure
    std::uint32_t printEvery = 100;        ///< measure
    std::vector<std::string> failOn;       ///< measure: of "losses", "outage", "empty"
    double durationSeconds = 0;            ///< measure, console
    std::string outputFile;                ///< save-config
    RecordingOptions recording;            ///< recording
    ExportRequest exportRequest;           ///< export
};

/// The options, or the exit code when help, the version or a parse error has been printed instead.
std::variant<Options, int> parseOptions(int argc, const char* const* argv);

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

}  // namespace lm::cli
