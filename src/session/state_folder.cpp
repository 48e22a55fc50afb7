#include "session/state_folder.h"

#include <cctype>
#include <system_error>

#include <spdlog/fmt/chrono.h>
#include <spdlog/fmt/fmt.h>

#include "core/platform.h"

namespace lm::session {

namespace fs = std::filesystem;

Result<fs::path> stateFolder() {
    const fs::path user = userStateDirectory();
    if (user.empty())
        return Error{ErrorCode::notFound, "there is no state folder: neither XDG_STATE_HOME nor HOME is set"};
    fs::path folder = user / "xcplumo";
    std::error_code failure;
    const bool isNew = fs::create_directories(folder, failure);
    if (failure) return Error::fromErrno(failure.value(), "cannot create " + folder.string());
    if (isNew) fs::permissions(folder, fs::perms::owner_all, failure);
    return folder;
}

std::string fileNamePart(std::string_view ecu) {
    constexpr std::size_t kLongest = 64;
    std::string part(ecu.substr(0, kLongest));
    for (char& letter : part) {
        const bool isPlain =
            std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '_' || letter == '-';
        if (!isPlain) letter = '_';
    }
    return part.empty() ? "ecu" : part;
}

std::string utcTime(std::chrono::system_clock::time_point moment) {
    using namespace std::chrono;
    const auto now = time_point_cast<milliseconds>(moment);
    const auto thousandths = now.time_since_epoch().count() % 1000;
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(system_clock::to_time_t(now)), thousandths);
}

}  // namespace lm::session
