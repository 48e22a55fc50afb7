#include "serve/signal_facts.h"

#include <cmath>
#include <variant>

namespace lm::serve {
namespace {

bool isWhole(double number) {
    return std::isfinite(number) && std::floor(number) == number;
}

bool givesWholeNumbers(const value::Element& element) {
    using value::Conversion;
    if (value::isFloat(element.coding.dataType)) return false;
    const Conversion::Kind& kind = element.conversion->kind();
    if (std::holds_alternative<Conversion::Identical>(kind)) return true;
    if (element.conversion->isVerbal()) return true;
    if (const auto* line = std::get_if<Conversion::Linear>(&kind))
        return isWhole(line->a) && isWhole(line->b);
    if (const auto* ratio = std::get_if<Conversion::Rational>(&kind)) {
        const bool isLine = ratio->a == 0 && ratio->d == 0 && ratio->e == 0 && ratio->b != 0;
        return isLine && isWhole(ratio->f / ratio->b) && isWhole(ratio->c / ratio->b);
    }
    return false;
}

}  // namespace

void addSignalFacts(nlohmann::json& json, const value::Element& element) {
    json["unit"] = element.conversion->unit();
    json["integer"] = givesWholeNumbers(element);
    const auto* table = std::get_if<value::Conversion::VerbalTable>(&element.conversion->kind());
    if (table == nullptr) return;
    json["isText"] = true;
    constexpr std::size_t kMostTexts = 1000;
    nlohmann::json& texts = json["texts"] = nlohmann::json::array();
    for (const auto& range : table->ranges) {
        if (texts.size() == kMostTexts) break;
        texts.push_back({range.lower, range.text});
    }
}

}  // namespace lm::serve
