#include "session/file_memory.h"

#include <algorithm>
#include <string>

#include <spdlog/fmt/fmt.h>

namespace lm::session {
namespace {

/// What the image holds, for one who looks in the wrong one.
std::string contentText(const params::MemoryFile& file) {
    constexpr std::size_t kMostTold = 3;
    std::string text = "the image holds ";
    const auto& runs = file.runs();
    for (std::size_t i = 0; i < std::min(runs.size(), kMostTold); ++i)
        text += fmt::format("{}0x{:08X} to 0x{:08X}", i == 0 ? "" : ", ", runs[i].address, runs[i].end() - 1);
    if (runs.size() > kMostTold) text += fmt::format(" and {} more runs", runs.size() - kMostTold);
    return text;
}

}  // namespace

Result<void> FileMemory::check(std::string_view name, xcp::Address address, std::size_t size) const {
    Error error{ErrorCode::notFound, ""};
    error.hint = contentText(file_);
    if (address.extension != 0) {
        error.message =
            fmt::format("{}: the image holds no bytes of address extension {}", name, address.extension);
        error.hint = "an image has the memory of extension 0 only: read this one from the ECU";
        return error;
    }
    const std::uint64_t missing = file_.firstMissing(address.address, size);
    if (missing == address.address + std::uint64_t{size}) return {};
    error.message = fmt::format("{}: the image holds no bytes at 0x{:08X}", name, missing);
    return error;
}

Result<std::vector<std::uint8_t>> FileMemory::read(std::string_view name, xcp::Address address,
                                                   std::size_t size) {
    if (auto there = check(name, address, size); !there) return there.error();
    const auto bytes = file_.at(address.address, size);
    return std::vector<std::uint8_t>(bytes.begin(), bytes.end());
}

Result<void> FileMemory::write(std::string_view name, xcp::Address address,
                               std::span<const std::uint8_t> bytes) {
    if (auto there = check(name, address, bytes.size()); !there) return there;
    std::copy(bytes.begin(), bytes.end(), file_.at(address.address, bytes.size()).begin());
    return {};
}

Result<bool> FileMemory::writeBits(const value::Element& /*element*/,
                                   const std::vector<std::uint8_t>& /*bytes*/) {
    return false;
}

}  // namespace lm::session
