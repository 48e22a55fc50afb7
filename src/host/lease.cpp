#include "host/lease.h"

#include <chrono>
#include <utility>

#include <fmt/format.h>

#include "core/log.h"
#include "core/printable_text.h"
#include "host/protocol.h"
#include "session/change_log.h"
#include "session/master_memory.h"

namespace lm::host {

using xcp::Packet;

std::string Client::text() const {
    return fmt::format("{}, {}, pid {}", user, command, pid);
}

Result<void> Lease::check(const Packet& command, bool readOnly) const {
    const CommandKind kind = kindOf(command);
    const std::string name(xcp::commandName(command.code()));
    if (kind == CommandKind::refused)
        return Error{ErrorCode::permissionDenied,
                     name + " would disturb the program that holds the ECU; --direct goes past it"};
    if (kind == CommandKind::writes && readOnly)
        return Error{ErrorCode::permissionDenied,
                     name + ": the program that holds the ECU was started with --read-only"};
    return {};
}

Lease::Answers Lease::run(const std::vector<Packet>& commands, bool readOnly) {
    constexpr int kMost = 3;
    Answers answers;
    for (const Packet& command : commands) {
        if (auto good = check(command, readOnly); !good) {
            answers.error = good.error();
            return answers;
        }
    }
    xcp::Master& master = session_.master();
    for (int tried = 1;; ++tried) {
        answers.error.reset();
        auto packets = runOnce(commands, tried > 1, answers.error);
        if (!packets) {
            answers.error = packets.error();
            return answers;
        }
        answers.packets = std::move(packets).value();
        if (answers.error && answers.error->code == ErrorCode::timeout) break;
        const auto confirmed = master.confirm();
        if (confirmed && confirmed.value()) break;
        if (!confirmed) answers = {{}, confirmed.error()};
        if (!confirmed) return answers;
        master.beMoreCareful();
        if (tried == kMost || (tried == 1 && !mta_.mta() && !mtaAfter_.mta())) {
            answers = {
                {}, Error{ErrorCode::protocolError, "the ECU's answers do not fit the commands sent to it"}};
            return answers;
        }
    }
    mta_ = mtaAfter_;
    return answers;
}

/// `failure`: why the rest was not done; what came before counts.
Result<std::vector<Packet>> Lease::runOnce(const std::vector<Packet>& commands, bool again,
                                           std::optional<Error>& failure) {
    constexpr auto kLongest = std::chrono::milliseconds(40);
    auto turn = session_.master().turn();
    if (!turn)
        return Error{ErrorCode::notOpen,
                     "the program that holds the ECU has lost it and tries to reach it again"};
    if (turn.value().connectionNumber() != sessionNumber_)
        return Error{ErrorCode::notOpen,
                     "the program that holds the ECU lost it meanwhile, and connected again"};
    mtaAfter_ = mta_;
    const xcp::ConnectInfo slave = turn.value().slave();
    if (again && mta_.mta()) {
        if (auto set = turn.value().perform(xcp::buildSetMta(*mta_.mta(), slave.byteOrder())); !set)
            return set.error();
    }
    std::vector<Packet> answers;
    const auto end = std::chrono::steady_clock::now() + kLongest;
    for (const Packet& command : commands) {
        if (!answers.empty() && std::chrono::steady_clock::now() >= end) break;
        begun_ = begun_ || kindOf(command) == CommandKind::writes;
        auto answer = send(turn.value(), command, mtaAfter_);
        if (!answer && answer.error().detail != Error::kNoDetail && turn.value().refusal().length > 1 &&
            answer.error().detail == turn.value().refusal().bytes[1]) {
            answers.push_back(turn.value().refusal());
            break;
        }
        if (!answer) {
            failure = answer.error();
            break;
        }
        mtaAfter_.take(command, slave);
        answers.push_back(answer.value());
    }
    return answers;
}

Result<Packet> Lease::send(xcp::Connection::Turn& turn, const Packet& command, const MtaTracker& mta) const {
    const xcp::ConnectInfo slave = turn.slave();
    // A slave may lose its pointer on SYNCH.
    const auto point = [&turn, &mta, order = slave.byteOrder()]() -> Result<void> {
        return mta.mta() ? turn.perform(xcp::buildSetMta(*mta.mta(), order)) : Result<void>();
    };
    return turn.transact(command, {timeoutOf(command), leastAnswer(command, slave), point});
}

void Lease::announce(std::vector<session::ObjectBytes> changes) {
    announced_ = std::move(changes);
    begun_ = false;
}

void Lease::settle() {
    announced_.clear();
    begun_ = false;
}

void Lease::finishWrite() {
    if (!begun_ || announced_.empty()) return settle();
    log::warn("{} ended within a write, which is finished here", printableText(client_.text()));
    session::MasterMemory memory(
        session_.master(), {.wholeUnits = true, .modifiesBits = session_.objectMemory().modifiesBits()});
    session::ChangeLog changes(session_.ecuName(),
                               client_.command + ", finished by the program that holds the ECU",
                               [this](std::string_view object, const std::string& before,
                                      const std::string& after, const std::string& by) {
                                   session_.noteParameter({0, std::string(object), before, after, by});
                               });
    const auto finishing = memory.finishing();
    for (session::ObjectBytes& change : announced_) {
        const auto done = session::writeAgain(memory, change);
        if (!done) {
            changes.addUnknown(change);
            log::error("{}: what the ECU now holds is not known: {}", printableText(change.name),
                       done.error().text());
            continue;
        }
        changes.add(change, false);
        log::warn("{}: written and read back", printableText(change.name));
        session_.noteWrites({std::move(change)});
    }
    changes.flush();
    settle();
}

}  // namespace lm::host
