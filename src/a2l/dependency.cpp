#include "a2l/dependency.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <unordered_map>

#include "a2l/description.h"
#include "a2l/structure.h"

namespace lm::a2l {
namespace {

Error fault(const Dependency& dependency, const std::string& what) {
    return {ErrorCode::invalidArgument, std::string(dependency.name) + ": " + what};
}

/// The parameters that a change reaches, and of how many of them each waits.
class Reach {
  public:
    explicit Reach(const Description& description) : description_(description) {
        for (const Dependency& dependency : description.dependencies) {
            if (dependency.kind == DependencyKind::virtualMeasurement) continue;
            for (const std::string_view source : description.sources(dependency))
                users_[source].push_back(&dependency);
        }
    }

    void spread(std::span<const std::string_view> changed) {
        std::vector<std::string_view> open(changed.begin(), changed.end());
        while (!open.empty()) {
            const auto users = users_.find(open.back());
            open.pop_back();
            if (users == users_.end()) continue;
            for (const Dependency* user : users->second) {
                if (waits_.emplace(user, 0).second) open.push_back(user->name);
            }
        }
        for (auto& [dependency, waits] : waits_) {
            for (const std::string_view source : description_.sources(*dependency))
                waits += reached(source) == nullptr ? 0 : 1;
        }
    }

    /// In an order in which each comes after its sources.
    Result<std::vector<const Dependency*>> ordered() {
        std::vector<const Dependency*> order;
        for (const Dependency& dependency : description_.dependencies) {
            const auto found = waits_.find(&dependency);
            if (found != waits_.end() && found->second == 0) order.push_back(&dependency);
        }
        for (std::size_t i = 0; i < order.size(); ++i) {
            const auto users = users_.find(order[i]->name);
            if (users == users_.end()) continue;
            for (const Dependency* user : users->second) {
                if (--waits_[user] == 0) order.push_back(user);
            }
        }
        if (order.size() == waits_.size()) return order;
        return circle();
    }

  private:
    const Dependency* reached(std::string_view name) const {
        const Dependency* dependency = description_.findDependency(name);
        return dependency != nullptr && waits_.contains(dependency) ? dependency : nullptr;
    }
    /// What still waits has a source that does: going from source to source comes back.
    Error circle() const {
        std::vector<const Dependency*> path = {firstWaiting()};
        for (;;) {
            const Dependency* next = nullptr;
            for (const std::string_view source : description_.sources(*path.back())) {
                const Dependency* candidate = reached(source);
                if (candidate != nullptr && waits_.at(candidate) > 0) next = candidate;
            }
            const auto known = std::find(path.begin(), path.end(), next);
            if (known == path.end()) {
                path.push_back(next);
                continue;
            }
            std::string text = std::string(next->name) + " depends on itself: ";
            for (auto step = known; step != path.end(); ++step)
                text += std::string((*step)->name) + " <- ";
            return {ErrorCode::invalidArgument, text + std::string(next->name)};
        }
    }
    const Dependency* firstWaiting() const {
        for (const Dependency& dependency : description_.dependencies) {
            const auto found = waits_.find(&dependency);
            if (found != waits_.end() && found->second > 0) return &dependency;
        }
        return nullptr;
    }

    const Description& description_;
    std::unordered_map<std::string_view, std::vector<const Dependency*>> users_;  // by source
    std::unordered_map<const Dependency*, std::size_t> waits_;
};

/// The COMPU_METHOD of a virtual measurement or leaf; empty for neither.
std::string_view conversionOf(const Description& description, std::string_view name) {
    if (const Measurement* measurement = description.findMeasurement(name)) return measurement->conversion;
    const auto leaf = findLeaf(description, name);
    if (!leaf) return {};
    for (const Overwrite* overwrite : leaf.value().overwrites)
        if (overwrite->axis == 0 && !overwrite->conversion.empty()) return overwrite->conversion;
    const auto* measurement = std::get_if<const Measurement*>(&leaf.value().record);
    return measurement == nullptr ? std::string_view() : (*measurement)->conversion;
}

/// The formula of a virtual measurement; a single source without a conversion is the value.
std::string_view methodFormula(const Description& description, const Dependency& dependency) {
    const std::string_view conversion = conversionOf(description, dependency.name);
    const CompuMethod* method = description.findCompuMethod(conversion);
    if (method != nullptr && method->type == ConversionType::form) return method->formula;
    const bool identical =
        conversion == "NO_COMPU_METHOD" || (method != nullptr && method->type == ConversionType::identical);
    return identical && dependency.sourceCount == 1 ? "X1" : "";
}

}  // namespace

Result<std::vector<const Dependency*>> dependentsOf(const Description& description,
                                                    std::span<const std::string_view> changed) {
    Reach reach(description);
    reach.spread(changed);
    return reach.ordered();
}

Result<value::Formula> formulaOf(const Description& description, const Dependency& dependency) {
    const std::string_view text = dependency.kind == DependencyKind::virtualMeasurement
                                      ? methodFormula(description, dependency)
                                      : dependency.formula;
    if (text.empty()) return fault(dependency, "has no formula");
    Result<value::Formula> formula = value::Formula::compile(text, description.systemConstants);
    if (!formula) return fault(dependency, formula.error().text());
    const std::size_t used = formula.value().variableCount();
    if (used <= dependency.sourceCount) return formula;
    return fault(dependency, "the formula uses X" + std::to_string(used) + ", but there are " +
                                 std::to_string(dependency.sourceCount) + " sources");
}

Result<double> evaluate(const Description& description, const Dependency& dependency,
                        std::span<const double> sources) {
    const Result<value::Formula> formula = formulaOf(description, dependency);
    if (!formula) return formula.error();
    if (sources.size() != dependency.sourceCount)
        return fault(dependency, "needs " + std::to_string(dependency.sourceCount) + " values");
    const double result = formula.value().evaluate(sources.data(), sources.size());
    if (!std::isfinite(result)) return fault(dependency, "the formula gives no number");
    return result;
}

}  // namespace lm::a2l
