#include "recording_files.h"

#include <fstream>
#include <iterator>

#include "storage/format/recording_format.h"
#include "storage/read/entry_reader.h"

namespace lm::fuzz {

Bytes readFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    require(file.flush().good(), "the file is written");
}

void makeRecordFile(const std::filesystem::path& path, const storage::RecordingInfo& info,
                    const storage::GroupInfo& group, Input& input) {
    constexpr std::size_t kMostRecords = 1100;  // for two levels
    constexpr std::size_t kMostBytes = 65536;
    const std::size_t stride = std::size_t{group.recordSize} + storage::kTimestampSize;
    const std::size_t count = std::min(input.takeBelow(kMostRecords), kMostBytes / stride);
    const auto step = static_cast<std::uint64_t>(group.cycleNs) / 8 + 1;
    const auto pattern = input.takeBytes(1 + input.takeBelow(256));
    const auto at = [&pattern](std::size_t i) {
        return pattern.empty() ? std::uint8_t{8} : pattern[i % pattern.size()];
    };
    const storage::FileHeader header = storage::recordHeader(group.recordSize);
    Bytes bytes(header.begin(), header.end());
    bytes.resize(bytes.size() + count * stride);
    auto time = static_cast<std::uint64_t>(info.startHostNs);
    for (std::size_t i = 0; i < count; ++i) {
        std::uint8_t* record = &bytes[storage::kHeaderSize + i * stride];
        // Not beyond the last time that there is.
        const std::uint64_t later = time + step * at(i);
        if (static_cast<std::int64_t>(later) > static_cast<std::int64_t>(time)) time = later;
        writeLittle(record, time);
        for (std::size_t k = 0; k < group.recordSize; ++k)
            record[storage::kTimestampSize + k] = at(i + k);
    }
    writeFile(path, bytes);
}

void damageFile(const std::filesystem::path& directory, Input& input) {
    const std::size_t group = input.takeBelow(kMostGroups);
    constexpr std::size_t kKinds = 5;  // records, index and three levels
    const std::size_t kind = input.takeBelow(kKinds);
    const std::filesystem::path path = kind == kKinds - 1
                                           ? directory / storage::recordFileName(group)
                                           : storage::SummaryFile::path(directory, group, kind);
    const auto deed = input.take<std::uint8_t>();
    const std::size_t place = input.take<std::uint16_t>();
    const auto bytes = input.takeBytes(input.takeBelow(64));
    Bytes content = readFile(path);
    const std::size_t at = std::min(place, content.size());
    switch (deed % 5) {
        case 0:
            std::copy_n(bytes.begin(), std::min(bytes.size(), content.size() - at),
                        content.begin() + static_cast<std::ptrdiff_t>(at));
            break;
        case 1:
            content.resize(at);
            break;
        case 2:
            content.insert(content.end(), bytes.begin(), bytes.end());
            break;
        case 3:
            content.assign(bytes.begin(), bytes.end());
            break;
        default:
            std::filesystem::remove(path);
            return;
    }
    writeFile(path, content);
}

PlainRecords::PlainRecords(const std::filesystem::path& path, const storage::GroupInfo& group)
    : stride(std::size_t{group.recordSize} + storage::kTimestampSize) {
    const Bytes file = readFile(path);
    for (std::size_t at = storage::kHeaderSize; at + stride <= file.size(); at += stride) {
        times.push_back(static_cast<std::int64_t>(readLittle<std::uint64_t>(&file[at])));
        bytes.insert(bytes.end(), &file[at], &file[at] + stride);
    }
}

KeptRecords::KeptRecords(const std::filesystem::path& path, std::uint32_t madeSize) : before(readFile(path)) {
    if (before.size() < storage::kHeaderSize) return;
    const auto size = readLittle<std::uint32_t>(&before[12]);
    const bool agrees =
        readLittle<std::uint32_t>(&before[16]) == std::uint64_t{size} + storage::kTimestampSize;
    ofAnotherRecording = agrees && size != madeSize;
    const std::uint64_t stride = std::uint64_t{agrees ? size : madeSize} + storage::kTimestampSize;
    recordsEnd = before.size() - (before.size() - storage::kHeaderSize) % stride;
}

void KeptRecords::check(const Bytes& repaired) const {
    if (ofAnotherRecording) return require(repaired == before, "what is of another recording is left alone");
    Bytes expected = before;  // but for a header that was mended
    std::copy_n(repaired.begin(), std::min({repaired.size(), recordsEnd, storage::kHeaderSize}),
                expected.begin());
    require(isKept(expected, recordsEnd, repaired), "no whole record is lost");
}

bool isKept(const Bytes& before, std::size_t size, const Bytes& now) {
    return now.size() >= size &&
           std::equal(before.begin(), before.begin() + static_cast<std::ptrdiff_t>(size), now.begin());
}

}  // namespace lm::fuzz
