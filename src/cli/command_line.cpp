#include "cli/command_line.h"

#include <iostream>
#include <sstream>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include "cli/command_table.h"
#include "cli/output.h"
#include "help/man_page.h"

namespace lm::cli {
namespace {

constexpr const char* kDescription =
    "Measures and calibrates ECUs over XCP on CAN, UDP or a serial line, by the names of an A2L file. Each "
    "option may also stand after the command. What no option says comes from the configuration (-c).";

constexpr const char* kExamples = R"(  xcplumo-cli --a2l demo.a2l list speed
  xcplumo-cli --a2l demo.a2l --udp 127.0.0.1:5555 info
  xcplumo-cli --a2l ecu.a2l -i can0 -b 500000 info
  xcplumo-cli -c demo.json get engine_speed cal_gain
  xcplumo-cli -c demo.json set cal_gain=1.5 "cal_injector=test mode"
  xcplumo-cli -c demo.json measure -s engine_speed@1 -s wave@0 -t 10 -r recording
  xcplumo-cli --a2l demo.a2l --serial /dev/ttyACM0:115200 console
  xcplumo-cli -c demo.json --udp [fe80::1%eth0]:5555 save-config other.json
  xcplumo-cli recording info recording
  xcplumo-cli recording show recording -s engine_speed --from 2 --to 4
  xcplumo-cli export recording -o engine.mf4
  xcplumo-cli export recording -o engine.csv --merge -s "engine_*" --from 2 --to 4)";

/// A command of the table while it is not known which one is wanted.
struct Candidate {
    const CommandRow& row;
    std::string name;
    std::unique_ptr<ICommand> command;
    bool json = false;
    bool chosen = false;
};
using Candidates = std::vector<std::unique_ptr<Candidate>>;  // the parser refers to each

void addCommands(CLI::App& app, std::span<const CommandRow> rows, const std::string& before,
                 Candidates& candidates) {
    for (const CommandRow& row : rows) {
        CLI::App* sub = app.add_subcommand(row.name, row.help);
        sub->footer(std::string("Examples:\n") + row.examples);
        if (row.make == nullptr) {
            sub->require_subcommand(1);
            addCommands(*sub, row.actions, before + row.name + " ", candidates);
            continue;
        }
        if (!row.actions.empty()) sub->require_subcommand(0, 1);
        candidates.push_back(std::make_unique<Candidate>(Candidate{row, before + row.name, row.make()}));
        Candidate& candidate = *candidates.back();
        sub->callback([&candidate] { candidate.chosen = true; });
        OptionSet options(*sub);
        candidate.command->addOptions(options);
        if (row.json != Form::text) options.addFlag("--json", candidate.json, "Print JSON (docs/json.md)");
        // Behind the command itself, of which the last that was chosen counts.
        addCommands(*sub, row.actions, before + row.name + " ", candidates);
    }
}

int print(const std::string& text, int exitCode) {
    Output output(STDOUT_FILENO);
    output.append(text);
    return output.finish(exitCode);
}

/// The parser and what it sets.
struct Parser {
    Options options;
    Candidates candidates;
    CLI::App app{"xcplumo-cli - XCP on CAN measurement and calibration", "xcplumo-cli"};

    Parser() {
        app.fallthrough();
        app.require_subcommand(0, 1);
        OptionSet set(app);
        addProgramOptions(set, options);
        app.set_version_flag("--version", std::string("xcplumo-cli ") + XCPLUMO_VERSION);
        addCommands(app, commandTable(), "", candidates);
        app.footer(std::string("Examples:\n") + kExamples);  // after the subcommands, which would inherit it
    }
};

}  // namespace

const char* programVersion() {
    return XCPLUMO_VERSION;
}

std::string helpText() {
    return Parser().app.help();
}

std::variant<CommandLine, int> parseCommandLine(int argc, const char* const* argv) {
    Parser parser;
    if (argc == 2 && std::string_view(argv[1]) == help::kManOption) {
        return print(help::manPage(parser.app, {XCPLUMO_VERSION, kDescription, "EXAMPLES", "xcplumo-sim"}),
                     0);
    }
    try {
        parser.app.parse(argc, argv);
    } catch (const CLI::ParseError& what) {
        std::ostringstream text;
        const int exitCode = parser.app.exit(what, text, std::cerr);
        return print(text.str(), exitCode);
    }
    CommandLine line;
    for (const auto& candidate : parser.candidates) {
        if (!candidate->chosen) continue;
        line.row = &candidate->row;
        line.name = candidate->name;
        line.command = std::move(candidate->command);
        line.form = candidate->json ? candidate->row.json : Form::text;
    }
    if (!line.command) {
        line.row = &noCommand();
        line.command = line.row->make();
    }
    line.options = std::move(parser.options);
    return line;
}

}  // namespace lm::cli
