// What commands do where the configuration has several ECUs: which of them the command line means, and the
// names ECU/NAME.
//
// Threads: the main thread. Lifetime: nothing is kept.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/command.h"
#include "cli/options.h"
#include "session/session_config.h"
#include "watch/expression.h"

namespace lm::cli {

/// With --ecu the one that it names is the whole document. Errors: that there is none of that name, and that
/// something given is of one ECU while there are several.
Result<void> chooseEcu(const Options& options, session::ConfigDocument& document);

/// That of the ECU, or of several where one of them asks for all digits.
value::NumberStyle numberStyle(const Workplace& place);

/// Why a command that works on one ECU cannot go on.
Error needsOneEcu(const std::string& command, const std::vector<session::SessionConfig>& ecus);

/// Words in the order in which they were typed, each with the ECU that it is of; one whose name or pattern
/// is not known stays without.
struct EcuWord {
    std::size_t ecu = 0;
    std::string text;            ///< without the ECU
    std::string typed;           ///< with it, as it is shown
    std::optional<Error> error;  ///< why it is of no ECU
};
std::vector<EcuWord> ecuWords(const session::NameSearch& names, const session::EcuGroup& group,
                              const std::vector<std::string>& typed);

/// Opens these side by side, each once; of each that could not be opened the error, which has been told.
/// Those of the others are empty.
std::vector<std::optional<Error>> openEcus(Workplace& place, std::vector<std::size_t> ecus);

/// Sharing::start() for the ECU, or for each of several that is open; the others are given up.
void startSharing(Workplace& place, bool readOnly);
void stopSharing(Workplace& place);

/// Those of which something is to be measured: named by these texts, or having signals in the configuration,
/// and named in expressions. All, where nothing tells.
std::vector<std::size_t> ecusToMeasure(const session::EcuGroup& group,
                                       const std::vector<std::string>& signals, bool configured,
                                       const std::vector<const watch::Expression*>& watched);

}  // namespace lm::cli
