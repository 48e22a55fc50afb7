#include "watch/expression.h"

#include <algorithm>
#include <utility>

#include "value/conversion.h"
#include "value/formula_opcode.h"

namespace lm::watch {
namespace {

using Texts = value::Conversion::VerbalTable;

const Texts* textsOf(const Result<value::Element>& element) {
    if (!element.ok()) return nullptr;
    return std::get_if<Texts>(&element.value().conversion->kind());
}

bool hasText(const Texts* texts, const std::string& text) {
    if (texts == nullptr) return false;
    return texts->defaultText == text ||
           std::any_of(texts->ranges.begin(), texts->ranges.end(),
                       [&text](const auto& range) { return range.text == text; });
}

Error atColumn(const Node& node, Error error) {
    error.message = "column " + std::to_string(node.column) + ": " + error.text();
    return error;
}

Error unknownText(const Node& text, const Node& signal, const Texts& texts) {
    constexpr std::size_t kMostShown = 12;
    std::string known;
    for (std::size_t i = 0; i < texts.ranges.size() && i < kMostShown; ++i)
        known += (known.empty() ? "" : ", ") + texts.ranges[i].text;
    if (texts.ranges.size() > kMostShown) known += ", ...";
    return atColumn(text, {ErrorCode::notFound, "'" + text.name + "' is neither a text of " + signal.name +
                                                    " (" + known + ") nor a signal"});
}

/// What the two words beside == or != are; false when they are two signals.
bool matchText(Node& node, Node& signal, Node& text, const Texts* texts) {
    if (!hasText(texts, text.name)) return false;
    signal.kind = NodeKind::textMatch;
    signal.text = std::exchange(text.name, {});
    text.kind = NodeKind::nothing;
    node.kind = node.opcode == value::kEqual ? NodeKind::pass : NodeKind::unary;
    node.opcode = value::kNot;
    return true;
}

}  // namespace

Result<void> Expression::resolveComparison(Node& node, const FindSignal& find) {
    Node& left = nodes_[node.left];
    Node& right = nodes_[node.right];
    if (left.kind != NodeKind::word || right.kind != NodeKind::word) return {};
    const auto leftElement = find(left.name);
    if (matchText(node, left, right, textsOf(leftElement))) return {};
    const auto rightElement = find(right.name);
    if (matchText(node, right, left, textsOf(rightElement))) return {};
    const Texts* leftTexts = textsOf(leftElement);
    if (leftTexts != nullptr && !rightElement.ok()) return unknownText(right, left, *leftTexts);
    const Texts* rightTexts = textsOf(rightElement);
    if (rightTexts != nullptr && !leftElement.ok()) return unknownText(left, right, *rightTexts);
    return {};
}

Result<void> Expression::resolve(const FindSignal& find) {
    for (Node& node : nodes_) {
        const bool mayBeText = node.kind == NodeKind::binary &&
                               (node.opcode == value::kEqual || node.opcode == value::kNotEqual);
        if (!mayBeText) continue;
        if (auto resolved = resolveComparison(node, find); !resolved) return resolved;
    }
    for (Node& node : nodes_) {
        if (node.kind != NodeKind::word) continue;
        const auto element = find(node.name);
        if (!element) return atColumn(node, element.error());
        node.kind = NodeKind::signal;
    }
    return {};
}

void Expression::holdFor(std::chrono::nanoseconds duration) {
    nodes_.push_back({.kind = NodeKind::held, .left = nodes_.size() - 1, .duration = duration});
}

std::vector<std::string> Expression::signalNames() const {
    std::vector<std::string> names;
    for (const Node& node : nodes_) {
        const bool isSignal = node.kind == NodeKind::signal || node.kind == NodeKind::textMatch;
        if (isSignal && std::find(names.begin(), names.end(), node.name) == names.end())
            names.push_back(node.name);
    }
    return names;
}

}  // namespace lm::watch
