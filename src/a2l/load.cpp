// From a file to its description: reading, the encoding, and the memory on the way.
//
// The file is read, not mapped: a mapping of a file that another program cuts short meanwhile ends the
// process.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "a2l/parser.h"
#include "a2l/tokenizer.h"
#include "core/sha256.h"
#include "core/stoppable_input.h"
#include "core/text.h"

namespace lm::a2l {
namespace {

constexpr std::size_t kReadStep = std::size_t{256} << 10U;
/// Far above the largest A2L files: what has no end is not read until the memory has one.
constexpr std::size_t kMaxText = std::size_t{2} << 30U;

/// The bytes of a file as they come, and whether they are UTF-8: this is seen while they are in the cache,
/// not in a pass of its own over hundreds of megabytes.
class FileText {
  public:
    explicit FileText(std::size_t expected) : capacity_(expected), bytes_(allocate(expected)) {}

    std::string_view text() const { return {bytes_.get(), size_}; }

    /// Room for at least one more step.
    char* room() {
        if (capacity_ - size_ < kReadStep) grow(size_ + size_ / 2 + kReadStep);
        return bytes_.get() + size_;
    }
    std::size_t roomSize() const { return std::min(capacity_ - size_, kReadStep); }

    void add(std::size_t count) {
        size_ += count;
        // The last character may go on in the next step.
        std::size_t whole = size_;
        for (int i = 0; i < 4 && whole > checked_; ++i) {
            if ((static_cast<unsigned char>(bytes_[--whole]) & 0xC0U) != 0x80U) break;
        }
        check(whole);
    }

    /// To be asked when everything was added.
    bool isUtf8() {
        check(size_);
        return utf8_;
    }

  private:
    static std::unique_ptr<char[]> allocate(std::size_t size) {
        constexpr std::size_t kPage = 4096;
        // Left uninitialised: zeroing would take another pass.
        std::unique_ptr<char[]> bytes(new char[size]);
        // Asking the system for one small page after the other costs more than reading the file into them.
        // Where it has no large ones, nothing is lost.
        void* whole = bytes.get();
        if (std::align(kPage, kPage, whole, size) != nullptr)
            ::madvise(whole, size / kPage * kPage, MADV_HUGEPAGE);
        return bytes;
    }
    void grow(std::size_t capacity) {
        std::unique_ptr<char[]> larger = allocate(capacity);
        std::memcpy(larger.get(), bytes_.get(), size_);
        bytes_ = std::move(larger);
        capacity_ = capacity;
    }
    void check(std::size_t end) {
        utf8_ = utf8_ && isValidUtf8(text().substr(checked_, end - checked_));
        checked_ = end;
    }

    std::size_t capacity_;
    std::unique_ptr<char[]> bytes_;
    std::size_t size_ = 0;
    std::size_t checked_ = 0;
    bool utf8_ = true;
};

Result<Description> parseUtf8(std::string_view text) {
    Parser parser(text.size());
    if (auto result = scan(text, parser); !result) return result.error();
    return parser.finish();
}

/// The text in UTF-8 when it is something else; none for UTF-8.
std::optional<std::string> converted(std::string_view text, bool isUtf8) {
    constexpr std::size_t kMarkSize = 2;
    if (text.starts_with("\xFF\xFE")) return utf16ToUtf8(text.substr(kMarkSize), false);
    if (text.starts_with("\xFE\xFF")) return utf16ToUtf8(text.substr(kMarkSize), true);
    if (isUtf8) return std::nullopt;
    return windows1252ToUtf8(text);
}

Error cannotOpen(const std::filesystem::path& path, int systemError) {
    const ErrorCode code = systemError == ENOENT ? ErrorCode::notFound : ErrorCode::ioError;
    return Error::withReasonAsHint(code, systemError, "cannot open A2L file " + path.string());
}

Error cannotRead(const std::filesystem::path& path, int systemError) {
    return Error::fromErrno(systemError, "cannot read A2L file " + path.string());
}

/// 0, or the errno of what failed; EFBIG above the largest size.
int readAll(int descriptor, FileText& text, const StopToken& stop) {
    while (text.text().size() <= kMaxText) {
        char* const room = text.room();
        const ssize_t count = readUnlessStopped(descriptor, room, text.roomSize(), stop);
        if (count == 0) return 0;
        if (count < 0) return errno;
        text.add(static_cast<std::size_t>(count));
    }
    return EFBIG;
}

Result<FileText> readText(const std::filesystem::path& path, const StopToken& stop) {
    const UniqueFd file = openForReading(path);
    if (!file.valid()) return cannotOpen(path, errno);
    struct stat status {};
    const bool sized = ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
    const std::size_t size = sized ? static_cast<std::size_t>(status.st_size) : 0;
    FileText text(size > kMaxText ? 0 : size + kReadStep);
    const int failure = size > kMaxText ? EFBIG : readAll(file.get(), text, stop);
    if (failure == 0) return text;
    if (failure == EISDIR) return cannotOpen(path, failure);
    if (failure == EFBIG) {
        return Error{ErrorCode::invalidArgument, "A2L file " + path.string() + " is larger than 2 GiB"};
    }
    return cannotRead(path, failure);
}

Result<Description> readAndParse(const std::filesystem::path& path, const StopToken& stop, bool digest) {
    auto read = readText(path, stop);
    if (!read) return read.error();
    FileText text = std::move(read).value();
    std::string sha256 = digest ? sha256Hex(text.text()) : std::string();
    const auto other = converted(text.text(), text.isUtf8());
    if (other) text = FileText(0);
    auto description = parseUtf8(other ? *other : text.text());
    if (description) description.value().sha256 = std::move(sha256);
    return description;
}

}  // namespace

Result<Description> load(const std::filesystem::path& path, const StopToken& stop, bool digest) {
    try {
        return readAndParse(path, stop, digest);
    } catch (const std::bad_alloc&) {
        return cannotRead(path, ENOMEM);
    }
}

Result<Description> parseDescription(std::string_view text) {
    const auto other = converted(text, isValidUtf8(text));
    return parseUtf8(other ? *other : text);
}

}  // namespace lm::a2l
