#include "serve/recording_desk.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

#include "core/log.h"
#include "core/text.h"
#include "core/unique_fd.h"
#include "exporter/export_recording.h"
#include "serve/series.h"
#include "storage/read/recording_reader.h"

namespace lm::serve {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

constexpr std::size_t kReaders = 3;
constexpr std::size_t kMostDetails = 1000;

http::Response madeOf(std::string text, const char* contentType) {
    http::Response response;
    response.contentType = contentType;
    response.body = std::move(text);
    return response;
}

/// An open file that has no name any more, piece by piece.
http::Response fileResponse(UniqueFd file, std::uint64_t size, const std::string& name) {
    http::Response response;
    response.contentType = "application/octet-stream";
    response.headers.emplace_back("Content-Disposition", fmt::format("attachment; filename=\"{}\"", name));
    response.length = size;
    auto shared = std::make_shared<UniqueFd>(std::move(file));
    response.more = [shared]() -> Result<std::string> {
        std::string piece(std::size_t{256} << 10U, '\0');
        ssize_t count = 0;
        do {
            count = ::read(shared->get(), piece.data(), piece.size());
        } while (count < 0 && errno == EINTR);
        if (count < 0) return Error::fromErrno(errno, "cannot read an export");
        piece.resize(static_cast<std::size_t>(count));
        return piece;
    };
    return response;
}

/// Letters, digits and what else is harmless in the head of an answer.
std::string fileNameOf(std::string name) {
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c < 0x20 || c == '"' || c == '\\' || c == 0x7f; }, '_');
    return name;
}

std::string secondsText(std::int64_t ns) {
    const std::uint64_t size = ns < 0 ? 0 - static_cast<std::uint64_t>(ns) : static_cast<std::uint64_t>(ns);
    return fmt::format("{}{}.{:09}", ns < 0 ? "-" : "", size / 1000000000, size % 1000000000);
}

/// ?form, from, to, signals.
Result<exporter::ExportOptions> exportOptionsOf(const http::Request& request,
                                                const storage::RecordingInfo& info) {
    exporter::ExportOptions options;
    const std::string form = request.queryText("form").empty() ? "mf4" : request.queryText("form");
    if (form != "mf4" && form != "csv") return Error{ErrorCode::invalidArgument, "form: mf4 or csv"};
    options.format = form == "mf4" ? exporter::Format::mf4 : exporter::Format::csv;
    options.merge = options.format == exporter::Format::csv;
    if (request.query.contains("from")) {
        const auto from = nanosecondsOf(request, "from");
        if (!from) return from.error();
        options.from = secondsText(from.value());
    }
    if (request.query.contains("to")) {
        const auto to = nanosecondsOf(request, "to");
        if (!to) return to.error();
        options.to = secondsText(to.value() + 1);
    }
    constexpr std::size_t kMostSignals = 10000;
    const auto places = placesOf(request.queryText("signals"), kMostSignals);
    if (!places) return places.error();
    for (const std::size_t place : places.value()) {
        const auto at = placeInGroup(info, place);
        if (!at) return at.error();
        options.signals.push_back(info.groups[at.value().group].signals[at.value().signal].name);
    }
    return options;
}

/// Beside the recording, or where files may lie for a while when that cannot be written to.
fs::path exportFolder(const fs::path& recording) {
    fs::path beside = recording.parent_path();
    if (::access(beside.c_str(), W_OK) == 0) return beside;
    std::error_code ignored;
    fs::path other = fs::temp_directory_path(ignored);
    return other.empty() ? beside : other;
}

Result<std::size_t> countOf(const http::Request& request, const char* name, std::size_t none) {
    const std::string text = request.queryText(name);
    if (text.empty()) return none;
    const auto count = parseUnsigned(text, NumberBase::decimal, UINT32_MAX);
    if (!count) return Error{ErrorCode::invalidArgument, fmt::format("{}: {}", name, count.error().message)};
    return static_cast<std::size_t>(count.value());
}

}  // namespace

Result<void> RecordingDesk::start() {
    Result<std::unique_ptr<http::Workers>> readers = http::Workers::create(kReaders);
    if (!readers) return readers.error();
    readers_ = std::move(readers).value();
    return {};
}

void RecordingDesk::stop() {
    if (readers_) readers_->stop();
}

http::Handler RecordingDesk::ofRecording(Work work) {
    return [this, work = std::move(work)](http::Request& request, const http::Reply& reply) {
        const Result<fs::path> path = shelf_.pathOf(request.part("name"));
        if (!path) return reply.fail(path.error());
        readers_->post([work, request, reply, path = path.value()] {
            if (!request.watch->gone()) work(request, reply, path);
        });
    };
}

void RecordingDesk::addRoutes(http::Router& router) {
    router.add("GET", "/v1/recordings", {}, [this](http::Request& request, const http::Reply& reply) {
        readers_->post([this, request, reply] { list(request, reply); });
    });
    router.add("GET", "/v1/recordings/{name}", {},
               ofRecording([this](const http::Request&, const http::Reply& reply, const fs::path& path) {
                   Result<std::string> text = info_(path);
                   text ? reply.send(madeOf(std::move(text).value() + "\n", "application/json"))
                        : reply.fail(text.error());
               }));
    router.add("GET", "/v1/recordings/{name}/signals", {},
               ofRecording([this](const http::Request&, const http::Reply& reply, const fs::path& path) {
                   Result<std::string> text = open_.use(path, pictureOf);
                   text ? reply.send(madeOf(std::move(text).value(), "application/json"))
                        : reply.fail(text.error());
               }));
    const auto bind = [this](auto method) {
        return ofRecording([this, method](const http::Request& request, const http::Reply& reply,
                                          const fs::path& path) { (this->*method)(request, reply, path); });
    };
    router.add("GET", "/v1/recordings/{name}/series", {}, bind(&RecordingDesk::series));
    router.add("GET", "/v1/recordings/{name}/export", {}, bind(&RecordingDesk::exportOne));
    addLayoutRoutes(router);
}

void RecordingDesk::addLayoutRoutes(http::Router& router) {
    router.add("GET", "/v1/layouts", {},
               [this](http::Request&, const http::Reply& reply) { reply.send(layouts_.list()); });
    router.add("GET", "/v1/layouts/{name}", {}, [this](http::Request& request, const http::Reply& reply) {
        Result<std::string> text = layouts_.read(request.part("name"));
        text ? reply.send(madeOf(std::move(text).value(), "application/json")) : reply.fail(text.error());
    });
    router.add("PUT", "/v1/layouts/{name}", {}, [this](http::Request& request, const http::Reply& reply) {
        const Result<void> written = layouts_.write(request.part("name"), request.body);
        written ? reply.send(json::object()) : reply.fail(written.error());
    });
    router.add("DELETE", "/v1/layouts/{name}", {}, [this](http::Request& request, const http::Reply& reply) {
        const Result<void> removed = layouts_.remove(request.part("name"));
        removed ? reply.send(json::object()) : reply.fail(removed.error());
    });
}

void RecordingDesk::list(const http::Request& request, const http::Reply& reply) {
    const auto offset = countOf(request, "offset", 0);
    if (!offset) return reply.fail(offset.error());
    const auto count = countOf(request, "count", 100);
    if (!count) return reply.fail(count.error());
    const Result<std::vector<std::string>> names = shelf_.names();
    if (!names) return reply.fail(names.error());
    const std::size_t total = names.value().size();
    const std::size_t first = std::min(offset.value(), total);
    const std::size_t end = first + std::min({count.value(), kMostDetails, total - first});
    json details = json::array();
    for (std::size_t i = first; i < end; ++i) {
        const std::string& name = names.value()[total - 1 - i];
        const Result<fs::path> path = shelf_.pathOf(name);
        if (path) details.push_back(catalogue_.detailsOf(name, path.value()));
    }
    reply.send(json{{"recordings", names.value()}, {"details", std::move(details)}, {"total", total}});
}

void RecordingDesk::series(const http::Request& request, const http::Reply& reply, const fs::path& path) {
    const Result<SeriesWish> wish = seriesWishOf(request);
    if (!wish) return reply.fail(wish.error());
    Result<std::string> bytes =
        open_.use(path, [&](OpenedRecording& recording) { return seriesOf(recording, wish.value()); });
    bytes ? reply.send(madeOf(std::move(bytes).value(), "application/octet-stream"))
          : reply.fail(bytes.error());
}

void RecordingDesk::exportOne(const http::Request& request, const http::Reply& reply, const fs::path& path) {
    const std::unique_lock lock(exporting_, std::try_to_lock);
    if (!lock.owns_lock()) return reply.fail(Error{ErrorCode::wouldBlock, "another export is running"});
    const Result<storage::RecordingReader> recording = storage::RecordingReader::open(path);
    if (!recording) return reply.fail(recording.error());
    Result<exporter::ExportOptions> made = exportOptionsOf(request, recording.value().info());
    if (!made) return reply.fail(made.error());
    exporter::ExportOptions& options = made.value();
    const char* form = options.format == exporter::Format::mf4 ? "mf4" : "csv";
    options.output =
        exportFolder(path) / fmt::format(".export-{}-{}.{}", ::getpid(), request.connection, form);
    const auto done = exporter::exportRecording(recording.value(), options, {}, stop_);
    if (!done) return reply.fail(done.error());
    UniqueFd file(::open(options.output.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat facts {};
    const bool opened = file.valid() && ::fstat(file.get(), &facts) == 0;
    const int failure = errno;
    if (::unlink(options.output.c_str()) != 0) log::warn("cannot remove {}", options.output.string());
    if (!opened) return reply.fail(Error::fromErrno(failure, "cannot read the export"));
    reply.send(fileResponse(std::move(file), static_cast<std::uint64_t>(facts.st_size),
                            fileNameOf(request.part("name") + "." + form)));
}

}  // namespace lm::serve
