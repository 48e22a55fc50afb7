#include "session/typed_change.h"

#include <algorithm>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/whole_file.h"
#include "session/typed_list.h"
#include "value/typed_text.h"

namespace lm::session {
namespace {

/// The longest number of an object has far less than this for each of its bytes.
constexpr std::size_t kMaxFile = std::size_t{256} << 20U;

/// One text for each number.
Result<std::vector<std::string>> typedTexts(const a2l::ObjectName& name, const ChosenNumbers& chosen,
                                            std::string_view text, const StopToken& stop) {
    if (!chosen.dimensions.empty() && isList(text)) {
        auto list = parseList(name.text, text, chosen.dimensions);
        if (list || text.find(',') != std::string_view::npos || text.find(' ') == std::string_view::npos)
            return list;
        Error error = list.error();
        error.message += " (commas separate them)";
        return error;
    }
    if (!chosen.dimensions.empty() && text.starts_with('@')) {
        const std::string path(text.substr(1));
        auto content = readWholeFile(path, kMaxFile, stop);
        if (!content) return content.error();
        return parseCsv(path, content.value(), chosen.dimensions);
    }
    const bool asksForAll =
        std::any_of(name.indices.begin(), name.indices.end(), [](const auto& index) { return !index; });
    if (asksForAll || chosen.dimensions.empty())
        return std::vector<std::string>(chosen.numbers.size(), std::string(text));
    Error error{ErrorCode::invalidArgument,
                fmt::format("{}: '{}' is no list of its {} values", name.text, text, chosen.numbers.size())};
    error.hint = fmt::format(
        "{0}[*]={1} sets all of them, {0}{2}={1} one, {0}='[...]' or {0}=@FILE.csv each "
        "its own",
        name.text, text, a2l::indexText(0, chosen.dimensions));
    return error;
}

}  // namespace

Result<ChosenNumbers> chooseNumbers(const a2l::ObjectName& name, const a2l::PlacedObject& object) {
    std::vector<std::uint32_t> dimensions = object.dimensions();
    if (name.axis) {
        if (*name.axis >= object.axes().size()) {
            return Error{ErrorCode::invalidArgument,
                         fmt::format("{}: {} has {} {}", name.text, name.object, object.axes().size(),
                                     object.axes().size() == 1 ? "axis" : "axes")};
        }
        dimensions = {object.axes()[*name.axis].count()};
    }
    auto numbers = a2l::selectElements(name, dimensions);
    if (!numbers) return numbers.error();
    ChosenNumbers chosen{std::move(numbers).value(), {}};
    for (std::size_t i = 0; i < dimensions.size(); ++i) {
        // Some generators fill MATRIX_DIM with ones: no one writes an index for them.
        const bool isMissing = i >= name.indices.size() && (name.indices.empty() || dimensions[i] != 1);
        const bool isAny = i < name.indices.size() && !name.indices[i];
        if (isMissing || isAny) chosen.dimensions.push_back(dimensions[i]);
    }
    return chosen;
}

value::Element elementOf(const a2l::ObjectName& name, const a2l::PlacedObject& object, std::size_t number) {
    if (!name.axis) return object.element(number);
    const a2l::PlacedAxis& axis = object.axes()[*name.axis];
    if (axis.isStored()) return axis.element(number);
    value::Element element = axis.about().point;
    element.name = fmt::format("{}{}[{}]", name.object, a2l::axisSuffix(*name.axis), number);
    return element;
}

Result<std::vector<TypedChange>> typedChanges(const a2l::ObjectName& name, const a2l::PlacedObject& object,
                                              std::string_view text, const StopToken& stop) {
    const auto chosen = chooseNumbers(name, object);
    if (!chosen) return chosen.error();
    auto texts = typedTexts(name, chosen.value(), text, stop);
    if (!texts) return texts.error();
    std::vector<TypedChange> changes;
    changes.reserve(texts.value().size());
    for (std::size_t i = 0; i < texts.value().size(); ++i) {
        const std::size_t number = chosen.value().numbers[i];
        value::Element element = elementOf(name, object, number);
        auto typed = value::parseText(element, texts.value()[i]);
        if (!typed) return typed.error();
        changes.push_back(
            {{name.axis, number, std::move(typed).value()}, std::move(element), std::move(texts.value()[i])});
    }
    return changes;
}

}  // namespace lm::session
