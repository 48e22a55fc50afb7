#include "cli/signal_extremes.h"

#include <cmath>
#include <cstring>
#include <utility>
#include <variant>

#include "value/conversion.h"
#include "value/raw_value.h"

namespace lm::cli {

using value::Conversion;

SignalExtremes::Column SignalExtremes::columnOf(const session::PlannedSignal& signal, std::size_t index) {
    Column column{index, signal.recordOffset, signal.element};
    const value::RawCoding& coding = column.element.coding;
    // The decoders that are chosen beforehand know no BIT_OPERATION.
    column.decode = coding.hasBitOperation() ? &value::decodeRaw : value::rawDecoder(coding);
    const Conversion::Kind& kind = column.element.conversion->kind();
    const auto* linear = std::get_if<Conversion::Linear>(&kind);
    column.isReversed = linear != nullptr && linear->a < 0;
    column.isCurved = linear == nullptr && !std::holds_alternative<Conversion::Identical>(kind) &&
                      !std::holds_alternative<Conversion::VerbalTable>(kind);
    column.isWide = coding.isWide() && !column.isCurved;
    return column;
}

void SignalExtremes::setPlan(const session::MeasurementPlan& plan) {
    const std::lock_guard lock(mutex_);
    columns_.assign(plan.daq.lists.size(), {});
    now_.lists.assign(plan.daq.lists.size(), {});
    now_.signals.assign(plan.planned.size(), {});
    for (std::size_t i = 0; i < plan.planned.size(); ++i)
        columns_.at(plan.planned[i].listIndex).push_back(columnOf(plan.planned[i], i));
}

SignalExtremes::Key SignalExtremes::keyOf(const Column& column, const std::uint8_t* bytes) {
    const value::RawCoding& coding = column.element.coding;
    if (column.isWide) {
        constexpr std::uint64_t kTopBit = std::uint64_t{1} << 63U;
        const std::uint64_t bits = value::decodeInteger(bytes, coding);
        const std::uint64_t ordered = value::hasSign(coding) ? bits ^ kTopBit : bits;
        return {0, column.isReversed ? ~ordered : ordered};
    }
    const double raw = column.decode(bytes, coding);
    if (column.isCurved) return {column.element.conversion->toPhysical(raw)};
    return {column.isReversed ? -raw : raw};
}

void SignalExtremes::add(Column& column, Signal& signal, const std::uint8_t* bytes) {
    const std::size_t size = column.element.size();
    std::memcpy(signal.last.data(), bytes, size);
    signal.seen = true;
    const Key key = keyOf(column, bytes);
    if (std::isnan(key.number)) return;
    if (!signal.ranged || key < column.least) {
        column.least = key;
        std::memcpy(signal.least.data(), bytes, size);
    }
    if (!signal.ranged || column.greatest < key) {
        column.greatest = key;
        std::memcpy(signal.greatest.data(), bytes, size);
    }
    signal.ranged = true;
}

void SignalExtremes::onRecord(const xcp::DaqRecord& record) {
    const std::lock_guard lock(mutex_);
    if (record.listIndex >= columns_.size()) return;
    List& list = now_.lists[record.listIndex];
    if (list.records++ == 0) list.firstNs = list.lastNs = record.receiveTimeNs;
    list.beforeNs = std::exchange(list.lastNs, record.receiveTimeNs);
    for (Column& column : columns_[record.listIndex]) {
        if (column.offset + column.element.size() > record.size) continue;
        add(column, now_.signals[column.signal], record.data + column.offset);
    }
}

void SignalExtremes::copyTo(Snapshot& snapshot) const {
    const std::lock_guard lock(mutex_);
    snapshot = now_;
}

}  // namespace lm::cli
