#include "params/memory_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "core/durable_file.h"
#include "core/text.h"
#include "core/whole_file.h"
#include "params/intel_hex.h"
#include "params/s_record.h"

namespace lm::params {
namespace {

/// Holds some ninety megabytes of memory.
constexpr std::size_t kMaxFile = std::size_t{256} << 20U;

struct Ending {
    std::string_view text;
    MemoryFileEnding meaning;
};
constexpr std::array<Ending, 8> kEndings = {{{".hex", {MemoryForm::intelHex, 2}},
                                             {".h86", {MemoryForm::intelHex, 2}},
                                             {".ihex", {MemoryForm::intelHex, 2}},
                                             {".s19", {MemoryForm::sRecord, 2}},
                                             {".s28", {MemoryForm::sRecord, 3}},
                                             {".s37", {MemoryForm::sRecord, 4}},
                                             {".srec", {MemoryForm::sRecord, 2}},
                                             {".mot", {MemoryForm::sRecord, 2}}}};

Error alreadyExists(const std::filesystem::path& path) {
    Error error{ErrorCode::alreadyOpen, path.string() + " already exists"};
    error.hint = "an image is written to a new file: give another name, or remove this file first";
    return error;
}

}  // namespace

const MemoryRun* MemoryFile::runAt(std::uint32_t address) const {
    const auto after =
        std::upper_bound(runs_.begin(), runs_.end(), address,
                         [](std::uint32_t wanted, const MemoryRun& run) { return wanted < run.address; });
    if (after == runs_.begin()) return nullptr;
    const MemoryRun& run = *(after - 1);
    return address < run.end() ? &run : nullptr;
}

std::span<const std::uint8_t> MemoryFile::at(std::uint32_t address, std::size_t size) const {
    const MemoryRun* const run = runAt(address);
    if (run == nullptr || address + std::uint64_t{size} > run->end()) return {};
    return std::span(run->bytes).subspan(address - run->address, size);
}

std::span<std::uint8_t> MemoryFile::at(std::uint32_t address, std::size_t size) {
    const auto bytes = std::as_const(*this).at(address, size);
    return {const_cast<std::uint8_t*>(bytes.data()), bytes.size()};  // NOLINT(*-const-cast)
}

std::uint64_t MemoryFile::firstMissing(std::uint32_t address, std::size_t size) const {
    const MemoryRun* const run = runAt(address);
    return run == nullptr ? address : std::min(run->end(), address + std::uint64_t{size});
}

Result<MemoryFile> parseMemoryFile(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first != std::string_view::npos && text[first] == ':') return parseIntelHex(text);
    if (first != std::string_view::npos && text[first] == 'S') return parseSRecords(text);
    Error error{ErrorCode::invalidArgument, "neither Intel HEX nor S-records"};
    error.hint = "the lines of such files begin with ':' or with 'S'";
    return error;
}

std::string memoryFileText(const MemoryFile& file, MemoryForm form, std::size_t addressBytes) {
    if (form == MemoryForm::intelHex) return intelHexText(file);
    return sRecordText(file, std::max(addressBytes, file.layout().addressBytes));
}

Result<MemoryFile> readMemoryFile(const std::filesystem::path& path, const StopToken& stop) {
    const auto text = readWholeFile(path, kMaxFile, stop);
    if (!text) return text.error();
    auto file = parseMemoryFile(text.value());
    if (file) return file;
    Error error = file.error();
    error.message = path.string() + ": " + error.message;
    return error;
}

Result<MemoryFileEnding> memoryFileEnding(const std::filesystem::path& path) {
    std::string ending;
    lowerAsciiInto(ending, path.extension().string());
    const auto* const found =
        std::find_if(kEndings.begin(), kEndings.end(), [&](const Ending& one) { return one.text == ending; });
    if (found != kEndings.end()) return found->meaning;
    Error error{ErrorCode::invalidArgument, path.string() + " does not end in .hex, .s19 or the like"};
    error.hint = "Intel HEX: .hex .h86 .ihex; S-records: .s19 .s28 .s37 .srec .mot";
    return error;
}

Result<void> checkNewFile(const std::filesystem::path& path) {
    std::error_code failure;
    const auto status = std::filesystem::symlink_status(path, failure);
    if (std::filesystem::exists(status)) return alreadyExists(path);
    return {};
}

Result<void> writeMemoryFile(const std::filesystem::path& path, const MemoryFile& file, bool replace) {
    const auto ending = memoryFileEnding(path);
    if (!ending) return ending.error();
    if (!replace) {
        if (auto isNew = checkNewFile(path); !isNew) return isNew;
    }
    StagedFile staged;
    if (const int failure = staged.createBeside(path); failure != 0)
        return Error::fromErrno(failure, "cannot create " + path.string());
    int failure = staged.write(memoryFileText(file, ending.value().form, ending.value().addressBytes));
    if (failure == 0) failure = staged.close();
    if (failure != 0) return Error::fromErrno(failure, "cannot write " + path.string());
    failure = staged.place(path, replace ? StagedFile::Existing::replaced : StagedFile::Existing::kept);
    if (failure == EEXIST) return alreadyExists(path);
    if (failure == 0) failure = flushDirectoryToDisk(path.has_parent_path() ? path.parent_path() : ".");
    if (failure != 0) return Error::fromErrno(failure, "cannot create " + path.string());
    return {};
}

}  // namespace lm::params
