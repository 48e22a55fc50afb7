#include "params/data_records.h"

#include <algorithm>
#include <utility>

#include <spdlog/fmt/fmt.h>

namespace lm::params {

void DataRecords::add(std::size_t line, std::uint32_t address, std::span<const std::uint8_t> bytes) {
    if (bytes.empty()) return;
    records_.push_back({line, bytes_.size(), address, static_cast<std::uint32_t>(bytes.size())});
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    longest_ = std::max(longest_, bytes.size());
}

Result<std::vector<MemoryRun>> DataRecords::join() {
    if (records_.empty()) {
        Error error{ErrorCode::invalidArgument, "no record with data"};
        error.hint = "an image has at least one byte: export it again";
        return error;
    }
    const auto isBefore = [](const Record& a, const Record& b) { return a.address < b.address; };
    // Most files are in order: looking is quicker than sorting.
    if (!std::is_sorted(records_.begin(), records_.end(), isBefore))
        std::stable_sort(records_.begin(), records_.end(), isBefore);
    std::vector<MemoryRun> runs;
    for (const Record& record : records_) {
        if (runs.empty() || runs.back().end() < record.address) runs.push_back({record.address, {}});
        MemoryRun& run = runs.back();
        if (auto same = checkSame(run, record); !same) return same.error();
        const std::size_t known = std::min<std::size_t>(run.end() - record.address, record.size);
        run.bytes.insert(run.bytes.end(), bytesOf(record) + known, bytesOf(record) + record.size);
    }
    return runs;
}

/// Where the record lies over what is there already.
Result<void> DataRecords::checkSame(const MemoryRun& run, const Record& record) const {
    const std::uint64_t end = std::min(run.end(), std::uint64_t{record.address} + record.size);
    for (std::uint64_t at = record.address; at < end; ++at) {
        if (run.bytes[at - run.address] != bytesOf(record)[at - record.address])
            return contradiction(record, at);
    }
    return {};
}

Error DataRecords::contradiction(const Record& record, std::uint64_t address) const {
    const Record& other = *std::find_if(records_.begin(), records_.end(), [&](const Record& one) {
        return one.address <= address && address < std::uint64_t{one.address} + one.size;
    });
    const bool isLater = record.line > other.line;
    const Record& second = isLater ? record : other;
    const Record& first = isLater ? other : record;
    return lineError(second.line,
                     fmt::format("0x{:08X} is 0x{:02X} here and 0x{:02X} in line {}", address,
                                 bytesOf(second)[address - second.address],
                                 bytesOf(first)[address - first.address], first.line),
                     "leave one of the two lines out");
}

Result<MemoryFile> imageOf(DataRecords& records, const RecordLines& lines, const EndRecord& end,
                           MemoryFileLayout layout) {
    if (end.line == 0) {
        return lines.error(
            "the end record is missing behind it",
            fmt::format("the file was cut off: export it again; if all is there, append {}", end.text));
    }
    auto runs = records.join();
    if (!runs) return runs.error();
    layout.recordSize = records.longest();
    layout.hasCarriageReturns = lines.hasCarriageReturns();
    return MemoryFile(std::move(runs).value(), std::move(layout));
}

}  // namespace lm::params
