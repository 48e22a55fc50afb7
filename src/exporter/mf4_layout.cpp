#include "exporter/mf4_layout.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <set>
#include <string_view>
#include <utility>

namespace lm::exporter {
namespace {

constexpr std::uint8_t kUnsigned = 0;
constexpr std::uint8_t kSigned = 2;
constexpr std::uint8_t kFloat = 4;
constexpr std::uint8_t kBigEndian = 1;  ///< added to the little-endian types

std::uint8_t integerType(value::DataType type) {
    return value::isSigned(type) ? kSigned : kUnsigned;
}

}  // namespace

Mf4Layout::Form Mf4Layout::formOf(const Mf4Channel& channel) {
    if (!channel.conversion.obstacle.empty()) return Form::physical;
    const value::RawCoding& coding = channel.signal->coding;
    // MDF 4.10 has no float of 2 bytes.
    if (coding.dataType == value::DataType::float16) return Form::single;
    if (value::isFloat(coding.dataType)) return Form::copied;
    const value::IntegerField field(coding);
    const std::uint64_t bits = field.mask >> field.shift;
    const bool oneRun = bits != 0 && (bits & (bits + 1)) == 0;
    return oneRun ? Form::copied : Form::integer;
}

/// Type and bits of a channel; its byte offset is that of the element on entry, of its bits on return.
void Mf4Layout::describe(Mf4Channel& channel, Form form) const {
    const value::RawCoding& coding = channel.signal->coding;
    if (form == Form::physical || form == Form::single) {
        channel.dataType = kFloat;
        channel.bitCount = form == Form::physical ? 64 : 32;
        return;
    }
    const auto size = static_cast<std::uint32_t>(coding.size());
    if (form == Form::integer) {
        channel.dataType = integerType(coding.dataType);
        channel.bitCount = 8 * size;
        return;
    }
    const bool isBig = coding.byteOrder == ByteOrder::bigEndian;
    const std::uint8_t kind = value::isFloat(coding.dataType) ? kFloat : integerType(coding.dataType);
    channel.dataType = static_cast<std::uint8_t>(kind + (isBig ? kBigEndian : 0));
    channel.bitCount = 8 * size;
    if (value::isFloat(coding.dataType)) return;
    const value::IntegerField field(coding);
    const std::uint32_t lowest = field.shift;
    const std::uint32_t highest = lowest + field.width - 1;
    channel.bitCount = field.width;
    channel.bitOffset = static_cast<std::uint8_t>(lowest % 8);
    channel.byteOffset += isBig ? size - 1 - highest / 8 : lowest / 8;
}

void Mf4Layout::packField(Mf4Channel& channel, Form form) {
    Field field{form, storage::kTimestampSize + channel.signal->recordOffset, stride_,
                channel.signal->coding.size(), channel.signal};
    if (form == Form::single) field.size = 4;
    if (form == Form::physical) field.size = 8;
    channel.byteOffset = static_cast<std::uint32_t>(stride_);
    stride_ += field.size;
    Field& before = fields_.back();
    const bool continues = form == Form::copied && before.form == Form::copied &&
                           before.from + before.size == field.from && before.to + before.size == field.to;
    if (continues) {
        before.size += field.size;
    } else {
        fields_.push_back(field);
    }
}

/// One per signal; a signal whose physical values are computed gets a second one, "NAME.raw".
void Mf4Layout::addChannels(const ExportGroup& group) {
    std::set<std::string_view> taken;
    for (const storage::SignalInfo* signal : group.signals)
        taken.insert(signal->name);
    for (const storage::SignalInfo* signal : group.signals) {
        channels_.push_back({signal, signal->name, mf4Conversion(*signal), false, 0, 0, 0, 0});
        if (channels_.back().conversion.obstacle.empty()) continue;
        std::string name = signal->name + ".raw";
        while (taken.count(name) != 0)
            name += "_";
        channels_.push_back({signal, std::move(name), {}, true, 0, 0, 0, 0});
    }
}

Result<Mf4Layout> Mf4Layout::make(const ExportGroup& group, std::int64_t startNs) {
    Mf4Layout layout;
    layout.startNs_ = startNs;
    layout.addChannels(group);
    std::vector<Form> forms;
    for (const Mf4Channel& channel : layout.channels_)
        forms.push_back(formOf(channel));
    const bool allCopied =
        std::all_of(forms.begin(), forms.end(), [](Form form) { return form == Form::copied; });
    const bool wholeRecords = allCopied && group.signals.size() == group.reader.info().signals.size();
    layout.asStored_ = wholeRecords && group.every == 1;
    layout.stride_ = wholeRecords ? group.reader.stride() : storage::kTimestampSize;
    layout.fields_.push_back({Form::copied, 0, 0, layout.stride_, nullptr});
    for (std::size_t i = 0; i < layout.channels_.size(); ++i) {
        Mf4Channel& channel = layout.channels_[i];
        channel.byteOffset = storage::kTimestampSize + channel.signal->recordOffset;
        if (!wholeRecords) layout.packField(channel, forms[i]);
        layout.describe(channel, forms[i]);
    }
    if (layout.stride_ > std::numeric_limits<std::uint32_t>::max()) {
        return Error{ErrorCode::unsupported, group.reader.info().name + ": record too large for MDF"};
    }
    return layout;
}

void Mf4Layout::pack(const std::uint8_t* stored, std::uint8_t* to) const {
    for (const Field& field : fields_) {
        const std::uint8_t* from = stored + field.from;
        std::uint8_t* place = to + field.to;
        switch (field.form) {
            case Form::copied:
                std::memcpy(place, from, field.size);
                break;
            case Form::single: {
                const auto value = static_cast<float>(value::decodeRaw(from, field.signal->coding));
                writeLittle(place, std::bit_cast<std::uint32_t>(value));
                break;
            }
            case Form::integer:
                writeSized(place, value::decodeInteger(from, field.signal->coding), field.size,
                           ByteOrder::littleEndian);
                break;
            case Form::physical: {
                const double raw = value::decodeRaw(from, field.signal->coding);
                const double value = field.signal->conversion->toPhysical(raw);
                writeLittle(place, std::bit_cast<std::uint64_t>(value));
                break;
            }
        }
    }
    // Damaged timestamps may be any numbers.
    writeLittle(to, readLittle<std::uint64_t>(stored) - static_cast<std::uint64_t>(startNs_));
}

}  // namespace lm::exporter
