#include "host/host.h"

#include <algorithm>
#include <pthread.h>
#include <utility>

#include <fmt/format.h>

#include "core/log.h"
#include "core/printable_text.h"
#include "core/thread.h"
#include "host/runtime_folder.h"
#include "http/target.h"

namespace lm::host {
namespace {

constexpr std::size_t kJsonDepth = 8;

using std::chrono::milliseconds;

/// Between two requests of a client.
constexpr milliseconds kIdle{2000};
/// For all of an operation: a parameter set of some hundred thousand values takes as long.
constexpr std::chrono::minutes kLongest{2};
/// What a client may wait for others at most.
constexpr milliseconds kMostWaiting{60'000};

Error leaseIsGone() {
    return {
        ErrorCode::timeout,
        "the program that holds the ECU went on without this one, which took too long between two commands"};
}

}  // namespace

Result<std::unique_ptr<Host>> Host::start(HostSetup setup) {
    std::unique_ptr<Host> host(new Host(std::move(setup)));
    auto thread = startThread("cannot start the sharing", [raw = host.get()] { raw->run(); });
    if (!thread) return thread.error();
    host->thread_ = std::move(thread).value();
    return host;
}

void Host::addRoutes(http::Router& router) {
    const http::Demand demand{.writes = false, .open = false, .localOnly = true};
    router.add("POST", kAttachRoute, demand,
               [this](http::Request& request, const http::Reply& reply) { attach(request, reply); });
    using Kind = Job::Kind;
    const std::pair<std::string_view, Kind> jobs[] = {{kBeginRoute, Kind::begin},
                                                      {kCommandRoute, Kind::command},
                                                      {kAnnounceRoute, Kind::announce},
                                                      {kWrittenRoute, Kind::written},
                                                      {kEndRoute, Kind::end}};
    for (const auto& [route, kind] : jobs) {
        router.add("POST", route, demand,
                   [this, kind = kind](http::Request& request, const http::Reply& reply) {
                       addJob(kind, request, reply);
                   });
    }
}

nlohmann::json Host::facts() const {
    const xcp::Packet connect = setup_.session.master().connectAnswer();
    return {{"pid", setup_.holder.pid},
            {"command", setup_.holder.command},
            {"recording", setup_.recording ? setup_.recording() : setup_.session.recordingDirectory()},
            {"readOnly", setup_.readOnly},
            {"ecu", setup_.session.ecuName()},
            {"a2l", setup_.a2l.path},
            {"connect", hexOf(connect.data(), connect.size())}};
}

/// The digests are made only when the system's facts of the files differ.
void Host::attach(const http::Request& request, const http::Reply& reply) {
    const Result<nlohmann::json> body = http::parseBody(request.body, kJsonDepth);
    if (!body) return reply.fail(body.error());
    const A2lFile theirs = a2lOf(body.value());
    if (theirs.path.empty() || setup_.a2l.path.empty() || setup_.a2l.isFile(theirs))
        return reply.send(facts());
    if (theirs.sha256.empty()) {
        nlohmann::json answer = facts();
        answer["digestWanted"] = true;
        return reply.send(answer);
    }
    std::string own;
    {
        const std::lock_guard lock(digestMutex_);
        const bool isAsRead = A2lFile::of(setup_.a2l.path).isFile(setup_.a2l);
        if (!digest_ && isAsRead) digest_ = digestOf(setup_.a2l.path);
        own = digest_.value_or("");
    }
    if (own == theirs.sha256) return reply.send(facts());
    Error error{ErrorCode::permissionDenied,
                fmt::format("pid {} holds the ECU with another A2L file: {}, this one is {}{}",
                            setup_.holder.pid, printableText(setup_.a2l.path), printableText(theirs.path),
                            own.empty() ? " (the first one was changed since it was read)" : "")};
    error.hint = "the A2L of both must be the same; --direct goes past that program";
    reply.fail(error);
}

void Host::addJob(Job::Kind kind, http::Request& request, const http::Reply& reply) {
    Job job{.kind = kind, .reply = reply};
    Result<nlohmann::json> body = http::parseBody(request.body, kJsonDepth);
    if (!body) return reply.fail(body.error());
    job.body = std::move(body).value();
    job.client = {request.peer.pid, userName(request.peer.uid),
                  printableText(textAt(job.body, "command").value_or(""))};
    job.connection = request.connection;
    job.watch = request.watch;
    const auto wait =
        std::clamp<std::int64_t>(numberAt(job.body, "waitMs").value_or(0), 0, kMostWaiting.count());
    job.until = Clock::now() + milliseconds(wait);
    if (kind == Job::Kind::begin) {
        request.watch->onGone([this] {
            const std::lock_guard lock(mutex_);
            changed_.notify_all();
        });
    }
    const std::lock_guard lock(mutex_);
    if (stopping_) return reply.fail({ErrorCode::closed, "the program that holds the ECU is about to end"});
    jobs_.push_back(std::move(job));
    changed_.notify_all();
}

Result<Host::Own> Host::own() {
    const StopToken stop = setup_.session.stopToken();
    const StopCallback wake(stop, [this] {
        const std::lock_guard lock(mutex_);
        changed_.notify_all();
    });
    std::unique_lock lock(mutex_);
    ownWaits_ = true;
    const bool granted = changed_.wait_for(
        lock, kLongest, [&] { return stop.requested() || stopping_ || (!lease_ && !working_); });
    ownWaits_ = false;
    changed_.notify_all();
    if (stop.requested()) return Error::stopped("stopped");
    if (!granted) return Error{ErrorCode::timeout, "other programs have held the ECU for too long"};
    ownHolds_ = true;
    return Own(this);
}

Host::Own::~Own() {
    if (host_ == nullptr) return;
    const std::lock_guard lock(host_->mutex_);
    host_->ownHolds_ = false;
    host_->changed_.notify_all();
}

void Host::stop() {
    if (!thread_.joinable()) return;
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        changed_.notify_all();
    }
    thread_.join();
}

// --- The thread

bool Host::leaseIsOver() const {
    const auto now = Clock::now();
    return stopping_ || leaseWatch_->gone() || now >= leaseUntil_ || now >= leaseEnd_;
}

/// A begin whose client waits no longer, or is gone.
void Host::dropLateJobs() {
    const auto now = Clock::now();
    for (auto job = jobs_.begin(); job != jobs_.end();) {
        const bool isBegin = job->kind == Job::Kind::begin;
        const bool isLate = isBegin && now >= job->until;
        if (!isLate && !job->watch->gone()) {
            ++job;
            continue;
        }
        if (isLate)
            job->reply.fail(
                {ErrorCode::timeout,
                 lease_ ? fmt::format("the ECU is busy with another program: {}", lease_->client().text())
                        : "the ECU is busy with the program that holds it"});
        job = jobs_.erase(job);
    }
}

/// The next thing to do; none: the lease is over, or all is.
std::optional<Host::Job> Host::nextJob(std::unique_lock<std::mutex>& lock) {
    for (;;) {
        dropLateJobs();
        for (auto job = jobs_.begin(); job != jobs_.end(); ++job) {
            const bool isOfLease = lease_ && job->connection == lease_->connection();
            const bool mayBegin = !lease_ && !ownHolds_ && !ownWaits_;
            // What was written may be told beside another client's lease, but not between the owner's deeds.
            const bool isFree = !ownHolds_ && (job->kind == Job::Kind::written || !lease_);
            if (!(job->kind == Job::Kind::begin ? mayBegin : isOfLease || isFree)) continue;
            Job next = std::move(*job);
            jobs_.erase(job);
            working_ = true;
            return next;
        }
        if (lease_ && leaseIsOver()) return std::nullopt;
        if (stopping_) return std::nullopt;
        auto until = Clock::now() + kMostWaiting;
        if (lease_) until = std::min(leaseUntil_, leaseEnd_);
        for (const Job& job : jobs_)
            if (job.kind == Job::Kind::begin) until = std::min(until, job.until);
        changed_.wait_until(lock, until);
    }
}

void Host::run() {
    pthread_setname_np(pthread_self(), "host-work");
    std::unique_lock lock(mutex_);
    for (;;) {
        auto job = nextJob(lock);
        if (!job && !lease_) break;
        working_ = true;
        lock.unlock();
        if (job) perform(*job);
        if (!job) endLease();
        lock.lock();
        working_ = false;
        changed_.notify_all();
    }
    for (const Job& job : jobs_)
        job.reply.fail({ErrorCode::closed, "the program that holds the ECU has ended"});
    jobs_.clear();
}

/// Of a client that did not do it itself.
void Host::endLease() {
    lease_->finishWrite();
    const std::lock_guard lock(mutex_);
    lease_.reset();
}

void Host::perform(Job& job) {
    const bool isOfLease = lease_ && job.connection == lease_->connection();
    const bool needsLease = job.kind == Job::Kind::command || job.kind == Job::Kind::announce;
    if (needsLease && !isOfLease) return job.reply.fail(leaseIsGone());
    leaseUntil_ = Clock::now() + kIdle;
    switch (job.kind) {
        case Job::Kind::begin:
            return begin(job);
        case Job::Kind::command: {
            const auto commands =
                packetsOf(job.body.is_object() ? job.body.value("commands", nlohmann::json()) : job.body);
            if (!commands) return job.reply.fail(commands.error());
            const Lease::Answers answers = lease_->run(commands.value(), setup_.readOnly);
            nlohmann::json told = {{"answers", packetsJson(answers.packets)}};
            if (answers.error) told["failure"] = errorToJson(*answers.error);
            leaseUntil_ = Clock::now() + kIdle;
            return job.reply.send(told);
        }
        case Job::Kind::announce: {
            auto changes =
                changesOf(job.body.is_object() ? job.body.value("changes", nlohmann::json()) : job.body);
            if (!changes) return job.reply.fail(changes.error());
            lease_->announce(std::move(changes).value());
            return job.reply.send(nlohmann::json::object());
        }
        case Job::Kind::written:
            return written(job);
        case Job::Kind::end:
            if (isOfLease) {
                lease_->settle();
                const std::lock_guard lock(mutex_);
                lease_.reset();
            }
            return job.reply.send(nlohmann::json::object());
    }
}

void Host::begin(Job& job) {
    Lease lease(setup_.session, job.client, job.connection);
    {
        const std::lock_guard lock(mutex_);
        lease_.emplace(std::move(lease));
        leaseWatch_ = job.watch;
    }
    leaseUntil_ = Clock::now() + kIdle;
    leaseEnd_ = Clock::now() + kLongest;
    job.reply.send(nlohmann::json::object());
}

/// What a client wrote and read back belongs to the session, and into its recording.
void Host::written(const Job& job) {
    if (setup_.readOnly)
        return job.reply.fail(
            {ErrorCode::permissionDenied, "the program that holds the ECU was started with --read-only"});
    if (job.body.is_object() && job.body.contains("changes")) {
        auto changes = changesOf(job.body["changes"]);
        if (!changes) return job.reply.fail(changes.error());
        if (lease_ && job.connection == lease_->connection()) lease_->settle();
        setup_.session.noteWrites(std::move(changes).value());
    }
    if (const auto name = textAt(job.body, "name")) {
        setup_.session.noteParameter({0, *name, textAt(job.body, "old").value_or(""),
                                      textAt(job.body, "new").value_or(""), job.client.text()});
    }
    job.reply.send(nlohmann::json::object());
}

}  // namespace lm::host
