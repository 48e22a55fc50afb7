// From raw to physical values and back, following a COMPU_METHOD, and the display text of a value.
//
// Threads: immutable once built; all queries may run on any thread. Lifetime: owns everything; independent of
// the description it was built from.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/result.h"
#include "value/formula.h"
#include "value/table_index.h"
#include "value/value.h"

namespace lm::value {

class Conversion {
  public:
    struct Identical {};
    struct Linear {  ///< physical = a * raw + b
        double a = 1;
        double b = 0;
    };
    struct Rational {  ///< raw = (a p^2 + b p + c) / (d p^2 + e p + f)
        double a = 0;
        double b = 1;
        double c = 0;
        double d = 0;
        double e = 0;
        double f = 1;
    };
    struct NumericTable {
        bool interpolate = false;
        TablePairs pairs;  ///< the constructor sorts them
        std::optional<double> defaultValue;
    };
    struct VerbalTable {
        struct Range {
            double lower = 0;
            double upper = 0;
            std::string text;
        };
        std::vector<Range> ranges;  ///< in file order
        std::string defaultText;    ///< empty: none
    };
    struct Formulas {
        Formula forward;
        std::optional<Formula> inverse;
    };
    /// The alternatives stand in the order of the kinds' tags 0 to 5.
    using Kind = std::variant<Identical, Linear, Rational, NumericTable, VerbalTable, Formulas>;

    Conversion() = default;
    Conversion(Kind kind, std::string format, std::string unit);

    /// Never fails: what has no physical value is NaN.
    double toPhysical(double raw) const {
        if (const auto* linear = std::get_if<Linear>(&kind_)) return linear->a * raw + linear->b;
        return toPhysicalBySlowerKind(raw);
    }

    /// Errors: invalidArgument with the reason; unsupported for a FORM without an inverse formula.
    Result<double> toRaw(double physical) const;

    /// How the physical values come of integers without rounding, where they do.
    const std::optional<ExactLine>& exactLine() const { return exactLine_; }
    /// The values are the raw ones times a power of two, so that a float keeps its digits.
    bool isBinaryScale() const { return exactLine_ && exactLine_->isPowerOfTwo(); }

    /// The physical number of a raw one; without rounding where both are exact.
    Value toPhysical(const Value& raw) const;

    /// The text of a raw value; none for conversions that are not verbal and for values without a text.
    std::optional<std::string_view> verbalText(double raw) const;

    /// The raw value (lower bound) of a verbal text.
    Result<double> rawFromText(std::string_view text) const;

    /// Display text of a raw value: the verbal text, else the physical value as below.
    std::string format(double raw) const;
    /// Display text of a physical value: a text as it is, a number with the decimals that the format asks
    /// for.
    std::string formatPhysical(const Value& physical) const;

    /// What the last digit displayed for a physical value is worth.
    double displayStep(double physical) const;

    bool isVerbal() const { return std::holds_alternative<VerbalTable>(kind_); }
    const Kind& kind() const { return kind_; }
    /// Of a numeric table's pairs: for loops over many values.
    const TableIndex& tableIndex() const { return tableIndex_; }
    const std::string& formatText() const { return format_; }
    const std::string& unit() const { return unit_; }

    /// An object's own FORMAT and PHYS_UNIT replace the method's.
    void setFormat(std::string format);
    void setUnit(std::string unit);

  private:
    /// A bound of verbal ranges, and which range (its position in the table) is the first one to hold it and
    /// to hold what lies between it and the next bound. Binary search over these needs no thought of
    /// overlapping ranges.
    struct VerbalBound {
        double value;
        std::size_t at;
        std::size_t behind;
    };

    double toPhysicalBySlowerKind(double raw) const;
    void indexRanges(const VerbalTable& table);

    Kind kind_;
    std::string format_;
    std::string unit_;
    int decimals_ = kGeneralFormat;
    std::optional<ExactLine> exactLine_ = ExactLine();
    std::vector<VerbalBound> verbalBounds_;  ///< ascending; of a verbal table
    TableIndex tableIndex_;                  ///< of a numeric table

    static constexpr int kGeneralFormat = -1;
};

}  // namespace lm::value
