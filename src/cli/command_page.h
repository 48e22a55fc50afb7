// The subcommands `page`, `page set`, `page copy` and `page store`: calibration pages.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <cstdint>
#include <optional>

#include "cli/command.h"

namespace lm::cli {

/// Shows segments and pages.
class PageCommand : public ICommand {
  public:
    SharingRole sharing() const override { return SharingRole::attaches; }
    session::SessionOptions sessionOptions() const override {
        return {.otherSoftware = session::OtherSoftware::warned};
    }
    int run(Workplace& place) override;
};

/// What the commands that change something have in common: no other software than the A2L's, a question, and
/// the pages as they are afterwards.
class PageChange : public ICommand {
  public:
    SharingRole sharing() const override { return SharingRole::attaches; }
    int run(Workplace& place) final;

  protected:
    /// --segment and --yes.
    void addCommon(OptionSet& options);
    /// The segments that the command is about. Error: notFound when there is none of the number given.
    Result<std::vector<std::uint8_t>> chosen(const session::PageOverview& overview) const;
    const std::optional<std::uint32_t>& segment() const { return segment_; }
    bool isSure() const { return yes_; }

    /// What is to be asked before; empty: nothing.
    virtual Result<std::string> question(session::Session& session,
                                         const session::PageOverview& overview) const = 0;
    virtual Result<void> change(session::Session& session, const session::PageOverview& overview) const = 0;

  private:
    std::optional<std::uint32_t> segment_;
    bool yes_ = false;
};

class PageSetCommand final : public PageChange {
  public:
    void addOptions(OptionSet& options) override;
    Result<void> prepare(Form form) override;

  private:
    Result<std::string> question(session::Session& session,
                                 const session::PageOverview& overview) const override;
    Result<void> change(session::Session& session, const session::PageOverview& overview) const override;
    xcp::PageUser user() const;

    std::uint32_t page_ = 0;
    bool ecu_ = false;
    bool xcp_ = false;
};

class PageCopyCommand final : public PageChange {
  public:
    void addOptions(OptionSet& options) override;
    Result<void> prepare(Form form) override;

  private:
    Result<std::string> question(session::Session& session,
                                 const session::PageOverview& overview) const override;
    Result<void> change(session::Session& session, const session::PageOverview& overview) const override;

    std::uint32_t from_ = 0;
    std::uint32_t to_ = 0;
};

class PageStoreCommand final : public PageChange {
  public:
    void addOptions(OptionSet& options) override;

  private:
    Result<std::string> question(session::Session& session,
                                 const session::PageOverview& overview) const override;
    Result<void> change(session::Session& session, const session::PageOverview& overview) const override;
};

}  // namespace lm::cli
