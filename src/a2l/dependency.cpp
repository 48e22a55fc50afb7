#include "a2l/dependency.h"

#include <algorithm>
#include <string>
#include <unordered_map>
#include <utility>

#include "a2l/description.h"
#include "a2l/structure.h"

namespace lm::a2l {
namespace {

Error fault(const Dependency& dependency, const std::string& what) {
    return {ErrorCode::invalidArgument, std::string(dependency.name) + ": " + what};
}

/// Without the indices at its end.
std::string_view arrayOf(std::string_view name) {
    while (name.ends_with(']') && name.find('[') != std::string_view::npos)
        name = name.substr(0, name.rfind('['));
    return name;
}

/// Whether two names of one arrayOf() have elements in common.
bool overlap(std::string_view a, std::string_view b) {
    if (a.size() > b.size()) std::swap(a, b);
    if (a.find('*') != std::string_view::npos || b.find('*') != std::string_view::npos) return true;
    return b.starts_with(a) && (b.size() == a.size() || b[a.size()] == '[');
}

/// The parameters that a change reaches, and of how many of them each waits.
class Reach {
  public:
    explicit Reach(const Description& description) : description_(description) {
        for (const Dependency& dependency : description.dependencies) {
            if (dependency.kind == DependencyKind::virtualMeasurement) continue;
            for (const std::string_view source : description.sources(dependency))
                users_[arrayOf(source)].push_back({source, &dependency});
        }
    }

    void spread(std::span<const std::string_view> changed) {
        std::vector<std::string_view> open(changed.begin(), changed.end());
        while (!open.empty()) {
            const std::string_view name = open.back();
            open.pop_back();
            for (const Dependency* user : usersOf(name)) {
                if (waits_.emplace(user, 0).second) open.push_back(user->name);
            }
        }
        std::vector<const Dependency*> reached;
        for (const auto& [dependency, waits] : waits_)
            reached.push_back(dependency);
        for (const Dependency* dependency : reached)
            for (const Dependency* user : usersOf(dependency->name))
                ++waits_[user];
    }

    /// In an order in which each comes after its sources.
    Result<std::vector<const Dependency*>> ordered() {
        std::vector<const Dependency*> order;
        for (const Dependency& dependency : description_.dependencies) {
            const auto found = waits_.find(&dependency);
            if (found != waits_.end() && found->second == 0) order.push_back(&dependency);
        }
        for (std::size_t i = 0; i < order.size(); ++i) {
            for (const Dependency* user : usersOf(order[i]->name)) {
                if (--waits_[user] == 0) order.push_back(user);
            }
        }
        if (order.size() == waits_.size()) return order;
        return circle();
    }

  private:
    struct Use {
        std::string_view source;
        const Dependency* user;
    };

    /// Who computes with it or with some of its elements, once for each source.
    std::vector<const Dependency*> usersOf(std::string_view name) const {
        std::vector<const Dependency*> users;
        const auto uses = users_.find(arrayOf(name));
        if (uses == users_.end()) return users;
        for (const Use& use : uses->second)
            if (overlap(use.source, name)) users.push_back(use.user);
        return users;
    }
    /// One that waits itself and computes what `user` waits for.
    const Dependency* waitingSource(const Dependency* user) const {
        const Dependency* found = nullptr;
        for (const Dependency& candidate : description_.dependencies) {
            const auto waiting = waits_.find(&candidate);
            if (waiting == waits_.end() || waiting->second == 0) continue;
            const auto users = usersOf(candidate.name);
            if (std::find(users.begin(), users.end(), user) != users.end()) found = &candidate;
        }
        return found;
    }
    /// What still waits has a source that does: going from source to source comes back.
    Error circle() const {
        std::vector<const Dependency*> path = {firstWaiting()};
        for (;;) {
            const Dependency* const next = waitingSource(path.back());
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
    std::unordered_map<std::string_view, std::vector<Use>> users_;  // by arrayOf(source)
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

}  // namespace lm::a2l
