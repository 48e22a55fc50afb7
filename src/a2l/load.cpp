// From a file to its description.

#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "a2l/file_text.h"
#include "a2l/included_files.h"
#include "a2l/parser.h"
#include "a2l/tokenizer.h"
#include "core/sha256.h"
#include "core/stoppable_input.h"
#include "core/text.h"

namespace lm::a2l {
namespace {

Result<Description> parseUtf8(std::string_view text, SourceTexts* sources) {
    Parser parser(sources == nullptr ? nullptr : &sources->lines);
    if (auto result = scan(text, parser, sources); !result) return result.error();
    return parser.finish();
}

Error cannotOpen(const std::filesystem::path& path, int systemError) {
    const ErrorCode code = systemError == ENOENT ? ErrorCode::notFound : ErrorCode::ioError;
    return Error::withReasonAsHint(code, systemError, "cannot open A2L file " + path.string());
}

Error cannotRead(const std::filesystem::path& path, int systemError) {
    return Error::fromErrno(systemError, "cannot read A2L file " + path.string());
}

Result<FileText> readText(const std::filesystem::path& path, IncludedFiles& included, const StopToken& stop) {
    const UniqueFd file = openForReading(path);
    if (!file.valid()) return cannotOpen(path, errno);
    struct stat status {};
    const bool known = ::fstat(file.get(), &status) == 0;
    const bool sized = known && S_ISREG(status.st_mode);
    const std::size_t size = sized ? static_cast<std::size_t>(status.st_size) : 0;
    FileText text(size > kMaxText ? 0 : size + FileText::kReadStep);
    const int failure = size > kMaxText ? EFBIG : text.read(file.get(), kMaxText, stop);
    if (known) included.begin(status, text.text().size());
    if (failure == 0) return text;
    if (failure == EISDIR) return cannotOpen(path, failure);
    if (failure == EFBIG) {
        return Error{ErrorCode::invalidArgument, "A2L file " + path.string() + " is larger than 2 GiB"};
    }
    return cannotRead(path, failure);
}

Result<Description> readAndParse(const std::filesystem::path& path, const StopToken& stop, bool digest) {
    IncludedFiles included(path, stop);
    auto read = readText(path, included, stop);
    if (!read) return read.error();
    FileText text = std::move(read).value();
    std::string sha256 = digest ? sha256Hex(text.text()) : std::string();
    auto description = parseUtf8(text.decoded(), &included);
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
    const auto other = toUtf8(text, isValidUtf8(text));
    return parseUtf8(other ? *other : text, nullptr);
}

}  // namespace lm::a2l
