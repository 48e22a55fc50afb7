#include "core/platform.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "core/log.h"
#include "core/unique_fd.h"

namespace lm {

std::filesystem::path executablePath() {
    std::error_code failure;
    auto path = std::filesystem::read_symlink("/proc/self/exe", failure);
    return failure ? std::filesystem::path() : path;
}

namespace {

std::filesystem::path userDirectory(const char* variable, const char* belowHome) {
    const char* configured = std::getenv(variable);
    if (configured != nullptr && *configured != '\0') return configured;
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home != '\0') return std::filesystem::path(home) / belowHome;
    return {};
}

}  // namespace

std::filesystem::path userConfigDirectory() {
    return userDirectory("XDG_CONFIG_HOME", ".config");
}

std::filesystem::path userStateDirectory() {
    return userDirectory("XDG_STATE_HOME", ".local/state");
}

void raiseOpenFileLimit() {
    static std::once_flag once;
    std::call_once(once, [] {
        rlimit limit{};
        if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
        const rlim_t before = limit.rlim_cur;
        limit.rlim_cur = limit.rlim_max;
        if (setrlimit(RLIMIT_NOFILE, &limit) == 0) {
            log::info("open file limit raised from {} to {}", before, limit.rlim_max);
        }
    });
}

int utcOffsetMinutes(std::int64_t utcNs) {
    constexpr std::int64_t kNsPerSecond = 1000000000;
    const std::time_t seconds = utcNs / kNsPerSecond;
    std::tm local{};
    ::tzset();  // localtime_r need not look at TZ
    if (::localtime_r(&seconds, &local) == nullptr) return 0;
    return static_cast<int>(local.tm_gmtoff / 60);
}

namespace {

Error failure(ErrorCode code, const char* what, const std::filesystem::path& path, int systemError) {
    return Error{code, what + path.string(), systemError, Error::kNoDetail};
}

}  // namespace

Result<MappedFile> MappedFile::open(const std::filesystem::path& path) {
    UniqueFd file;
    do {
        file = UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    } while (!file.valid() && errno == EINTR);
    if (!file.valid()) {
        const int systemError = errno;
        const auto code = systemError == ENOENT ? ErrorCode::notFound : ErrorCode::ioError;
        return failure(code, "cannot open ", path, systemError);
    }
    struct stat status {};
    void* address = nullptr;
    int mapError = 0;
    if (fstat(file.get(), &status) != 0) {
        mapError = errno;
    } else if (status.st_size > 0) {
        address =
            mmap(nullptr, static_cast<std::size_t>(status.st_size), PROT_READ, MAP_SHARED, file.get(), 0);
        if (address == MAP_FAILED) mapError = errno;
    }
    if (mapError != 0) return failure(ErrorCode::ioError, "cannot map ", path, mapError);
    return MappedFile(static_cast<const char*>(address), static_cast<std::size_t>(status.st_size));
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    return *this;
}

MappedFile::~MappedFile() {
    // munmap wants a mutable pointer for a read-only mapping.
    if (data_ != nullptr) munmap(const_cast<char*>(data_), size_);  // NOLINT(*-const-cast)
}

}  // namespace lm
