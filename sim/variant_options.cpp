#include "sim/variant_options.h"

#include <algorithm>

#include <CLI/CLI.hpp>

#include "sim/protocol.h"

namespace lm::sim {
namespace {

bool holds(const std::vector<std::string>& words, const char* word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

}  // namespace

void VariantOptions::add(CLI::App& app, Options& options) {
    addLock(app, options);
}

void VariantOptions::addLock(CLI::App& app, Options& options) {
    constexpr const char* kGroup = "Seed & key";
    const auto words = [&](const char* name, std::vector<std::string>& to, const char* help,
                           const std::vector<std::string>& known) {
        return app.add_option(name, to, help)
            ->delimiter(',')
            ->allow_extra_args(false)
            ->check(CLI::IsMember(known))
            ->group(kGroup);
    };
    CLI::Option* lock = words("--lock", lock_, "Locked after every CONNECT: cal, daq, stim, pgm; by commas",
                              {"cal", "daq", "stim", "pgm"});
    app.add_option("--seed-bytes", options.lock.seedBytes, "Bytes of a seed, random for each request (4)")
        ->check(CLI::Range(1, 255))
        ->needs(lock)
        ->group(kGroup);
    app.add_option("--key-bytes", options.lock.keyBytes, "Bytes of a key (as the seed)")
        ->check(CLI::Range(1, 255))
        ->needs(lock)
        ->group(kGroup);
    words(
        "--lock-quirks", lockQuirks_,
        "once: a grant serves one command; reads: UPLOADs belong to cal; queries: those about DAQ belong to "
        "daq; silent: GET_STATUS tells that nothing is locked",
        {"once", "reads", "queries", "silent"})
        ->needs(lock);
}

Result<void> VariantOptions::complete(Options& options) {
    LockOptions& lock = options.lock;
    lock.resources = static_cast<std::uint8_t>(
        (holds(lock_, "cal") ? kCalibration : 0) | (holds(lock_, "daq") ? kDaq : 0) |
        (holds(lock_, "stim") ? kStim : 0) | (holds(lock_, "pgm") ? kPgm : 0));
    lock.grantsOnce = holds(lockQuirks_, "once");
    lock.locksReads = holds(lockQuirks_, "reads");
    lock.locksQueries = holds(lockQuirks_, "queries");
    lock.statusIsSilent = holds(lockQuirks_, "silent");
    return {};
}

}  // namespace lm::sim
