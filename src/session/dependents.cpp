#include "session/dependents.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <spdlog/fmt/fmt.h>

namespace lm::session {
namespace {

Error refused(const a2l::Dependency& dependency, const std::string& why) {
    return {ErrorCode::invalidArgument, std::string(dependency.name) + ": " + why};
}

}  // namespace

const a2l::Dependency* virtualOf(const a2l::Description& description, std::string_view name) {
    const a2l::Dependency* const dependency = description.findDependency(name);
    if (dependency == nullptr || dependency->kind == a2l::DependencyKind::dependentCharacteristic)
        return nullptr;
    const a2l::Measurement* const measurement = description.findMeasurement(name);
    return measurement != nullptr && measurement->hasAddress ? nullptr : dependency;
}

void Computation::assume(std::string_view name, std::vector<double> numbers) {
    known_.insert_or_assign(std::string(name), std::move(numbers));
}

Result<std::vector<double>> Computation::numbersOf(std::string_view name) {
    if (const auto known = known_.find(name); known != known_.end()) return known->second;
    const a2l::Dependency* const dependency = virtualOf(description_, name);
    auto numbers = dependency != nullptr ? compute(*dependency) : read_(name);
    if (numbers) assume(name, numbers.value());
    return numbers;
}

Result<std::vector<double>> Computation::compute(const a2l::Dependency& dependency) {
    if (std::find(path_.begin(), path_.end(), dependency.name) != path_.end())
        return refused(dependency,
                       fmt::format("depends on itself: {} <- {}", fmt::join(path_, " <- "), dependency.name));
    const auto formula = a2l::formulaOf(description_, dependency);
    if (!formula) return formula.error();
    path_.push_back(dependency.name);
    std::vector<std::vector<double>> sources;
    std::size_t count = 1;
    for (const std::string_view source : description_.sources(dependency)) {
        auto numbers = numbersOf(source);
        if (!numbers) {
            path_.clear();
            return numbers.error();
        }
        count = std::max(count, numbers.value().size());
        sources.push_back(std::move(numbers).value());
    }
    path_.pop_back();
    std::vector<double> results;
    std::vector<double> arguments(sources.size());
    for (std::size_t i = 0; i < count; ++i) {
        for (std::size_t k = 0; k < sources.size(); ++k) {
            if (sources[k].size() != 1 && sources[k].size() != count) {
                return refused(dependency,
                               fmt::format("its source {} has {} elements, another one {}",
                                           description_.sources(dependency)[k], sources[k].size(), count));
            }
            arguments[k] = sources[k][sources[k].size() == 1 ? 0 : i];
        }
        results.push_back(formula.value().evaluate(arguments.data(), arguments.size()));
        if (!std::isfinite(results.back())) return refused(dependency, "the formula gives no number");
    }
    return results;
}

}  // namespace lm::session
