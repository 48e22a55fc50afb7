#include "params/s_record.h"

#include <algorithm>
#include <array>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/bytes.h"
#include "params/data_records.h"

namespace lm::params {
namespace {

constexpr std::size_t kLongest = 255;  // what the count byte tells: address, data and sum
/// Bytes of the address in S0 to S9; S4 is reserved.
constexpr std::array<std::size_t, 10> kAddressBytes = {2, 2, 3, 4, 0, 2, 3, 4, 3, 2};
constexpr std::size_t kMost16 = 0xFFFF;
constexpr std::size_t kMost24 = 0xFFFFFF;

class SRecordReader {
  public:
    explicit SRecordReader(std::string_view text) : lines_(text) {}

    Result<MemoryFile> read() {
        while (lines_.next()) {
            if (auto taken = takeLine(); !taken) return taken.error();
        }
        return imageOf(records_, lines_, {endLine_, "S9030000FC"}, std::move(layout_));
    }

  private:
    Result<void> takeLine() {
        if (endLine_ != 0)
            return lines_.error(fmt::format("stands behind the end record in line {}", endLine_),
                                "two files in one? keep the end record of the last one only");
        const std::string_view line = lines_.text();
        const std::size_t type =
            line.size() < 2 ? kAddressBytes.size() : static_cast<unsigned char>(line[1]) - std::size_t{'0'};
        if (line[0] != 'S' || type >= kAddressBytes.size() || kAddressBytes[type] == 0) {
            return lines_.error("does not begin with S0 to S9 (S4 is none)",
                                "each line of such a file is an S-record");
        }
        const auto bytes = lines_.decode(2, 1);
        if (!bytes) return bytes.error();
        const auto record = bytes.value();
        if (record.size() < kAddressBytes[type] + 2)
            return lines_.error(fmt::format("the record is too short for an S{}", type), "export it again");
        const auto sum = static_cast<std::uint8_t>(~sumOf(record.first(record.size() - 1)));
        if (record.back() != sum) {
            return lines_.error(
                fmt::format("the sum is 0x{:02X}, that of its bytes 0x{:02X}", record.back(), sum),
                "the line was damaged, or edited without its sum: export it again");
        }
        const auto address = static_cast<std::uint32_t>(
            readSized(record.data() + 1, kAddressBytes[type], ByteOrder::bigEndian));
        return take(type, address,
                    record.subspan(1 + kAddressBytes[type], record.size() - kAddressBytes[type] - 2));
    }

    Result<void> take(std::size_t type, std::uint32_t address, std::span<const std::uint8_t> data) {
        if (type == 0) {
            layout_.headers.emplace_back(data.begin(), data.end());
            return {};
        }
        if (type <= 3) return takeData(type, address, data);
        if (!data.empty())
            return lines_.error(
                fmt::format("an S{} holds no data, this one has {} byte(s)", type, data.size()),
                "export it again");
        if (type <= 6) return takeCount(address);
        endLine_ = lines_.number();
        if (address != 0) layout_.linearStart = address;
        return {};
    }

    Result<void> takeData(std::size_t type, std::uint32_t address, std::span<const std::uint8_t> data) {
        const std::uint64_t most = std::uint64_t{1} << (8 * kAddressBytes[type]);
        if (address + std::uint64_t{data.size()} > most) {
            return lines_.error(fmt::format("the record reaches beyond the addresses of an S{}", type),
                                "export it with wider addresses");
        }
        ++count_;
        layout_.addressBytes = std::max(layout_.addressBytes, kAddressBytes[type]);
        records_.add(lines_.number(), address, data);
        return {};
    }

    Result<void> takeCount(std::uint32_t told) {
        layout_.isCounted = true;
        if (told == count_) return {};
        return lines_.error(fmt::format("counts {} data record(s), {} stand before it", told, count_),
                            "lines are missing, or there are too many: export it again");
    }

    RecordLines lines_;
    DataRecords records_;
    MemoryFileLayout layout_{.form = MemoryForm::sRecord};
    std::size_t count_ = 0;
    std::size_t endLine_ = 0;
};

class SRecordWriter {
  public:
    SRecordWriter(const MemoryFile& file, std::size_t addressBytes)
        : file_(file),
          lineEnd_(file.layout().hasCarriageReturns ? "\r\n" : "\n"),
          addressBytes_(std::max(addressBytes,
                                 bytesFor(std::max<std::uint64_t>(file.runs().back().end() - 1, start())))) {}

    std::string text() {
        const MemoryFileLayout& layout = file_.layout();
        for (const std::string& header : layout.headers)
            append(0, 0, {reinterpret_cast<const std::uint8_t*>(header.data()), header.size()});
        std::size_t count = 0;
        const std::size_t most = std::min(layout.recordSize, kLongest - addressBytes_ - 1);
        for (const MemoryRun& run : file_.runs()) {
            const std::span<const std::uint8_t> bytes(run.bytes);
            for (std::size_t at = 0; at < bytes.size(); at += most, ++count) {
                append(addressBytes_ - 1, static_cast<std::uint32_t>(run.address + at),
                       bytes.subspan(at, std::min(most, bytes.size() - at)));
            }
        }
        // No record counts beyond 24 bits.
        if (layout.isCounted && count <= kMost24)
            append(count <= kMost16 ? 5 : 6, static_cast<std::uint32_t>(count), {});
        append(11 - addressBytes_, start(), {});
        return std::move(text_);
    }

  private:
    static std::size_t bytesFor(std::uint64_t address) {
        if (address <= kMost16) return 2;
        return address <= kMost24 ? 3 : 4;
    }

    /// The segment and offset of an x86 are one address.
    std::uint32_t start() const {
        const MemoryFileLayout& layout = file_.layout();
        if (layout.linearStart) return *layout.linearStart;
        if (!layout.segmentStart) return 0;
        return (*layout.segmentStart >> 16U) * 16 + (*layout.segmentStart & kMost16);
    }

    void append(std::size_t type, std::uint32_t address, std::span<const std::uint8_t> data) {
        std::array<std::uint8_t, 5> header{};
        const std::size_t size = kAddressBytes[type];
        header[0] = static_cast<std::uint8_t>(size + data.size() + 1);
        writeSized(header.data() + 1, address, size, ByteOrder::bigEndian);
        const auto told = std::span<const std::uint8_t>(header).first(size + 1);
        const std::array<std::uint8_t, 1> sum{static_cast<std::uint8_t>(~(sumOf(told) + sumOf(data)))};
        text_ += 'S';
        text_ += static_cast<char>('0' + type);
        appendHex(text_, told);
        appendHex(text_, data);
        appendHex(text_, sum);
        text_ += lineEnd_;
    }

    const MemoryFile& file_;
    const std::string_view lineEnd_;
    const std::size_t addressBytes_;
    std::string text_;
};

}  // namespace

Result<MemoryFile> parseSRecords(std::string_view text) {
    return SRecordReader(text).read();
}

std::string sRecordText(const MemoryFile& file, std::size_t addressBytes) {
    return SRecordWriter(file, addressBytes).text();
}

}  // namespace lm::params
