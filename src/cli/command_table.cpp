#include "cli/command_table.h"

#include "cli/command_console.h"
#include "cli/command_export.h"
#include "cli/command_info.h"
#include "cli/command_list.h"
#include "cli/command_measure.h"
#include "cli/command_recording.h"
#include "cli/command_save_config.h"
#include "cli/command_values.h"
#include "cli/stop_signal.h"

namespace lm::cli {
namespace {

class ConnectCommand final : public ICommand {
  public:
    int run(Workplace& /*place*/) override { return stopRequested() ? 1 : 0; }
};

constexpr CommandRow kRecordingActions[] = {
    {"info", "Outages, groups, signals, counts, rates, gaps, least and greatest values", "", Needs::nothing,
     Form::json, make<RecordingInfoCommand>},
    {"check", "Compare all files with each other; exit code 1 when something is wrong", "", Needs::nothing,
     Form::json, make<RecordingCheckCommand>},
    {"repair", "After a crash: cut a torn record, rebuild time index and summaries", "", Needs::nothing,
     Form::text, make<RecordingRepairCommand>},
    {"show", "Plot signals in the terminal", "", Needs::nothing, Form::text, make<RecordingShowCommand>},
};

constexpr CommandRow kCommands[] = {
    {"info", "Connect and show ECU and DAQ information", "", Needs::connection, Form::json,
     make<InfoCommand>},
    {"list", "Search measurements/parameters in the A2L (no connection)", "", Needs::configuration,
     Form::json, make<ListCommand>},
    {"get", "Read values by name", "", Needs::connection, Form::json, make<GetCommand>},
    {"set", "Write parameters: NAME=VALUE (number or verbal text)", "", Needs::connection, Form::json,
     make<SetCommand>},
    {"measure", "DAQ measurement with optional recording", "", Needs::connection, Form::jsonLines,
     make<MeasureCommand>},
    {"console", "Serial line: show the text output of the ECU, send lines from stdin", "", Needs::session,
     Form::text, make<ConsoleCommand>},
    {"save-config", "Write the effective configuration to a file", "", Needs::configuration, Form::text,
     make<SaveConfigCommand>},
    {"recording", "Look at, check or repair a recording (no connection)", "", Needs::nothing, Form::text,
     nullptr, kRecordingActions},
    {"export", "Convert a recording to MDF 4.1 or CSV (no connection)", "", Needs::nothing, Form::json,
     make<ExportCommand>},
};

constexpr CommandRow kNoCommand{"", "", "", Needs::connection, Form::text, make<ConnectCommand>};

}  // namespace

std::span<const CommandRow> commandTable() {
    return kCommands;
}

const CommandRow& noCommand() {
    return kNoCommand;
}

}  // namespace lm::cli
