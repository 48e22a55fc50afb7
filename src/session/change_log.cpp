#include "session/change_log.h"

#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>
#include <vector>

#include <nlohmann/json.hpp>
#include <spdlog/fmt/fmt.h>

#include "core/file_write.h"
#include "core/log.h"
#include "core/text.h"
#include "session/state_folder.h"

namespace lm::session {
namespace {

std::string jsonText(std::string_view text) {
    using nlohmann::json;
    return json(text).dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string jsonOf(const value::Value& value) {
    if (const auto* text = std::get_if<std::string>(&value)) return jsonText(*text);
    if (const auto* exact = std::get_if<value::Exact>(&value)) return exact->shortest();
    const double number = std::get<double>(value);
    return std::isfinite(number) ? formatShortest(number) : "null";
}

std::string hexOf(const ObjectBytes& bytes, bool isBefore) {
    std::string text = "0x";
    for (const BytePiece& piece : bytes.pieces)
        for (const std::uint8_t byte : isBefore ? piece.before : piece.after)
            text += fmt::format("{:02X}", byte);
    return jsonText(text);
}

/// A value of a line as people read it.
std::string displayed(const std::string& value) {
    if (value == "null") return "not known";
    if (value.empty() || value.front() != '"') return value;
    return nlohmann::json::parse(value).get<std::string>();
}

std::string userName() {
    constexpr std::size_t kRoom = 4096;
    std::vector<char> room(kRoom);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, room.data(), room.size(), &found) == 0 && found != nullptr)
        return entry.pw_name;
    return std::to_string(::getuid());
}

}  // namespace

void ChangeLog::add(std::string_view object, const value::Value& before, const value::Value& after) {
    addLine(object, jsonOf(before), jsonOf(after));
}

void ChangeLog::add(const params::Parameter& before, const params::Parameter& after,
                    const ObjectBytes& bytes) {
    params::ParameterSet a;
    params::ParameterSet b;
    a.parameters.push_back(before);
    b.parameters.push_back(after);
    const auto difference = params::compare(a, b);
    const bool tells = !difference.parameters.empty() && !difference.parameters.front().numbers.empty();
    if (!tells) return add(bytes, false);
    for (const params::NumberDifference& number : difference.parameters.front().numbers)
        addLine(before.name + number.place, jsonOf(*number.a), jsonOf(*number.b));
}

void ChangeLog::add(const ObjectBytes& bytes, bool isBack) {
    addLine(bytes.name, hexOf(bytes, !isBack), hexOf(bytes, isBack));
}

void ChangeLog::addUnknown(const ObjectBytes& bytes) {
    addLine(bytes.name, hexOf(bytes, true), "null");
}

void ChangeLog::addLine(std::string_view object, const std::string& before, const std::string& after) {
    static const std::string kUser = userName();
    lines_ += fmt::format("{{\"time\":{},\"user\":{},\"command\":{},\"object\":{},\"old\":{},\"new\":{}}}\n",
                          jsonText(utcTime()), jsonText(kUser), jsonText(command_), jsonText(object), before,
                          after);
    if (tell_) tell_(object, displayed(before), displayed(after), kUser + ", " + command_);
}

void ChangeLog::flush() {
    if (lines_.empty() || failed_) return;
    if (!path_) {
        const auto folder = stateFolder();
        if (!folder) {
            failed_ = true;
            log::warn("the file of changes is not written: {}", folder.error().text());
            return;
        }
        path_ = folder.value() / ("changes-" + fileNamePart(ecu_) + ".jsonl");
    }
    const int failure = append();
    lines_.clear();
    if (failure == 0) return;
    failed_ = true;
    log::warn("the file of changes is not written: {}",
              Error::fromErrno(failure, "cannot write " + path_->string()).text());
}

int ChangeLog::append() {
    constexpr mode_t kRights = 0600;
    if (!file_.valid())
        file_ = UniqueFd(::open(path_->c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, kRights));
    if (!file_.valid()) return errno;
    // A full disk, or a kill, may have left half a line.
    const off_t size = ::lseek(file_.get(), 0, SEEK_END);
    char last = '\n';
    if (size > 0 && ::pread(file_.get(), &last, 1, size - 1) == 1 && last != '\n') lines_.insert(0, "\n");
    return writeAll(file_.get(), lines_);
}

}  // namespace lm::session
