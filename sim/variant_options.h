// The options that make the simulated ECU differ from the plain one as ECUs in the field do.
//
// Threads: one thread at a time. Lifetime: the parser and the options must live until complete() has
// returned.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "core/result.h"
#include "sim/options.h"
#include "sim/static_lists.h"

namespace CLI {
class App;
}

namespace lm::sim {

class VariantOptions {
  public:
    void add(CLI::App& app, Options& options);
    /// Turns what was typed into options, once all else is known. Errors: invalidArgument with the option.
    Result<void> complete(Options& options);

  private:
    void addLock(CLI::App& app, Options& options);
    void addStaticLists(CLI::App& app, Options& options);
    void addBlocks(CLI::App& app, BlockOptions& blocks);
    void addOddities(CLI::App& app);
    void addPages(CLI::App& app, Options& options);
    void completeLock(LockOptions& lock) const;
    Result<void> completePages(PageOptions& paging, std::uint8_t granularity) const;
    Result<void> completeStaticLists(Options& options);
    Result<void> completeOffer(std::set<std::uint8_t>& offer) const;
    Result<void> completeTales(Tales& tales) const;

    std::vector<std::string> lock_;
    std::vector<std::string> lockQuirks_;
    std::vector<std::string> pageFaults_;
    std::string checksum_ = "crc-32";
    bool staticDaq_ = false;
    StaticListTexts staticLists_;
    std::vector<std::string> tells_;
    std::vector<std::string> offer_;
};

}  // namespace lm::sim
