// Several ECUs, each a session of its own, under names: who asks for ECU/NAME gets to the right one. They are
// opened, asked and closed side by side, so that a silent one delays no other.
//
// Threads: one thread at a time; while it waits for work that is done side by side, each session belongs to
// the thread of its work. Lifetime: owns the sessions; the pool's adapter must outlive it.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "core/stop_token.h"
#include "session/channel_pool.h"
#include "session/session.h"
#include "session/session_config.h"

namespace lm::session {

/// Gives the ECUs of a configuration that have no name that of their A2L's module. Errors: those of
/// a2l::load, that a name is none for an ECU or that of two, noA2lConfigured().
Result<void> nameEcus(std::vector<SessionConfig>& ecus, const StopToken& stop);

/// What stands behind ECU/, or the whole text; an ECU's name may have * and ? for several. A slash behind
/// something else is part of the rest: NAME@EVENT/PRESCALER.
struct EcuText {
    std::vector<std::size_t> ecus;  ///< none: the text names no ECU
    std::string_view rest;
};
EcuText splitEcu(std::string_view text, const std::vector<std::string>& names);

/// What a name without ECU could be in one of several.
class NameSearch {
  public:
    struct Ecu {
        std::string name;
        const a2l::Description* description;
    };
    explicit NameSearch(std::vector<Ecu> ecus);

    struct Found {
        std::size_t ecu = 0;
        std::string text;
    };
    /// NAME, NAME@EVENT/PRESCALER or a pattern, with or without ECU. A name without one is that of the only
    /// ECU that has it, a pattern without one is of all that have a match. Errors (notFound): that no ECU has
    /// it; (invalidArgument): that several have it.
    Result<std::vector<Found>> find(std::string_view text) const;

  private:
    Error unknown(std::string_view text, std::string_view name) const;

    std::vector<Ecu> ecus_;
    std::vector<std::string> names_;
};

class EcuGroup {
  public:
    /// Loads each A2L and chooses each transport; nothing is sent. Errors: those of Session::create, behind
    /// the name of the ECU; alreadyOpen, that two are the same place.
    static Result<std::unique_ptr<EcuGroup>> create(std::vector<SessionConfig> configs, ChannelPool& pool,
                                                    const StopToken& stop, const SessionOptions& options);

    std::size_t count() const { return ecus_.size(); }
    Session& at(std::size_t ecu) const { return *ecus_[ecu].session; }
    const std::string& name(std::size_t ecu) const { return ecus_[ecu].name; }
    std::vector<std::size_t> all() const;
    NameSearch names() const;

    /// Calls `work` for each of them, each in a thread of its own whose log lines tell the ECU, and returns
    /// when all are done.
    void sideBySide(const std::vector<std::size_t>& ecus, const std::function<void(std::size_t)>& work) const;
    /// The same of work that may fail: the results in the order of `ecus`, errors behind the ECU's name.
    std::vector<Result<void>> tryEach(const std::vector<std::size_t>& ecus,
                                      const std::function<Result<void>(Session&)>& work) const;
    /// Session::close() of all; the first error.
    Result<void> close() const;

  private:
    struct Ecu {
        std::string name;
        std::unique_ptr<Session> session;
    };
    explicit EcuGroup(std::vector<Ecu> ecus) : ecus_(std::move(ecus)) {}

    const std::vector<Ecu> ecus_;
};

/// "NAME: MESSAGE".
Error ofEcu(const std::string& name, Error error);
/// "engine, gearbox".
std::string joinedNames(const std::vector<std::string>& names);

}  // namespace lm::session
