#include "storage/write/pyramid.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#include "core/bytes.h"
#include "storage/format/recording_format.h"

namespace lm::storage {

FloatRange narrowOutward(const ValueRange& range) {
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    if (range.isEmpty()) {
        constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
        return {kNaN, kNaN};
    }
    auto minimum = static_cast<float>(range.minimum);
    auto maximum = static_cast<float>(range.maximum);
    if (static_cast<double>(minimum) > range.minimum) minimum = std::nextafterf(minimum, -kInfinity);
    if (static_cast<double>(maximum) < range.maximum) maximum = std::nextafterf(maximum, kInfinity);
    return {minimum, maximum};
}

Pyramid::Pyramid(std::size_t groupIndex, const GroupInfo& group, RecordingFaults& faults)
    : groupIndex_(groupIndex),
      stride_(std::size_t{group.recordSize} + kTimestampSize),
      faults_(&faults),
      entry_(8 * group.signals.size()) {
    decoders_.reserve(group.signals.size());
    std::vector<std::size_t> withTables;  // different ones
    for (const SignalInfo& signal : group.signals) {
        SignalDecoder& decoder = decoders_.emplace_back(signal);
        const auto shares = [&](std::size_t other) { return decoder.shareTable(decoders_[other]); };
        if (decoder.hasTable() && std::none_of(withTables.begin(), withTables.end(), shares))
            withTables.push_back(decoders_.size() - 1);
    }
    levels_.push_back(makeLevel());
}

void Pyramid::add(const std::uint8_t* records, std::size_t count) {
    if (decoders_.empty()) return;
    while (count > 0) {
        Level& first = levels_.front();
        const auto taken = std::min<std::size_t>(count, kBlockLength - first.count);
        for (std::size_t i = 0; i < decoders_.size(); ++i) {
            decoders_[i].extend(first.ranges[i], records + kTimestampSize, stride_, taken);
        }
        first.count += static_cast<std::uint32_t>(taken);
        records += taken * stride_;
        count -= taken;
        completeBlocks();
    }
}

void Pyramid::completeBlocks() {
    for (std::size_t i = 0; levels_[i].count == kBlockLength; ++i) {
        appendEntry(i);
        if (i + 1 == levels_.size()) levels_.push_back(makeLevel());
        Level& level = levels_[i];
        Level& next = levels_[i + 1];
        for (std::size_t s = 0; s < decoders_.size(); ++s) {
            // An empty range extends nothing.
            next.ranges[s].minimum = std::min(next.ranges[s].minimum, level.ranges[s].minimum);
            next.ranges[s].maximum = std::max(next.ranges[s].maximum, level.ranges[s].maximum);
            level.ranges[s] = ValueRange{};
        }
        level.count = 0;
        ++next.count;
    }
}

void Pyramid::appendEntry(std::size_t levelIndex) {
    Level& level = levels_[levelIndex];
    if (!level.file && !level.missing) openLevel(levelIndex);
    if (!level.file) return;
    for (std::size_t i = 0; i < level.ranges.size(); ++i) {
        const FloatRange range = narrowOutward(level.ranges[i]);
        writeLittle(&entry_[8 * i], std::bit_cast<std::uint32_t>(range.minimum));
        writeLittle(&entry_[8 * i + 4], std::bit_cast<std::uint32_t>(range.maximum));
    }
    level.file->append(entry_);
}

void Pyramid::openLevel(std::size_t levelIndex) {
    const auto number = static_cast<std::uint32_t>(levelIndex + 1);
    const std::filesystem::path path = faults_->directory() / levelFileName(groupIndex_, number);
    const auto signalCount = static_cast<std::uint32_t>(decoders_.size());
    auto file = DerivedFile::create(path, levelHeader(number, signalCount), entry_.size(), *faults_);
    if (file) {
        levels_[levelIndex].file = std::move(file).value();
    } else {
        levels_[levelIndex].missing = true;
        faults_->reportMissingLevel(path, file.error());
    }
}

Pyramid::Level Pyramid::makeLevel() const {
    Level level;
    level.ranges.resize(decoders_.size());
    return level;
}

void Pyramid::flush() {
    for (Level& level : levels_) {
        if (level.file) level.file->flush();
    }
}

void Pyramid::close() {
    for (Level& level : levels_) {
        if (level.file) level.file->close();
    }
}

void Pyramid::appendNewFiles(std::vector<std::filesystem::path>& files) const {
    for (const Level& level : levels_) {
        if (level.file && level.file->file().isNew()) files.push_back(level.file->file().path());
    }
}

}  // namespace lm::storage
