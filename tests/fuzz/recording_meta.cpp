// "meta.json" of a recording: what is read, written and read again is the same, and its signals can be
// decoded from records of the size that it tells.
#include "storage/recording_meta.h"

#include <cmath>

#include "recording_files.h"
#include "storage/signal_decoder.h"

namespace lm::fuzz {
namespace {

void decodeRecords(const storage::GroupInfo& group) {
    constexpr std::size_t kRecords = 3;
    if (group.recordSize > 4096) return;
    Bytes records(kRecords * group.recordSize);
    for (std::size_t i = 0; i < records.size(); ++i)
        records[i] = static_cast<std::uint8_t>(i * 37);
    for (const storage::SignalInfo& signal : group.signals) {
        storage::ValueRange range;
        const storage::SignalDecoder decoder(signal);
        decoder.extend(range, records.data(), group.recordSize, kRecords);
        for (std::size_t i = 0; i < kRecords; ++i) {
            const std::uint8_t* record = records.data() + i * group.recordSize;
            const double value = plainValue(signal, record);
            require(std::isnan(value) || (range.minimum <= value && value <= range.maximum),
                    "each value lies in the range");
            signal.conversion.format(a2l::decodeRaw(record + signal.recordOffset, signal.coding));
        }
    }
}

}  // namespace
}  // namespace lm::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    const auto info = storage::metaFromJson(fuzz::Input(data, size).rest());
    if (!info) return 0;
    const std::string text = storage::metaToJson(info.value());
    const auto again = storage::metaFromJson(text);
    fuzz::require(again.ok(), "what was written can be read");
    fuzz::require(storage::metaToJson(again.value()) == text, "written and read again it is the same");
    for (const storage::GroupInfo& group : info.value().groups)
        fuzz::decodeRecords(group);
    return 0;
}
