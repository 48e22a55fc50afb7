#include "watch/watcher.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "value/conversion.h"
#include "value/formula_opcode.h"
#include "value/raw_value.h"

namespace lm::watch {

void Watcher::addAssertion(std::string name, Expression expression) {
    verdicts_.push_back({.name = std::move(name), .text = expression.text()});
    expressions_.push_back({Role::assertion, verdicts_.size() - 1, std::move(expression)});
}

void Watcher::addStart(Expression expression) {
    expressions_.push_back({Role::start, starts_++, std::move(expression)});
}

void Watcher::addStop(Expression expression) {
    expressions_.push_back({Role::stop, stops_++, std::move(expression)});
}

std::vector<std::string> Watcher::signalNames() const {
    std::vector<std::string> all;
    for (const Wanted& wanted : expressions_) {
        for (std::string& name : wanted.expression.signalNames()) {
            if (std::find(all.begin(), all.end(), name) == all.end()) all.push_back(std::move(name));
        }
    }
    return all;
}

std::size_t Watcher::slotOf(const session::MeasurementPlan& plan, const IsNamed& isNamed,
                            const std::string& name, const std::string& text) {
    const auto known = std::find_if(slots_.begin(), slots_.end(),
                                    [&](const Slot& slot) { return slot.name == name && slot.text == text; });
    if (known != slots_.end()) return static_cast<std::size_t>(known - slots_.begin());
    slots_.push_back({.name = name, .text = text});
    for (const session::PlannedSignal& signal : plan.planned) {
        if (!isNamed(signal, name)) continue;
        Column column;
        column.coding = signal.element.coding;
        // The decoders that are chosen beforehand know no BIT_OPERATION.
        column.decode =
            column.coding.hasBitOperation() ? &value::decodeRaw : value::rawDecoder(column.coding);
        column.offset = signal.recordOffset;
        column.size = static_cast<std::uint32_t>(signal.element.size());
        column.slot = slots_.size() - 1;
        const auto& kind = signal.element.conversion->kind();
        const auto* const linear = std::get_if<value::Conversion::Linear>(&kind);
        column.isLinear = text.empty() && (linear != nullptr || signal.element.conversion->isVerbal() ||
                                           std::holds_alternative<value::Conversion::Identical>(kind));
        if (linear != nullptr) column.a = linear->a;
        if (linear != nullptr) column.b = linear->b;
        column.element = signal.element;
        column.text = text;
        lists_.at(signal.listIndex).columns.push_back(std::move(column));
    }
    return slots_.size() - 1;
}

Result<void> Watcher::bind(const session::MeasurementPlan& plan, const IsNamed& isNamed) {
    const std::lock_guard lock(mutex_);
    lists_.assign(plan.daq.lists.size(), {});
    for (std::size_t i = 0; i < plan.listEcus.size(); ++i)
        lists_[i].ecu = plan.listEcus[i];
    slots_.clear();
    watched_.clear();
    for (const Wanted& wanted : expressions_) {
        const std::string prefix = "'" + wanted.expression.text() + "': ";
        for (const std::string& name : wanted.expression.signalNames()) {
            const bool measured =
                std::any_of(plan.planned.begin(), plan.planned.end(),
                            [&](const session::PlannedSignal& signal) { return isNamed(signal, name); });
            if (!measured) return Error{ErrorCode::notFound, prefix + name + " is not measured"};
        }
        auto condition = Condition::compile(wanted.expression, [&](const auto& name, const auto& text) {
            return slotOf(plan, isNamed, name, text);
        });
        if (!condition) return Error{condition.error().code, prefix + condition.error().text()};
        for (const std::size_t slot : condition.value().slots())
            slots_[slot].conditions.push_back(watched_.size());
        Watched& watched = watched_.emplace_back();
        watched.role = wanted.role;
        watched.index = wanted.index;
        watched.missing = condition.value().slots().size();
        watched.condition = std::move(condition).value();
        if (watched.role == Role::assertion) watched.margin = marginOf(watched.condition);
    }
    for (List& list : lists_) {
        for (const Column& column : list.columns) {
            for (const std::size_t index : slots_[column.slot].conditions)
                list.conditions.push_back(index);
        }
        std::sort(list.conditions.begin(), list.conditions.end());
        list.conditions.erase(std::unique(list.conditions.begin(), list.conditions.end()),
                              list.conditions.end());
    }
    unknown_ = slots_.size();
    values_.assign(slots_.size(), std::numeric_limits<double>::quiet_NaN());
    return {};
}

Watcher::Margin Watcher::marginOf(const Condition& condition) {
    const auto plain = condition.plain();
    if (!plain) return {};
    Margin margin{.slot = static_cast<std::uint32_t>(plain->slot), .isPlain = true, .number = plain->number};
    const std::uint8_t opcode = plain->opcode;
    margin.isDistance = opcode == value::kEqual || opcode == value::kNotEqual;
    margin.isStrict = opcode == value::kLess || opcode == value::kGreater || opcode == value::kNotEqual;
    if (opcode == value::kLess || opcode == value::kLessEqual || opcode == value::kEqual) margin.sign = -1;
    return margin;
}

void Watcher::take(Column& column, const std::uint8_t* bytes) {
    column.raw = column.decode(bytes, column.coding);
    double& target = values_[column.slot];
    if (column.isLinear) {
        target = column.a * column.raw + column.b;
    } else if (column.text.empty()) {
        target = column.element.conversion->toPhysical(column.raw);
    } else {
        const auto text = column.element.conversion->verbalText(column.raw);
        target = std::isnan(column.raw) ? column.raw : text && *text == column.text ? 1 : 0;
    }
    if (unknown_ != 0) setKnown(slots_[column.slot]);
}

void Watcher::setKnown(Slot& slot) {
    if (std::exchange(slot.known, true)) return;
    --unknown_;
    for (const std::size_t index : slot.conditions)
        --watched_[index].missing;
}

void Watcher::judge(Watched& watched, double truth) {
    Verdict& verdict = verdicts_[watched.index];
    ++verdict.records;
    const Condition& condition = watched.condition;
    if (condition.comparesNumbers() && !std::isnan(condition.margin())) {
        if (!verdict.worst || condition.margin() < watched.leastMargin) {
            watched.leastMargin = condition.margin();
            verdict.worst = condition.left();
            verdict.worstNs = nowNs_ - *firstNs_;
        }
    }
    if (truth != 0) {  // NaN is neither, and leaves open whether a violation goes on
        watched.wasViolated = watched.wasViolated && std::isnan(truth);
        if (std::isnan(truth)) ++verdict.undecided;
        return;
    }
    verdict.lastNs = nowNs_ - *firstNs_;
    if (verdict.violated++ == 0) verdict.firstNs = verdict.lastNs;
    if (!std::exchange(watched.wasViolated, true)) ++verdict.times;
}

void Watcher::evaluate(Watched& watched, Fired& fired) {
    const double truth = watched.condition.evaluate(values_.data(), nowNs_);
    const bool undecided = std::isnan(truth);
    watched.undecided = watched.undecided || undecided;
    if (watched.role == Role::assertion) return judge(watched, truth);
    if (undecided) return;
    const bool isTrue = truth != 0;
    if (watched.role == Role::stop) {
        if (isTrue && !fired.stop) fired.stop = watched.index;
        return;
    }
    if (isTrue && !watched.wasTrue && !fired.start) fired.start = watched.index;
    watched.wasTrue = isTrue;
}

/// What nearly all records come to, told by one comparison: a plain assertion holds or does not as before.
bool Watcher::staysAsItWas(Watched& watched) {
    const double margin = watched.margin.of(values_[watched.margin.slot]);
    // A value that is not a number is never as before.
    if (!(margin >= watched.leastMargin) || watched.margin.holds(margin) == watched.wasViolated) return false;
    if (watched.wasViolated) {
        ++watched.stillViolated;
        watched.violatedNs = nowNs_;
    } else {
        ++watched.stillHeld;
    }
    return true;
}

Fired Watcher::onRecord(const xcp::DaqRecord& record) {
    Fired fired;
    const std::lock_guard lock(mutex_);
    if (!firstNs_) firstNs_ = record.timeNs();
    if (record.listIndex >= lists_.size()) return fired;
    List& list = lists_[record.listIndex];
    if (list.columns.empty()) return fired;
    nowNs_ = std::max(nowNs_, record.timeNs());
    for (Column& column : list.columns) {
        if (column.offset + column.size <= record.size) take(column, record.data + column.offset);
    }
    for (const std::size_t index : list.conditions) {
        Watched& watched = watched_[index];
        if (watched.missing != 0) continue;
        if (!watched.margin.isPlain || !staysAsItWas(watched)) evaluate(watched, fired);
    }
    return fired;
}

void Watcher::forget(const std::string& ecu) {
    const std::lock_guard lock(mutex_);
    for (const List& list : lists_) {
        if (list.ecu != ecu) continue;
        for (const Column& column : list.columns) {
            if (!std::exchange(slots_[column.slot].known, false)) continue;
            ++unknown_;
            for (const std::size_t index : slots_[column.slot].conditions)
                ++watched_[index].missing;
        }
        for (const std::size_t index : list.conditions)
            watched_[index].condition.forget();
    }
}

std::vector<Verdict> Watcher::verdicts() const {
    const std::lock_guard lock(mutex_);
    std::vector<Verdict> verdicts = verdicts_;
    for (const Watched& watched : watched_) {
        if (watched.role != Role::assertion) continue;
        Verdict& verdict = verdicts[watched.index];
        verdict.records += watched.stillHeld + watched.stillViolated;
        verdict.violated += watched.stillViolated;
        if (watched.stillViolated != 0)
            verdict.lastNs = std::max(verdict.lastNs, watched.violatedNs - *firstNs_);
    }
    return verdicts;
}

std::vector<LastValue> Watcher::lastValues() const {
    const std::lock_guard lock(mutex_);
    std::vector<LastValue> values;
    for (const List& list : lists_) {
        for (const Column& column : list.columns) {
            const std::string& name = column.element.name;
            const bool told = std::any_of(values.begin(), values.end(),
                                          [&name](const LastValue& value) { return value.name == name; });
            if (told) continue;
            values.push_back({.name = name});
            if (!slots_[column.slot].known) continue;
            const value::Conversion& conversion = *column.element.conversion;
            values.back().number = conversion.toPhysical(column.raw);
            values.back().text = conversion.format(column.raw);
            if (!conversion.unit().empty() && !conversion.isVerbal())
                values.back().text += " " + conversion.unit();
        }
    }
    return values;
}

std::vector<std::string> Watcher::takeRemarks() {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> remarks;
    for (std::size_t i = 0; i < watched_.size(); ++i) {
        if (!watched_[i].undecided || std::exchange(watched_[i].undecidedTold, true)) continue;
        remarks.push_back("'" + expressions_[i].expression.text() +
                          "' could not be decided for a record: a value is not a number (NaN)");
    }
    return remarks;
}

std::optional<std::int64_t> Watcher::firstNs() const {
    const std::lock_guard lock(mutex_);
    return firstNs_;
}

}  // namespace lm::watch
