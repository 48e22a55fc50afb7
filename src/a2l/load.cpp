// From a file to its description: mapping or reading, the encoding, and the memory on the way.

#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "a2l/parser.h"
#include "core/platform.h"
#include "core/text.h"

namespace lm::a2l {
namespace {

// A parser that, as the text goes by, also checks its encoding and gives back its pages.
class LoadingParser : public Parser {
  public:
    LoadingParser(std::string_view text, const MappedFile* file)
        : Parser(text.size()), text_(text), file_(file) {}

    // What was found not to be UTF-8 is read again anyway.
    Step opened(std::string_view keyword, std::size_t depth) override {
        return utf8_ ? Parser::opened(keyword, depth) : Step::skip;
    }

    void passed(std::size_t offset) override {
        Parser::passed(offset);
        check(offset);
        if (file_ != nullptr) file_->discardBefore(offset);
    }

    // True when the whole text is UTF-8.
    bool checkRest() {
        check(text_.size());
        return utf8_;
    }

  private:
    void check(std::size_t offset) {
        const auto cutsCharacter = [&] {
            return (static_cast<unsigned char>(text_[offset]) & 0xC0U) == 0x80U;
        };
        while (offset < text_.size() && cutsCharacter())
            ++offset;
        if (offset <= checked_) return;
        utf8_ = utf8_ && isValidUtf8(text_.substr(checked_, offset - checked_));
        checked_ = offset;
    }

    std::string_view text_;
    const MappedFile* file_;
    std::size_t checked_ = 0;
    bool utf8_ = true;
};

Result<Description> parseUtf8(std::string_view text) {
    Parser parser(text.size());
    if (auto result = scan(text, parser); !result) return result.error();
    return parser.finish();
}

// Piece by piece, so that the pages of the file need not be in memory together with the copy.
std::string convertedFromWindows1252(std::string_view text, const MappedFile* file) {
    std::string converted;
    converted.reserve(text.size() + text.size() / 8);
    for (std::size_t at = 0; at < text.size(); at += BlockVisitor::kPassedStep) {
        converted += windows1252ToUtf8(text.substr(at, BlockVisitor::kPassedStep));
        if (file != nullptr) file->discardBefore(at);
    }
    return converted;
}

Result<Description> parseText(std::string_view text, const MappedFile* file) {
    constexpr std::size_t kMarkSize = 2;
    if (text.starts_with("\xFF\xFE")) return parseUtf8(utf16ToUtf8(text.substr(kMarkSize), false));
    if (text.starts_with("\xFE\xFF")) return parseUtf8(utf16ToUtf8(text.substr(kMarkSize), true));
    {
        // Nearly all files are UTF-8: whether this one is shows on the way, not in a pass of its own.
        LoadingParser parser(text, file);
        const auto result = scan(text, parser);
        if (parser.checkRest()) {
            if (!result) return result.error();
            return parser.finish();
        }
    }
    return parseUtf8(convertedFromWindows1252(text, file));
}

Error cannotOpen(const std::filesystem::path& path, int systemError) {
    const ErrorCode code = systemError == ENOENT ? ErrorCode::notFound : ErrorCode::ioError;
    return Error{code, "cannot open A2L file " + path.string(), systemError, Error::kNoDetail};
}

// What cannot be mapped: pipes, devices, files of /proc.
Result<std::string> readAll(const std::filesystem::path& path) {
    constexpr std::size_t kStep = std::size_t{256} << 10U;
    int descriptor = -1;
    do {
        descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    } while (descriptor < 0 && errno == EINTR);
    if (descriptor < 0) return cannotOpen(path, errno);
    std::string text;
    std::size_t size = 0;
    for (;;) {
        if (text.size() - size < kStep) text.resize(size + size / 2 + kStep);
        const ssize_t count = ::read(descriptor, text.data() + size, text.size() - size);
        if (count == 0) break;
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            const int systemError = errno;
            ::close(descriptor);
            if (systemError == EISDIR) return cannotOpen(path, systemError);
            return Error::fromErrno(systemError, "cannot read A2L file " + path.string());
        }
        size += static_cast<std::size_t>(count);
    }
    ::close(descriptor);
    text.resize(size);
    return text;
}

}  // namespace

Result<Description> load(const std::filesystem::path& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0) {
        const auto file = MappedFile::open(path);
        if (file) return parseText(file.value().text(), &file.value());
        if (file.error().sysErrno != ENODEV) return cannotOpen(path, file.error().sysErrno);
    }
    const auto text = readAll(path);
    if (!text) return text.error();
    return parseText(text.value(), nullptr);
}

Result<Description> parseDescription(std::string_view text) {
    return parseText(text, nullptr);
}

}  // namespace lm::a2l
