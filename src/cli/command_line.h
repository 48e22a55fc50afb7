// From the arguments of the program to its options and the command that is to run.
//
// Threads: the main thread. Lifetime: the result owns its command; its row is the table's.
#pragma once

#include <memory>
#include <string>
#include <variant>

#include "cli/command.h"
#include "cli/options.h"

namespace lm::cli {

struct CommandLine {
    Options options;
    const CommandRow* row = nullptr;
    std::string name;  ///< "recording info"
    std::unique_ptr<ICommand> command;
    Form form = Form::text;
};

/// "1.2.3"
const char* programVersion();

/// The help of the program as a whole.
std::string helpText();

/// Also the exit code, when help, the version, the manual page or a parse error has been printed instead.
std::variant<CommandLine, int> parseCommandLine(int argc, const char* const* argv);

}  // namespace lm::cli
