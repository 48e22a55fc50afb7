#include "a2l/conversion_builder.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace lm::a2l {
namespace {

using value::Conversion;
using value::Formula;

Error invalid(std::string message) {
    return {ErrorCode::invalidArgument, std::move(message)};
}

Result<Conversion::Kind> buildNumericTable(const Description& description, const CompuMethod& method) {
    const CompuTab* table = description.findCompuTab(method.tableRef);
    if (table == nullptr) return invalid("COMPU_TAB '" + std::string(method.tableRef) + "' not found");
    if (table->pairs.empty()) return invalid("conversion table is empty");
    return Conversion::Kind(Conversion::NumericTable{method.type == ConversionType::tabIntp, table->pairs,
                                                     table->defaultNumeric});
}

Result<Conversion::Kind> buildVerbalTable(const Description& description, const CompuMethod& method) {
    const CompuVtab* table = description.findCompuVtab(method.tableRef);
    if (table == nullptr) return invalid("COMPU_VTAB '" + std::string(method.tableRef) + "' not found");
    Conversion::VerbalTable verbal;
    verbal.ranges.reserve(table->ranges.size());
    for (const CompuVtab::Range& range : table->ranges)
        verbal.ranges.push_back({range.lower, range.upper, std::string(range.text)});
    verbal.defaultText = table->defaultText;
    return Conversion::Kind(std::move(verbal));
}

Result<Conversion::Kind> buildFormulas(const Description& description, const CompuMethod& method) {
    Result<Formula> forward = Formula::compile(method.formula, description.systemConstants);
    if (!forward) return forward.error();
    Conversion::Formulas formulas{std::move(forward).value(), std::nullopt};
    if (method.formulaInverse) {
        Result<Formula> inverse = Formula::compile(*method.formulaInverse, description.systemConstants);
        if (!inverse) return inverse.error();
        formulas.inverse = std::move(inverse).value();
    }
    return Conversion::Kind(std::move(formulas));
}

Result<Conversion::Kind> buildKind(const Description& description, const CompuMethod& method) {
    const std::vector<double>& c = method.coefficients;
    switch (method.type) {
        case ConversionType::identical:
            break;
        case ConversionType::linear:
            return Conversion::Kind(Conversion::Linear{c[0], c[1]});
        case ConversionType::ratFunc:
            return Conversion::Kind(Conversion::Rational{c[0], c[1], c[2], c[3], c[4], c[5]});
        case ConversionType::tabIntp:
        case ConversionType::tabNointp:
            return buildNumericTable(description, method);
        case ConversionType::tabVerb:
            return buildVerbalTable(description, method);
        case ConversionType::form:
            return buildFormulas(description, method);
    }
    return Conversion::Kind(Conversion::Identical{});
}

}  // namespace

Result<value::Conversion> buildConversion(const Description& description, std::string_view method) {
    if (method == "NO_COMPU_METHOD") return Conversion();
    const CompuMethod* found = description.findCompuMethod(method);
    if (found == nullptr) return invalid("COMPU_METHOD '" + std::string(method) + "' not found");
    Result<Conversion::Kind> kind = buildKind(description, *found);
    if (!kind) return kind.error();
    return Conversion(std::move(kind).value(), std::string(found->format), std::string(found->unit));
}

}  // namespace lm::a2l
