#include "watch/watcher.h"

#include <algorithm>
#include <bit>
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
        column.slot = static_cast<std::uint32_t>(slots_.size() - 1);
        const auto& kind = signal.element.conversion->kind();
        const auto* const linear = std::get_if<value::Conversion::Linear>(&kind);
        column.isLinear = text.empty() && (linear != nullptr || signal.element.conversion->isVerbal() ||
                                           std::holds_alternative<value::Conversion::Identical>(kind));
        if (linear != nullptr) column.a = linear->a;
        if (linear != nullptr) column.b = linear->b;
        column.of = std::make_unique<const Watching>(Watching{signal.element, text});
        lists_.at(signal.listIndex).columns.push_back(std::move(column));
    }
    return slots_.size() - 1;
}

Result<void> Watcher::bind(const session::MeasurementPlan& plan, const IsNamed& isNamed) {
    const std::lock_guard lock(mutex_);
    lists_.clear();
    lists_.resize(plan.daq.lists.size());
    for (std::size_t i = 0; i < plan.listEcus.size(); ++i)
        lists_[i].ecu = plan.listEcus[i];
    slots_.clear();
    watched_.clear();
    checks_.clear();
    ranges_.clear();
    plains_.clear();
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
        Check& check = checks_.emplace_back();
        check.missing = static_cast<std::uint32_t>(condition.value().slots().size());
        watched.condition = std::move(condition).value();
        const std::vector<Condition::Plain> plains = watched.condition.plainParts();
        check.first = static_cast<std::uint32_t>(ranges_.size());
        check.ranges = static_cast<std::uint32_t>(plains.size());
        plains_.insert(plains_.end(), plains.begin(), plains.end());
        for (const Condition::Plain& plain : plains)
            ranges_.push_back({.slot = static_cast<std::uint32_t>(plain.slot)});
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

/// Of the values with which it is true, or false. None where these are no range, and each is to be looked at.
Watcher::Range Watcher::rangeOf(const Condition::Plain& plain, bool isTrue) {
    constexpr double kAny = std::numeric_limits<double>::infinity();
    const double below = std::nextafter(plain.number, -kAny);
    const double above = std::nextafter(plain.number, kAny);
    Range range{.slot = static_cast<std::uint32_t>(plain.slot)};
    const auto between = [&range](double low, double high) {
        range.low = low;
        range.high = high;
    };
    switch (plain.opcode) {
        case value::kLess:
            isTrue ? between(-kAny, below) : between(plain.number, kAny);
            break;
        case value::kLessEqual:
            isTrue ? between(-kAny, plain.number) : between(above, kAny);
            break;
        case value::kGreater:
            isTrue ? between(above, kAny) : between(-kAny, plain.number);
            break;
        case value::kGreaterEqual:
            isTrue ? between(plain.number, kAny) : between(-kAny, below);
            break;
        default:
            if (isTrue == (plain.opcode == value::kEqual)) between(plain.number, plain.number);
            break;
    }
    return range;
}

double Watcher::valueOf(const Column& column) {
    const value::Conversion& conversion = *column.of->element.conversion;
    if (column.of->text.empty()) return conversion.toPhysical(column.raw);
    const auto text = conversion.verbalText(column.raw);
    return std::isnan(column.raw) ? column.raw : text && *text == column.of->text ? 1 : 0;
}

void Watcher::setKnown(Slot& slot) {
    if (std::exchange(slot.known, true)) return;
    --unknown_;
    for (const std::size_t index : slot.conditions)
        --checks_[index].missing;
}

void Watcher::evaluate(std::size_t index, Fired& fired) {
    Watched& watched = watched_[index];
    const double truth = watched.condition.evaluate(values_.data(), nowNs_);
    const bool undecided = std::isnan(truth);
    watched.undecided = watched.undecided || undecided;
    if (watched.role == Role::assertion) return judge(watched, checks_[index], truth);
    if (undecided) return;
    const bool isTrue = truth != 0;
    if (watched.role == Role::stop) {
        if (isTrue && !fired.stop) fired.stop = watched.index;
    } else if (isTrue && !watched.wasTrue && !fired.start) {
        fired.start = watched.index;
    }
    watched.wasTrue = isTrue;
    expectTheSame(watched, checks_[index], isTrue);
}

void Watcher::judge(Watched& watched, Check& check, double truth) {
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
    if (std::isnan(truth)) {  // neither; it leaves open whether a violation goes on
        ++verdict.undecided;
        return;
    }
    watched.violatedNs = truth == 0 ? nowNs_ : lastViolationNs(watched, check);
    const bool wasViolated = std::exchange(check.wasViolated, truth == 0);
    if (check.wasViolated) {
        if (verdict.violated++ == 0) verdict.firstNs = nowNs_ - *firstNs_;
        if (!wasViolated) ++verdict.times;
    }
    expectTheSame(watched, check, truth != 0);
}

/// Of those so far; what changed nothing while it held came before that.
std::int64_t Watcher::lastViolationNs(const Watched& watched, const Check& check) {
    return check.wasViolated ? std::max(watched.violatedNs, check.lastNs) : watched.violatedNs;
}

/// Nothing is the same for a stop that fires, and where several comparisons do not all hold: these are looked
/// at each time.
void Watcher::expectTheSame(const Watched& watched, const Check& check, bool isTrue) {
    const bool isOne = check.ranges == 1;
    const bool isLookedAt = isTrue ? watched.role == Role::stop : !isOne;
    for (std::uint32_t i = check.first; i < check.first + check.ranges; ++i) {
        Range& range = ranges_[i];
        range = isLookedAt ? Range{.slot = range.slot} : rangeOf(plains_[i], isTrue);
        if (watched.role != Role::assertion || !isOne) continue;
        // A worse value is news.
        const std::optional<double>& worst = verdicts_[watched.index].worst;
        const std::uint8_t opcode = plains_[i].opcode;
        if (!worst)
            range.low = std::numeric_limits<double>::quiet_NaN();
        else if (opcode == value::kGreater || opcode == value::kGreaterEqual)
            range.low = std::max(range.low, *worst);
        else if (opcode == value::kLess || opcode == value::kLessEqual)
            range.high = std::min(range.high, *worst);
    }
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
        if (column.offset + column.size > record.size) continue;
        const double raw = column.decode(record.data + column.offset, column.coding);
        // What a table or a formula tells is the same as long as the raw value is, bit for bit.
        const bool isSame = std::bit_cast<std::uint64_t>(raw) == std::bit_cast<std::uint64_t>(column.raw);
        column.raw = raw;
        if (column.isLinear) {
            values_[column.slot] = column.a * raw + column.b;
        } else if (!isSame || !column.isConverted) {
            values_[column.slot] = valueOf(column);
            column.isConverted = true;
        }
        if (unknown_ != 0) setKnown(slots_[column.slot]);
    }
    const double* const values = values_.data();
    const Range* const ranges = ranges_.data();
    for (const std::size_t index : list.conditions) {
        Check& check = checks_[index];
        if (check.missing != 0) continue;
        bool stays = check.ranges != 0;
        for (const Range *range = ranges + check.first, *end = range + check.ranges; range != end; ++range) {
            const double now = values[range->slot];
            stays = stays && now >= range->low && now <= range->high;  // never with NaN
        }
        if (stays) {
            ++check.still[check.wasViolated ? 1 : 0];
            check.lastNs = nowNs_;
        } else {
            evaluate(index, fired);
        }
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
                ++checks_[index].missing;
        }
        for (const std::size_t index : list.conditions)
            watched_[index].condition.forget();
    }
}

std::vector<Verdict> Watcher::verdicts() const {
    const std::lock_guard lock(mutex_);
    std::vector<Verdict> verdicts = verdicts_;
    for (std::size_t i = 0; i < watched_.size(); ++i) {
        if (watched_[i].role != Role::assertion) continue;
        Verdict& verdict = verdicts[watched_[i].index];
        const Check& check = checks_[i];
        verdict.records += check.still[0] + check.still[1];
        verdict.violated += check.still[1];
        if (verdict.violated != 0) verdict.lastNs = lastViolationNs(watched_[i], check) - *firstNs_;
    }
    return verdicts;
}

std::vector<LastValue> Watcher::lastValues() const {
    const std::lock_guard lock(mutex_);
    std::vector<LastValue> values;
    for (const List& list : lists_) {
        for (const Column& column : list.columns) {
            const std::string& name = column.of->element.name;
            const bool told = std::any_of(values.begin(), values.end(),
                                          [&name](const LastValue& value) { return value.name == name; });
            if (told) continue;
            values.push_back({.name = name});
            if (!slots_[column.slot].known) continue;
            const value::Conversion& conversion = *column.of->element.conversion;
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
