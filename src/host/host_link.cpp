#include "host/host_link.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

#include "core/printable_text.h"

namespace lm::host {
namespace {

using Json = nlohmann::json;
using std::chrono::milliseconds;

constexpr milliseconds kAnswerLimit{5'000};
/// As long as the host may try for one command: its timeouts are its own.
constexpr milliseconds kCommandLimit{120'000};

/// A host has its lock some time before it listens.
Result<http::Client> connectPatiently(const FoundHost& found, const StopToken& stop) {
    constexpr milliseconds kPause{20};
    constexpr int kTries = 100;
    for (int tried = 1;; ++tried) {
        auto client = http::Client::connect(found.socket);
        if (client) return client;
        const bool comes = client.error().sysErrno == ENOENT || client.error().sysErrno == ECONNREFUSED;
        if (comes && tried < kTries && !stop.waitFor(kPause)) continue;
        Error error{ErrorCode::notOpen, fmt::format("{} is held by {}, which does not let others in",
                                                    found.holder.place, found.holder.text())};
        error.hint =
            client.error().text() + "; --direct goes past that program, which may end its measurement";
        return error;
    }
}

}  // namespace

std::string HostFacts::text() const {
    return holder.text() + (recording.empty() ? "" : ", recording to " + recording);
}

/// The digest of the A2L is made when the host asks for it.
Result<Json> HostLink::introduce(http::Client& client, A2lFile a2l, const std::string& command,
                                 const StopToken& stop) {
    for (;;) {
        Json body = a2lJson(a2l);
        body["command"] = command;
        auto answer = client.askJson("POST", kAttachRoute, body, kAnswerLimit, stop);
        if (!answer || !flagAt(answer.value(), "digestWanted") || !a2l.sha256.empty()) return answer;
        a2l.sha256 = digestOf(a2l.path);
        if (a2l.sha256.empty()) a2l.sha256 = "unreadable";
    }
}

Result<std::unique_ptr<HostLink>> HostLink::attach(const FoundHost& found, std::string command,
                                                   const A2lFile& a2l, const StopToken& stop) {
    auto client = connectPatiently(found, stop);
    if (!client) return client.error();
    if (client.value().server().uid != ::geteuid())
        return Error{ErrorCode::permissionDenied, found.socket.string() + " is served by another user"};
    const auto answer = introduce(client.value(), a2l, command, stop);
    if (!answer) return answer.error();
    HostFacts facts{found.holder,
                    printableText(textAt(answer.value(), "recording").value_or("")),
                    flagAt(answer.value(), "readOnly"),
                    {}};
    const auto connect = bytesOfHex(textAt(answer.value(), "connect").value_or(""));
    if (connect && connect->size() <= xcp::Packet::kCapacity) {
        std::copy(connect->begin(), connect->end(), facts.connect.bytes.begin());
        facts.connect.length = static_cast<std::uint8_t>(connect->size());
    }
    return std::unique_ptr<HostLink>(
        new HostLink(std::move(client).value(), std::move(facts), std::move(command)));
}

Result<Json> HostLink::ask(std::string_view route, Json body, milliseconds limit, const StopToken& stop) {
    const Error gone{ErrorCode::closed, facts_.holder.text() + " has ended, which held the ECU"};
    if (broken_) return brokenBy_.value_or(gone);
    body["command"] = command_;
    auto answer = client_.askJson("POST", route, body, limit, stop);
    if (answer) return answer;
    // What the host refuses it says; all else ends the connection.
    broken_ = answer.error().code == ErrorCode::closed || answer.error().isStop();
    if (broken_ && !answer.error().isStop()) return gone;
    return answer;
}

Result<void> HostLink::begin(milliseconds longest, const StopToken& stop) {
    constexpr milliseconds kMargin{1'000};
    const auto answer = ask(kBeginRoute, {{"waitMs", longest.count()}}, longest + kMargin, stop);
    if (answer) return {};
    // Without an answer the begin is still under way.
    if (!broken_ && answer.error().code == ErrorCode::timeout) {
        broken_ = true;
        brokenBy_ = answer.error();
        brokenBy_->code = ErrorCode::closed;
    }
    return answer.error();
}

Result<Lease::Answers> HostLink::send(const std::vector<xcp::Packet>& commands, const StopToken& stop) {
    const auto answer = ask(kCommandRoute, {{"commands", packetsJson(commands)}}, kCommandLimit, stop);
    if (!answer) return answer.error();
    auto packets = packetsOf(answer.value().value("answers", Json()));
    if (!packets) return packets.error();
    Lease::Answers answers{std::move(packets).value(), {}};
    if (answer.value().contains("failure")) answers.error = errorOf(answer.value()["failure"]);
    if (answers.packets.empty() && !answers.error)
        return Error{ErrorCode::protocolError, facts_.holder.text() + " gave no answer"};
    return answers;
}

Result<void> HostLink::announce(const std::vector<session::ObjectBytes>& changes) {
    const auto answer = ask(kAnnounceRoute, {{"changes", changesJson(changes)}}, kAnswerLimit);
    if (!answer) return answer.error();
    return {};
}

Result<void> HostLink::tellWritten(const std::vector<session::ObjectBytes>& changes) {
    const auto answer = ask(kWrittenRoute, {{"changes", changesJson(changes)}}, kAnswerLimit);
    if (!answer) return answer.error();
    return {};
}

Result<void> HostLink::tellParameter(const storage::ParameterWrite& write) {
    const auto answer =
        ask(kWrittenRoute, {{"name", write.name}, {"old", write.before}, {"new", write.after}}, kAnswerLimit);
    if (!answer) return answer.error();
    return {};
}

void HostLink::end() {
    static_cast<void>(ask(kEndRoute, Json::object(), kAnswerLimit));
}

}  // namespace lm::host
