// Evaluates conditions for every record of a measurement that holds one of their signals: assertions, of
// which it keeps the verdict, and triggers, of which it tells when they fire.
//
// A signal keeps its value from one of its records to the next. A condition is evaluated once all its signals
// have one, with each further record of one of them; its time is that of the records, which never goes back.
//
// Threads: add...() and bind() before the records, on one thread; onRecord() where records come, forget()
// from any, under a mutex; the rest from any, too. onRecord() allocates nothing. Lifetime: nothing of the
// plan is kept.
#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/result.h"
#include "session/measurement_types.h"
#include "watch/condition.h"
#include "watch/expression.h"
#include "xcp/daq_decoder.h"

namespace lm::watch {

/// What came of an assertion. Times are nanoseconds since the first record of the measurement.
struct Verdict {
    std::string name;
    std::string text;             ///< its expression
    std::uint64_t records = 0;    ///< that it was evaluated for
    std::uint64_t violated = 0;   ///< of these
    std::uint64_t undecided = 0;  ///< likewise: a value was NaN
    std::uint64_t times = 0;      ///< how often it began to be violated
    std::int64_t firstNs = 0;     ///< of the records that violated it
    std::int64_t lastNs = 0;
    /// Of what stands left of the comparison: where that held least, or was violated most.
    std::optional<double> worst = {};
    std::int64_t worstNs = 0;

    bool asWanted() const { return records != 0 && violated == 0 && undecided == 0; }
};

/// Of two triggers that fire with one record the first one counts.
struct Fired {
    std::optional<std::size_t> start = {};
    std::optional<std::size_t> stop = {};
};

/// What a signal of a condition was last.
struct LastValue {
    std::string name;
    std::optional<double> number = {};  ///< none: no record came
    std::string text = {};
};

class Watcher {
  public:
    // All expressions are resolved.
    void addAssertion(std::string name, Expression expression);
    /// Fires when it becomes true, or is true the first time.
    void addStart(Expression expression);
    /// Fires with every record for which it is true.
    void addStop(Expression expression);

    bool isEmpty() const { return expressions_.empty(); }
    bool hasAssertions() const { return !verdicts_.empty(); }
    bool hasTriggers() const { return verdicts_.size() < expressions_.size(); }
    /// Of all expressions, each once.
    std::vector<std::string> signalNames() const;

    /// Whether a planned signal is the one that an expression names.
    using IsNamed = std::function<bool(const session::PlannedSignal& signal, const std::string& name)>;
    /// Errors: "EXPRESSION: NAME is not measured", those of Condition::compile().
    Result<void> bind(const session::MeasurementPlan& plan, const IsNamed& isNamed);

    Fired onRecord(const xcp::DaqRecord& record);

    /// The connection was lost, to this one of several ECUs: no value of it holds any more until its signal
    /// comes again.
    void forget(const std::string& ecu = {});

    std::vector<Verdict> verdicts() const;
    std::vector<LastValue> lastValues() const;
    /// Lines about conditions that could not be decided, each once.
    std::vector<std::string> takeRemarks();
    /// Of the first record, on the clock of the records.
    std::optional<std::int64_t> firstNs() const;

  private:
    enum class Role : std::uint8_t { assertion, start, stop };
    struct Wanted {
        Role role;
        std::size_t index;  ///< among those of its role
        Expression expression;
    };
    /// Within these a value compares as before, and no worse; none at first.
    struct Range {
        double low = std::numeric_limits<double>::quiet_NaN();
        double high = std::numeric_limits<double>::quiet_NaN();
        std::uint32_t slot = 0;
    };
    /// What nearly all records come to, told by a few comparisons: a condition holds or does not as before.
    /// Small, as all of them are gone through for each record.
    struct Check {
        // Of one plain comparison, or several that must all hold; none: it is neither.
        std::uint32_t first = 0;
        std::uint32_t ranges = 0;
        std::uint32_t missing = 0;  ///< signals without a value
        bool wasViolated = false;
        std::array<std::uint64_t, 2> still =
            {};                           ///< records that changed nothing: while it held, while violated
        std::int64_t lastNs = INT64_MIN;  ///< of these
    };
    struct Watched {
        double leastMargin = std::numeric_limits<double>::quiet_NaN();  ///< until there is one
        bool wasTrue = false;
        bool undecided = false;  ///< at least once
        bool undecidedTold = false;
        Role role = Role::assertion;
        std::size_t index = 0;
        Condition condition = {};
        std::int64_t violatedNs =
            INT64_MIN;  ///< the last record with which it was, but for those of the check
    };
    struct Watching {
        value::Element element;
        std::string text;  ///< of the table; empty: the number counts
    };
    /// Small, as all of them are gone through for each record.
    struct Column {
        value::RawDecodeFunction decode = nullptr;
        value::RawCoding coding = {};
        std::uint32_t offset = 0;
        std::uint32_t size = 0;
        std::uint32_t slot = 0;
        bool isLinear = false;     ///< factor and offset are all of its conversion
        bool isConverted = false;  ///< the value is that of `raw`
        double a = 1;
        double b = 0;
        double raw = 0;
        std::unique_ptr<const Watching> of = {};
    };
    struct List {
        std::string ecu;  ///< of several
        std::vector<Column> columns;
        std::vector<std::size_t> conditions;  ///< of these columns
    };
    struct Slot {
        std::string name;
        std::string text;
        bool known = false;
        std::vector<std::size_t> conditions = {};
    };

    std::size_t slotOf(const session::MeasurementPlan& plan, const IsNamed& isNamed, const std::string& name,
                       const std::string& text);
    static Range rangeOf(const Condition::Plain& plain, bool isTrue);
    static double valueOf(const Column& column);
    void setKnown(Slot& slot);
    void evaluate(std::size_t index, Fired& fired);
    void judge(Watched& watched, Check& check, double truth);
    static std::int64_t lastViolationNs(const Watched& watched, const Check& check);
    void expectTheSame(const Watched& watched, const Check& check, bool isTrue);

    std::vector<Wanted> expressions_;  ///< constant since bind()
    std::size_t starts_ = 0;
    std::size_t stops_ = 0;

    mutable std::mutex mutex_;  // everything below
    std::vector<List> lists_;
    std::vector<Slot> slots_;
    std::vector<double> values_;  ///< of the slots
    std::size_t unknown_ = 0;     ///< slots without a value
    std::vector<Watched> watched_;
    std::vector<Check> checks_;             ///< of each of `watched_`
    std::vector<Range> ranges_;             ///< of `checks_`
    std::vector<Condition::Plain> plains_;  ///< of each of `ranges_`
    std::vector<Verdict> verdicts_;
    std::optional<std::int64_t> firstNs_;
    std::int64_t nowNs_ = INT64_MIN;
};

}  // namespace lm::watch
