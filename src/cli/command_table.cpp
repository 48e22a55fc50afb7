#include "cli/command_table.h"

#include "cli/command_apply.h"
#include "cli/command_check.h"
#include "cli/command_console.h"
#include "cli/command_describe.h"
#include "cli/command_diff.h"
#include "cli/command_export.h"
#include "cli/command_info.h"
#include "cli/command_list.h"
#include "cli/command_measure.h"
#include "cli/command_page.h"
#include "cli/command_recording.h"
#include "cli/command_save_config.h"
#include "cli/command_serve.h"
#include "cli/command_snapshot.h"
#include "cli/command_unlock.h"
#include "cli/command_values.h"
#include "cli/command_view.h"
#include "cli/command_wait.h"
#include "cli/stop_signal.h"

namespace lm::cli {
namespace {

class ConnectCommand final : public ICommand {
  public:
    SharingRole sharing() const override { return SharingRole::attaches; }
    int run(Workplace& /*place*/) override { return stopRequested() ? 1 : 0; }
};

constexpr CommandRow kRecordingActions[] = {
    {"info", "Outages, groups, signals, counts, rates, gaps, least and greatest values",
     R"(  xcplumo-cli recording info first
  xcplumo-cli recording info first --json)",
     Needs::nothing, Form::json, make<RecordingInfoCommand>},
    {"check", "Compare all files with each other; exit code 1 when something is wrong",
     R"(  xcplumo-cli recording check first
  xcplumo-cli recording check first --json)",
     Needs::nothing, Form::json, make<RecordingCheckCommand>},
    {"repair", "After a crash: cut a torn record, rebuild time index and summaries",
     R"(  xcplumo-cli recording check first
  xcplumo-cli recording repair first)",
     Needs::nothing, Form::text, make<RecordingRepairCommand>},
    {"show", "Plot signals in the terminal",
     R"(  xcplumo-cli recording show first -s engine_speed
  xcplumo-cli recording show first -s "engine_*" wave --from 2 --to 4)",
     Needs::nothing, Form::text, make<RecordingShowCommand>},
};

constexpr CommandRow kPageActions[] = {
    {"set", "Put the ECU, XCP or both on a page; read back",
     R"(  xcplumo-cli -c demo.json page set 1
  xcplumo-cli -c demo.json page set 0 --xcp
  xcplumo-cli -c demo.json page set 1 --segment 0 --yes)",
     Needs::connection, Form::json, make<PageSetCommand>},
    {"copy", "Copy one page to another of the same segment; compared afterwards",
     R"(  xcplumo-cli -c demo.json page copy 0 1)", Needs::connection, Form::json, make<PageCopyCommand>},
    {"store", "Let the ECU keep what XCP's pages hold; compared afterwards",
     R"(  xcplumo-cli -c demo.json page store
  xcplumo-cli -c demo.json page store --segment 0 --yes)",
     Needs::connection, Form::json, make<PageStoreCommand>},
};

constexpr CommandRow kCommands[] = {
    {"info", "Connect and show ECU and DAQ information",
     R"(  xcplumo-cli -c demo.json info
  xcplumo-cli --a2l demo.a2l --udp 127.0.0.1:5555 info
  xcplumo-cli --udp 192.168.0.7:5555 info
  xcplumo-cli --a2l ecu.a2l -i can0 -b 500000 info --json
  xcplumo-cli --a2l ecu.a2l info --offline)",
     Needs::connection, Form::json, make<InfoCommand>},
    {"list", "Search measurements/parameters in the A2L (no connection)",
     R"(  xcplumo-cli -c demo.json list
  xcplumo-cli --a2l demo.a2l list speed
  xcplumo-cli --a2l demo.a2l list -p cal_
  xcplumo-cli --a2l demo.a2l list -l "cal_*_limit"
  xcplumo-cli --a2l demo.a2l list -d injector
  xcplumo-cli --a2l demo.a2l list "engine.cyl[1].*"
  xcplumo-cli --a2l demo.a2l list --group Tables
A pattern with * or ? is the whole name.)",
     Needs::configuration, Form::json, make<ListCommand>},
    {"get", "Read values by name",
     R"(  xcplumo-cli -c demo.json get engine_speed
  xcplumo-cli -c demo.json get engine_speed gear cal_gain --exact
  xcplumo-cli -c demo.json get engine_speed --json
  xcplumo-cli -c demo.json get cal_ignition_map "cal_ignition_map[2][3]" "engine.*"
  xcplumo-cli -c demo.json get --group Tables
  xcplumo-cli -c two_ecus.json get engine/engine_speed "*/cal_gain"
  xcplumo-cli -c demo.json get cal_ignition_map cal_torque_curve --plot
  xcplumo-cli --a2l demo.a2l get --hex data.s19 "cal_*")",
     Needs::connection, Form::json, make<GetCommand>},
    {"set", "Write parameters: NAME=VALUE (number or verbal text)",
     R"(  xcplumo-cli -c demo.json set cal_gain=1.5
  xcplumo-cli -c demo.json set cal_idle_speed=0x3B6 "cal_injector=test mode"
  xcplumo-cli -c demo.json set -m throttle=20
  xcplumo-cli -c demo.json set "cal_ignition_map[2][3]=12" "cal_torque_curve.x[1]=12"
  xcplumo-cli -c demo.json set "cal_gains=[1,2,3,4,5,6]" "cal_offsets[*]=0" cal_vin=WDB123
  xcplumo-cli -c demo.json set cal_ignition_map=@map.csv
  xcplumo-cli -c demo.json set "cal_gain*=1.05" "cal_offsets[*]+=2"
  xcplumo-cli --a2l demo.a2l set --hex data.s19 -o new.s19 cal_gain=1.5
With a list or a file the order is that of docs/values.md: a line of a CSV file holds all of X.)",
     Needs::connection, Form::json, make<SetCommand>},
    {"measure", "DAQ measurement with optional recording",
     R"(  xcplumo-cli -c demo.json measure
  xcplumo-cli -c demo.json measure -s engine_speed@1 -s wave@0 -t 10 -r first
  xcplumo-cli -c demo.json measure -s "engine.cyl[2].*" -s "cal_gains[1]" --event auto
  xcplumo-cli -c demo.json measure --event auto -s "counter_*" -s engine_speed@cyclic_10ms
  xcplumo-cli -c demo.json measure --table
  xcplumo-cli -c two_ecus.json measure -s engine/wave@0 "gearbox/counter_*" -r both
  xcplumo-cli -c demo.json --reconnect retry measure -p 0 -r first --fail-on losses,outage
  xcplumo-cli -c demo.json measure -t 60 -p 0 --assert 'coolant_temp<110' --report result.xml
  xcplumo-cli -c demo.json measure -p 0 -r takes --start-when 'engine_speed>1200' --pre 5s --post 2s --repeat 3
  xcplumo-cli -c demo.json measure -p 0 -r night --split 1h,2GB --keep 14d --export mf4 --log-every 1min
NAME@EVENT/8 takes every eighth sample. With --json -p is 1 when it is not given.)",
     Needs::connection, Form::jsonLines, make<MeasureCommand>},
    {"console", "Serial line: show the text output of the ECU, send lines from stdin",
     R"(  xcplumo-cli --a2l ecu.a2l --serial /dev/ttyACM0:115200 console
  xcplumo-cli --a2l ecu.a2l --serial /dev/ttyACM0 --reset-delay 0 console -t 10)",
     Needs::session, Form::text, make<ConsoleCommand>},
    {"save-config", "Write the effective configuration to a file",
     R"(  xcplumo-cli --a2l demo.a2l --udp 127.0.0.1 save-config demo.json
  xcplumo-cli -c demo.json --reconnect retry save-config other.json)",
     Needs::configuration, Form::text, make<SaveConfigCommand>},
    {"wait", "Wait until a condition over signals holds",
     R"(  xcplumo-cli -c demo.json wait 'engine_speed>700'
  xcplumo-cli -c demo.json wait 'engine_speed>700 && status_gear==neutral' --for 2s --timeout 30s
  xcplumo-cli -c demo.json wait 'coolant_temp>90' --timeout 10min --report warm.xml
Exit code 0: it held, 3: not within the timeout, 4: no one answered, 1: any other error.)",
     Needs::connection, Form::json, make<WaitCommand>},
    {"serve", "Hold the ECU and offer it over HTTP: values, measurement, recordings, streams",
     R"(  xcplumo-cli -c demo.json serve
  xcplumo-cli -c demo.json serve --recordings recordings
  xcplumo-cli -c demo.json serve --listen 192.168.0.5:8080 --allow-writes
Any address but 127.0.0.1 is read-only without --allow-writes. The printed address holds the token.)",
     Needs::session, Form::text, make<ServeCommand>},
    {"view", "Show recordings in the browser (no connection)",
     R"(  xcplumo-cli view first
  xcplumo-cli view recordings more/second
It serves them on 127.0.0.1 until Ctrl-C. The printed address holds the token.)",
     Needs::nothing, Form::text, make<ViewCommand>},
    {"snapshot", "Keep the values of all parameters in a file",
     R"(  xcplumo-cli -c demo.json snapshot before.json
  xcplumo-cli -c demo.json snapshot maps.json "cal_*_map" --group Tables
  xcplumo-cli -c demo.json snapshot before.json --force
  xcplumo-cli --a2l ecu.a2l snapshot released.json --hex released.hex)",
     Needs::connection, Form::text, make<SnapshotCommand>},
    {"diff", "Compare parameter files with each other or with the ECU",
     R"(  xcplumo-cli diff before.json after.json
  xcplumo-cli -c demo.json diff before.json ecu
  xcplumo-cli --a2l ecu.a2l diff old.hex new.s19
  xcplumo-cli -c demo.json diff golden.json ecu "cal_*" --json
  xcplumo-cli -c demo.json diff released.json ecu --complete
Beside a file, what it names is compared; --complete compares all that the ECU has.
Exit code 0: no difference, 3: differences (another EPK is one), 4: no ECU answered, 1: any other error.)",
     Needs::connection, Form::json, make<DiffCommand>},
    {"apply", "Write what a parameter file says and the ECU does not hold, or take that back",
     R"(  xcplumo-cli -c demo.json apply before.json --dry-run
  xcplumo-cli -c demo.json apply before.json
  xcplumo-cli -c demo.json apply maps.cdfx "cal_*_map" --group Tables
  xcplumo-cli -c ecu.json apply before.json --page 1 --yes
  xcplumo-cli -c demo.json apply --undo last
  xcplumo-cli --a2l demo.a2l apply --hex data.s19 -o new.s19 before.json
Exit code 0: as wanted, 4: no ECU answered, 1: any other error; then nothing is changed, but with --keep-going.)",
     Needs::connection, Form::json, make<ApplyCommand>},
    {"unlock", "Try seed & key: unlock the ECU and say what opened",
     R"(  xcplumo-cli -c locked.json unlock
  xcplumo-cli -c locked.json unlock daq --json
The ECU locks everything again when the command ends; other commands unlock what they need.)",
     Needs::connection, Form::json, make<UnlockCommand>},
    {"check", "Compare ECU and A2L: software, communication, DAQ, segments, checksums",
     R"(  xcplumo-cli -c demo.json check
  xcplumo-cli -c demo.json check --save before.sums
  xcplumo-cli -c demo.json check --against before.sums --json
  xcplumo-cli -c demo.json check --hex released.hex
Exit code 0: as wanted, 3: something differs, 4: no one answered, 1: any other error.)",
     Needs::connection, Form::json, make<CheckCommand>},
    {"page", "Calibration pages: show, switch, copy, store them",
     R"(  xcplumo-cli -c demo.json page
  xcplumo-cli -c demo.json page set 1
  xcplumo-cli -c demo.json page copy 0 1 --segment 0
  xcplumo-cli -c demo.json page store --yes)",
     Needs::connection, Form::json, make<PageCommand>, kPageActions},
    {"describe", "All that the A2L says about one object (no connection)",
     R"(  xcplumo-cli --a2l demo.a2l describe engine_speed
  xcplumo-cli --a2l demo.a2l describe "engine.cyl[1].temp"
  xcplumo-cli -c demo.json describe cal_curve --json)",
     Needs::configuration, Form::json, make<DescribeCommand>},
    {"recording", "Look at, check or repair a recording (no connection)",
     R"(  xcplumo-cli recording info first
  xcplumo-cli recording show first -s engine_speed)",
     Needs::nothing, Form::text, nullptr, kRecordingActions},
    {"export", "Convert a recording to MDF 4.1 or CSV (no connection)",
     R"(  xcplumo-cli export first -o first.mf4
  xcplumo-cli export first -o first.csv --merge -s "engine_*" --from 2 --to 4
  xcplumo-cli export first -o first.csv --every 10 --raw --force
  xcplumo-cli export first -o - -s engine_speed | head)",
     Needs::nothing, Form::json, make<ExportCommand>},
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
