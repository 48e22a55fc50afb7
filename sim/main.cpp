// xcplumo-sim: an ECU that is not there, for trying the product and for testing scripts against it.

#include <cerrno>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "help/man_page.h"
#include "sim/a2l_writer.h"
#include "sim/can_medium.h"
#include "sim/event_cycle.h"
#include "sim/faults.h"
#include "sim/runner.h"
#include "sim/serial_medium.h"
#include "sim/udp_medium.h"
#include "sim/variant_options.h"

namespace lm::sim {
namespace {

constexpr const char* kDescription =
    "An ECU that is not there: an XCP slave with an engine-like world behind it, for trying the tool without "
    "hardware and for testing scripts. The first line on standard output tells where it is reached.";

constexpr const char* kFaultHelp =
    "Faults of commands: KIND[:COMMAND[:FROM[:COUNT[:ARGUMENT]]]]\n"
    "  COMMAND  the name of a command, * for any, or DAQ to count samples (terminate, restart, silence,\n"
    "           stall and jump)\n"
    "  FROM     the occurrence it begins with, from 1; COUNT how many, 0 for all that follow\n"
    "  ignore   neither executed nor answered        lose     executed, not answered\n"
    "  late     answered after ARGUMENT ms (300), and so is what is asked meanwhile\n"
    "  overtaken  after ARGUMENT ms, what is asked meanwhile before it; 0: after the next answer\n"
    "  double   answered twice, the second time ARGUMENT ms later (0)\n"
    "  lose-part  packet ARGUMENT (2) of a block of answers is lost; extra-part: it is sent twice\n"
    "  short    answer cut to ARGUMENT bytes (1)     wrong    answer with its bytes inverted\n"
    "  stray    a stray answer before the right one  busy     refused with ERR_CMD_BUSY\n"
    "  error    refused with code ARGUMENT (0x31)    positive answered FF, not executed\n"
    "  pending  EV_CMD_PENDING, answer after ARGUMENT ms (300)\n"
    "  endless  EV_CMD_PENDING every ARGUMENT ms (100), no answer\n"
    "  halt     the whole ECU stands still for ARGUMENT ms (300), then works off what came; a further part\n"
    "           :PAUSE gives the ms between those answers; goes together with another fault\n"
    "  terminate  EV_SESSION_TERMINATED, no answer   restart  the ECU starts anew, no answer\n"
    "  silence  deaf and dumb for ARGUMENT ms (0: for ever)\n"
    "  stall    events wait for ARGUMENT ms (300) and are then caught up\n"
    "  jump     the clock goes on by ARGUMENT ms (negative: back; 0: to 0)\n"
    "Faults of the stream: KIND:EVERY\n"
    "  lose-odt       a DTO is never sent            overload   a whole sample is not sent and indicated\n"
    "  ctr-gap        the packet counter skips one   lose-datagram  a DTO is lost on the way\n"
    "  malformed      the length of a DTO runs past its datagram (serial: a wrong byte,\n"
    "                 CAN: one byte alone)\n"
    "Signals: SIGUSR1 restarts the ECU, SIGUSR2 turns its silence on and off, SIGHUP writes the memory "
    "file,\n"
    "SIGRTMIN pulls the plug of the serial line and puts it in again, SIGINT and SIGTERM end the program;\n"
    "its counters are then printed to standard error.";

struct Arguments {
    Options options;
    VariantOptions variants;
    std::string order = "intel";
    std::string overload = "event";
    std::string sameFirstPid;
    std::vector<std::string> without;
    std::string a2lFile;
    std::string a2lVersion = "1.71";
    std::string modelFile;
    bool noDaq = false;
    const CLI::Option* maxCto = nullptr;
    const CLI::Option* maxDto = nullptr;
};

void addSlaveOptions(CLI::App& app, Arguments& arguments) {
    Options& o = arguments.options;
    app.add_option("--byte-order", arguments.order, "Byte order: intel or motorola")
        ->check(CLI::IsMember({"intel", "motorola"}));
    app.add_option("--granularity", o.granularity, "Bytes of one addressable element")
        ->check(CLI::IsMember({1, 2, 4}));
    arguments.maxCto =
        app.add_option("--max-cto", o.maxCto, "Largest command packet")->check(CLI::Range(8, 255));
    arguments.maxDto =
        app.add_option("--max-dto", o.maxDto, "Largest data packet")->check(CLI::Range(8, 65000));
    app.add_option("--identification", o.identification, "Identification field type of DTOs")
        ->check(CLI::Range(0, 3));
    app.add_option("--timestamp-size", o.timestampSize, "Bytes of a timestamp, 0 for none")
        ->check(CLI::IsMember({0, 1, 2, 4}));
    app.add_option("--tick-unit", o.tickUnit, "One tick is 10^N ns (default 3, 5, 6 for sizes 4, 2, 1)")
        ->check(CLI::Range(0, 9));
    app.add_flag("--timestamp-fixed", o.timestampFixed, "Every DAQ list carries a timestamp");
    app.add_option("--clock-start", o.clockStart, "Ticks that the clock shows at the start");
    app.add_option("--clock-ppm", o.clockPpm, "The ECU's clock runs fast (or slow) by so many millionths")
        ->check(CLI::Range(-100000, 100000));
    app.add_option("--clock-wander", o.clockWander, "The sign of --clock-ppm turns every so many seconds")
        ->check(CLI::Range(0.001, 1e6));
    app.add_option("--min-daq", o.minDaq, "Number of the first dynamic DAQ list")->check(CLI::Range(0, 200));
    app.add_option("--first-pid", o.firstPid, "First PID with identification type 0")
        ->check(CLI::Range(0, 200));
    app.add_option("--daq-entries", o.daqEntries, "DAQ memory in ODT entries");
    app.add_option("--overload", arguments.overload, "Indication of overload: event, pid or none")
        ->check(CLI::IsMember({"event", "pid", "none"}));
    app.add_option("--same-first-pid", arguments.sameFirstPid,
                   "Every DAQ list has --first-pid: told, or sent in its DTOs too")
        ->check(CLI::IsMember({"told", "sent"}));
    app.add_flag("--select-stopped", o.selectStopped, "Refuse to select a running DAQ list");
    app.add_flag("--synch-clears", o.synchClears, "SYNCH sets memory and DAQ pointer to their first places");
    app.add_flag("--no-daq", arguments.noDaq, "Do not offer the DAQ resource");
    app.add_option("--without", arguments.without, "Answer this command with ERR_CMD_UNKNOWN; repeatable")
        ->allow_extra_args(false);
}

void addSerialOptions(CLI::App& app, Arguments& arguments) {
    Options& o = arguments.options;
    app.add_flag("--serial", o.serial, "XCP on a serial line, on a pseudo-terminal, instead of UDP");
    app.add_option("--serial-device", o.serialDevice, "On this device instead of a pseudo-terminal");
    app.add_option("--serial-link", o.serialLink, "Symbolic link to the pseudo-terminal");
    app.add_option("--baud", o.baudrate, "Baud rate of the device and in the A2L file")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--chatter-ms", o.chatterMs, "Milliseconds between lines of diagnostics, 0 for none")
        ->capture_default_str();
    app.add_option("--reset-on-open", o.bootMs, "Opening the line resets the ECU, which boots for so many ms")
        ->check(CLI::Range(0, 60000));
}

void addCanOptions(CLI::App& app, Arguments& arguments) {
    Options& o = arguments.options;
    app.add_option("--can", o.can, "XCP on CAN on this interface, instead of UDP");
    app.add_option("--cmd-id", o.canCmdId, "CAN identifier of commands (0x7E0); bit 31 marks 29-bit ones");
    app.add_option("--res-id", o.canResId, "CAN identifier of answers and DTOs (0x7E1)");
    app.add_option("--daq-id", o.canDaqId, "CAN identifier of DTOs, if of their own");
    app.add_option("--daq-ids", o.canListIds, "CAN identifiers of the DTOs of DAQ list 0, 1, ...; by commas")
        ->delimiter(',')
        ->allow_extra_args(false);
    app.add_flag("--daq-ids-variable", o.canListIdsVariable, "SET_DAQ_ID changes them");
    app.add_flag("--pid-off", o.pidOff,
                 "A list with one ODT and an identifier of its own can leave out the PID");
    app.add_flag("--can-fd", o.canFd, "CAN FD frames with bit-rate switch");
    app.add_flag("--max-dlc-required", o.maxDlcRequired, "Hear and send CAN frames of full length only");
    app.add_option("--fill-byte", o.fillByte, "Fills CAN frames that are longer than their packet")
        ->check(CLI::Range(0, 255));
    app.add_option("--frame-us", o.frameUs, "Least microseconds from one CAN frame to the next")
        ->check(CLI::Range(0, 1000000));
}

void addOtherOptions(CLI::App& app, Arguments& arguments) {
    Options& o = arguments.options;
    app.add_option("--port", o.port, "UDP port, 0 lets the system choose")->capture_default_str();
    app.add_flag("--any-master", o.anyMaster,
                 "Obey and answer whoever sends, not only who sent CONNECT last");
    app.add_option("--fast-event-us", o.fastEventUs, "Cycle of event 0 in microseconds")
        ->check(CLI::Range(10, 255000));
    app.add_option("--load-signals", o.loadSignals, "Further measurements load_0000 ... on event 0")
        ->check(CLI::Range(0, 100000));
    app.add_option("--load-bytes", o.loadBytes, "Their size: 4 (ULONG) or 8 (A_UINT64)")
        ->check(CLI::IsMember({4, 8}));
    app.add_option("--spare-bytes", o.spareBytes,
                   "Writable memory at 0x200000 that nothing uses, random bytes")
        ->check(CLI::Range(0, 1 << 24));
    app.add_option("--fault", o.faults, "Misbehave by this rule, see below; repeatable")
        ->allow_extra_args(false);
    app.add_option("--pack", o.pack, "DTOs put into one datagram")->check(CLI::Range(1, 1000));
    app.add_option("--pad", o.pad, "Zero bytes behind every DTO, within the largest data packet");
    app.add_option("--quit-after", o.quitAfter, "End after so many seconds")->check(CLI::NonNegativeNumber);
    app.add_option("--memory-file", o.memoryFile, "Write the memory image at every change and at the end");
    app.add_option("--write-a2l", arguments.a2lFile, "Write the A2L file for these options and end");
    app.add_option("--a2l-version", arguments.a2lVersion,
                   "Its version: 1.61 has no structures and nothing else that came later")
        ->check(CLI::IsMember({"1.61", "1.71"}))
        ->capture_default_str();
    app.add_option("--write-model", arguments.modelFile, "Write the tables of measurements and end");
}

Result<void> writeText(const std::string& path, const std::string& text) {
    std::FILE* file = std::fopen(path.c_str(), "we");
    if (file == nullptr) return Error::fromErrno(errno, "cannot write " + path);
    const bool whole = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    const int failure = errno;
    if (std::fclose(file) != 0) return Error::fromErrno(errno, "cannot write " + path);
    if (!whole) return Error::fromErrno(failure, "cannot write " + path);
    return {};
}

Result<void> completeCan(Arguments& arguments) {
    Options& o = arguments.options;
    if (o.serial) return Error{ErrorCode::invalidArgument, "--can and --serial exclude each other"};
    std::vector<std::uint32_t> ids = o.canListIds;
    ids.insert(ids.end(), {o.canCmdId, o.canResId, o.canDaqId.value_or(0)});
    for (const std::uint32_t id : ids) {
        if (!isCanId(id)) {
            return Error{ErrorCode::invalidArgument,
                         fmt::format("0x{:X} is no CAN identifier (29-bit ones have bit 31 set)", id)};
        }
    }
    if (o.canListIdsVariable && o.canListIds.empty()) {
        return Error{ErrorCode::invalidArgument,
                     "--daq-ids-variable: needs --daq-ids, what they are at first"};
    }
    if (o.pidOff && (o.identification != 0 || o.canListIds.empty())) {
        return Error{ErrorCode::invalidArgument, "--pid-off: needs --identification 0 and --daq-ids"};
    }
    if (arguments.maxCto->count() == 0) o.maxCto = o.maxDlc();
    if (arguments.maxDto->count() == 0) o.maxDto = o.maxDlc();
    if (o.maxCto > o.maxDlc() || o.maxDto > o.maxDlc()) {
        return Error{ErrorCode::invalidArgument,
                     fmt::format("--max-cto and --max-dto: at most {} here", o.maxDlc())};
    }
    return {};
}

/// What no single option's check can see.
Result<void> complete(Arguments& arguments) {
    Options& o = arguments.options;
    o.daq = !arguments.noDaq;
    o.a2lVersion = arguments.a2lVersion == "1.61" ? 161 : 171;
    o.serial = o.serial || !o.serialDevice.empty() || !o.serialLink.empty();
    o.order = arguments.order == "motorola" ? ByteOrder::bigEndian : ByteOrder::littleEndian;
    o.overload = arguments.overload == "event" ? OverloadIndication::event
                 : arguments.overload == "pid" ? OverloadIndication::topBit
                                               : OverloadIndication::none;
    if (!arguments.sameFirstPid.empty()) {
        o.sameFirstPid = arguments.sameFirstPid == "told" ? SameFirstPid::told : SameFirstPid::sent;
    }
    for (const std::string& name : arguments.without) {
        const std::optional<std::uint8_t> code = commandCode(name);
        if (!code) return Error{ErrorCode::invalidArgument, "--without: unknown command '" + name + "'"};
        o.without.insert(*code);
    }
    if (!o.can.empty()) {
        const Result<void> done = completeCan(arguments);
        if (!done.ok()) return done.error();
    } else if (!o.canListIds.empty() || o.canListIdsVariable || o.pidOff) {
        return Error{ErrorCode::invalidArgument, "--daq-ids, --daq-ids-variable and --pid-off: need --can"};
    }
    const Result<void> varied = arguments.variants.complete(o);
    if (!varied.ok()) return varied.error();
    if (o.maxCto % o.granularity != 0 || o.maxDto % o.granularity != 0) {
        return Error{ErrorCode::invalidArgument, "--max-cto and --max-dto: multiples of the granularity"};
    }
    const EventCycle cycle = eventCycle(o, kEvent1ms);
    std::int64_t ns = cycle.count;
    for (unsigned i = 0; i < cycle.unit; ++i)
        ns *= 10;
    if (ns != eventIntervalNs(o, kEvent1ms, 0)) {
        return Error{ErrorCode::invalidArgument, "--fast-event-us: no more than three digits that are not 0"};
    }
    return {};
}

/// Tells where the ECU is to be reached, and runs it.
Result<void> simulateOn(const Options& options, Ecu& ecu, IMedium& medium, const std::string& place) {
    Runner runner(options, ecu, medium);
    if (std::printf("%s\n", place.c_str()) < 0 || std::fflush(stdout) != 0) {
        return Error::fromErrno(errno, "standard output");
    }
    const Result<void> done = runner.run();
    fmt::print(stderr, "{}", runner.statistics());
    if (!done.ok()) return done.error();
    return {};
}

Result<void> simulate(const Options& options) {
    Result<FaultPlan> faults = FaultPlan::parse(options.faults);
    if (!faults.ok()) return faults.error();
    Ecu ecu(options, std::move(faults).value(), Runner::now());
    if (options.serial) {
        Result<std::unique_ptr<SerialMedium>> medium = SerialMedium::open(options, ecu);
        if (!medium.ok()) return medium.error();
        return simulateOn(options, ecu, *medium.value(), "serial " + medium.value()->path());
    }
    if (!options.can.empty()) {
        Result<std::unique_ptr<CanMedium>> medium = CanMedium::open(options, ecu.faults());
        if (!medium.ok()) return medium.error();
        return simulateOn(options, ecu, *medium.value(), "can " + options.can);
    }
    Result<std::unique_ptr<UdpMedium>> medium = UdpMedium::open(options, ecu.faults());
    if (!medium.ok()) return medium.error();
    return simulateOn(options, ecu, *medium.value(), fmt::format("port {}", medium.value()->port()));
}

Result<void> run(Arguments& arguments) {
    const Result<void> completed = complete(arguments);
    if (!completed.ok()) return completed.error();
    const Options& options = arguments.options;
    if (arguments.a2lFile.empty() && arguments.modelFile.empty()) return simulate(options);
    const Catalog catalog(options);
    if (!arguments.a2lFile.empty()) {
        const Result<void> written = writeText(arguments.a2lFile, a2lText(options, catalog));
        if (!written.ok()) return written.error();
    }
    if (!arguments.modelFile.empty()) return writeText(arguments.modelFile, modelTable(catalog));
    return {};
}

}  // namespace
}  // namespace lm::sim

int main(int argc, char** argv) {
    CLI::App app{"xcplumo-sim - a simulated ECU with XCP on UDP, on CAN or on a serial line"};
    lm::sim::Arguments arguments;
    lm::sim::addOtherOptions(app, arguments);
    lm::sim::addCanOptions(app, arguments);
    lm::sim::addSerialOptions(app, arguments);
    lm::sim::addSlaveOptions(app, arguments);
    arguments.variants.add(app, arguments.options);
    app.footer(lm::sim::kFaultHelp);
    app.set_version_flag("--version", std::string("xcplumo-sim ") + XCPLUMO_VERSION);
    if (argc == 2 && std::string_view(argv[1]) == lm::help::kManOption) {
        const std::string page = lm::help::manPage(
            app, {XCPLUMO_VERSION, lm::sim::kDescription, "FAULTS AND SIGNALS", "xcplumo-cli"});
        return std::fputs(page.c_str(), stdout) < 0 || std::fflush(stdout) != 0 ? 1 : 0;
    }
    CLI11_PARSE(app, argc, argv);
    const lm::Result<void> done = lm::sim::run(arguments);
    if (done.ok()) return 0;
    fmt::print(stderr, "xcplumo-sim: {}\n", done.error().text());
    return 1;
}
