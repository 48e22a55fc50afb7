#include "params/intel_hex.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/bytes.h"
#include "params/data_records.h"

namespace lm::params {
namespace {

enum Type : std::uint8_t { kData, kEnd, kSegment, kSegmentStart, kUpper, kLinearStart };

constexpr std::size_t kHeader = 4;  // length, address, type
constexpr std::size_t kAround = 5;  // the header and the sum
constexpr std::uint64_t kPage = 0x10000;
constexpr std::uint64_t kSegments = 0x100000;  // what a segment reaches without leaving 20 bits
constexpr std::uint64_t kAddresses = std::uint64_t{1} << 32U;

template <typename T>
T readBig(std::span<const std::uint8_t> bytes) {
    return readBytes<T>(bytes.data(), ByteOrder::bigEndian);
}

class Reader {
  public:
    explicit Reader(std::string_view text) : lines_(text) {}

    Result<MemoryFile> read() {
        while (lines_.next()) {
            if (auto taken = takeLine(); !taken) return taken.error();
        }
        layout_.isSegmented = hasSegments_ && !hasUppers_;
        return imageOf(records_, lines_, {endLine_, ":00000001FF"}, std::move(layout_));
    }

  private:
    Result<void> takeLine() {
        if (endLine_ != 0)
            return lines_.error(fmt::format("stands behind the end record in line {}", endLine_),
                                "two files in one? keep the end record of the last one only");
        if (!lines_.text().starts_with(':'))
            return lines_.error("does not begin with ':'", "each line of an Intel HEX file is a record");
        const auto bytes = lines_.decode(1, kAround);
        if (!bytes) return bytes.error();
        const auto record = bytes.value();
        const auto sum = static_cast<std::uint8_t>(0U - sumOf(record.first(record.size() - 1)));
        if (record.back() != sum) {
            return lines_.error(
                fmt::format("the sum is 0x{:02X}, that of its bytes 0x{:02X}", record.back(), sum),
                "the line was damaged, or edited without its sum: export it again");
        }
        return take(record[3], readBig<std::uint16_t>(record.subspan(1)),
                    record.subspan(kHeader, record.size() - kAround));
    }

    Result<void> take(std::uint8_t type, std::uint16_t offset, std::span<const std::uint8_t> data) {
        static constexpr std::array<std::size_t, 6> kSizes = {0, 0, 2, 4, 2, 4};
        if (type >= kSizes.size())
            return lines_.error(fmt::format("0x{:02X} is no record type from 00 to 05", type),
                                "export it again as Intel HEX");
        if (type == kData) return takeData(offset, data);
        if (data.size() != kSizes[type]) {
            return lines_.error(fmt::format("a record of type {:02X} has {} byte(s), not {}", type,
                                            kSizes[type], data.size()),
                                "export it again");
        }
        if (type == kEnd) {
            endLine_ = lines_.number();
            layout_.endAddress = offset;
            return {};
        }
        if (type == kSegmentStart) return takeStart(layout_.segmentStart, data);
        if (type == kLinearStart) return takeStart(layout_.linearStart, data);
        const std::uint32_t base = readBig<std::uint16_t>(data);
        isLinear_ = type == kUpper;
        base_ = isLinear_ ? base << 16U : base << 4U;
        (isLinear_ ? hasUppers_ : hasSegments_) = true;
        layout_.beginsWithBase = layout_.beginsWithBase || records_.longest() == 0;
        return {};
    }

    /// Tools go on after the last byte of a segment at its first one or behind it: neither may be guessed.
    Result<void> takeData(std::uint16_t offset, std::span<const std::uint8_t> data) {
        const std::uint64_t address = std::uint64_t{base_} + offset;
        if (!isLinear_ && offset + data.size() > kPage) {
            return lines_.error("the record reaches beyond its 64 KiB",
                                "tools read that in two ways: export it with records that end there");
        }
        if (address + data.size() > kAddresses)
            return lines_.error("the record reaches beyond 32 bits of address", "export it again");
        records_.add(lines_.number(), static_cast<std::uint32_t>(address), data);
        return {};
    }

    Result<void> takeStart(std::optional<std::uint32_t>& start, std::span<const std::uint8_t> data) {
        const auto told = readBig<std::uint32_t>(data);
        if (start && *start != told) {
            return lines_.error(
                fmt::format("the start address is 0x{:08X} here and was 0x{:08X}", told, *start),
                "leave one of the two lines out");
        }
        start = told;
        return {};
    }

    RecordLines lines_;
    DataRecords records_;
    MemoryFileLayout layout_;
    std::uint32_t base_ = 0;
    bool isLinear_ = false;
    bool hasSegments_ = false;
    bool hasUppers_ = false;
    std::size_t endLine_ = 0;
};

class Writer {
  public:
    explicit Writer(const MemoryFile& file)
        : file_(file),
          lineEnd_(file.layout().hasCarriageReturns ? "\r\n" : "\n"),
          usesSegments_(file.layout().isSegmented && file.runs().back().end() <= kSegments) {
        if (!file.layout().beginsWithBase) page_ = 0;
    }

    std::string text() {
        for (const MemoryRun& run : file_.runs())
            appendRun(run);
        const MemoryFileLayout& layout = file_.layout();
        if (layout.segmentStart) appendNumber(kSegmentStart, *layout.segmentStart);
        if (layout.linearStart) appendNumber(kLinearStart, *layout.linearStart);
        append(kEnd, layout.endAddress, {});
        return std::move(text_);
    }

  private:
    void appendRun(const MemoryRun& run) {
        const std::span<const std::uint8_t> bytes(run.bytes);
        for (std::size_t at = 0; at < bytes.size();) {
            const std::uint64_t address = run.address + at;
            appendBase(static_cast<std::uint16_t>(address / kPage));
            const std::size_t room = kPage - address % kPage;
            const std::size_t size = std::min({bytes.size() - at, file_.layout().recordSize, room});
            append(kData, static_cast<std::uint16_t>(address), bytes.subspan(at, size));
            at += size;
        }
    }

    void appendBase(std::uint16_t page) {
        if (page == page_) return;
        page_ = page;
        if (usesSegments_) return appendNumber(kSegment, static_cast<std::uint16_t>(page << 12U));
        appendNumber(kUpper, page);
    }

    template <typename T>
    void appendNumber(Type type, T number) {
        std::array<std::uint8_t, sizeof(T)> bytes{};
        writeBytes(bytes.data(), number, ByteOrder::bigEndian);
        append(type, 0, bytes);
    }

    void append(Type type, std::uint16_t address, std::span<const std::uint8_t> data) {
        std::array<std::uint8_t, kHeader> header{static_cast<std::uint8_t>(data.size()), 0, 0, type};
        writeBytes(header.data() + 1, address, ByteOrder::bigEndian);
        const std::array<std::uint8_t, 1> sum{static_cast<std::uint8_t>(0U - sumOf(header) - sumOf(data))};
        text_ += ':';
        appendHex(text_, header);
        appendHex(text_, data);
        appendHex(text_, sum);
        text_ += lineEnd_;
    }

    const MemoryFile& file_;
    const std::string_view lineEnd_;
    const bool usesSegments_;
    std::optional<std::uint16_t> page_;  ///< none: it is told in any case
    std::string text_;
};

}  // namespace

Result<MemoryFile> parseIntelHex(std::string_view text) {
    return Reader(text).read();
}

std::string intelHexText(const MemoryFile& file) {
    return Writer(file).text();
}

}  // namespace lm::params
