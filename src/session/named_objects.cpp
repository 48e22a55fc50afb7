#include "session/named_objects.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "a2l/conversion_builder.h"
#include "a2l/structure.h"
#include "core/log.h"
#include "session/dependents.h"
#include "session/name_pattern.h"

namespace lm::session {
namespace {

using a2l::ObjectContent;
using a2l::ObjectName;

/// As a2l::parseObjectName(), but that a pattern matches nothing and what is wrong below an instance are
/// told.
Result<ObjectName> parseName(const a2l::Description& description, std::string_view text) {
    auto name = a2l::parseObjectName(description, text);
    if (name) return name;
    if (text.find_first_of("*?") != std::string_view::npos)
        return Error{ErrorCode::notFound, fmt::format("'{}' matches no name of the A2L", text)};
    if (!a2l::belongsToInstance(description, text)) return name;
    const auto object = a2l::findObject(description, text);
    return object ? name.error() : object.error();
}

/// One number, not a row of them.
bool isNumber(const ObjectName& name, const a2l::Object& object) {
    const auto& dimensions = object.dimensions;
    return name.isElement() && std::all_of(dimensions.begin() + static_cast<std::ptrdiff_t>(std::min(
                                                                    name.indices.size(), dimensions.size())),
                                           dimensions.end(), [](std::uint32_t count) { return count == 1; });
}

NumberReading numberReading(value::Element element, const value::Value& raw, value::Value wholeRaw) {
    value::Value physical = value::physicalValue(element, raw);
    return {std::move(element), std::move(wholeRaw), std::move(physical)};
}

NumberReading numberOf(value::Element element, const std::uint8_t* bytes) {
    const value::Value raw = value::rawValue(element, bytes);
    value::Value whole = value::wholeRaw(element, bytes);
    return numberReading(std::move(element), raw, std::move(whole));
}

/// Numbers of what was read: of the values, or of an axis.
std::vector<NumberReading> numbersOf(const ObjectContent& content, const ObjectName& name,
                                     const std::vector<std::size_t>& numbers) {
    const bool isAxisObject = content.placed.object().kind == a2l::ObjectKind::axisPoints;
    const bool arePoints = name.axis || (isAxisObject && content.placed.axes().front().about().difference);
    const auto points = arePoints ? content.points(name.axis.value_or(0)) : std::vector<value::Value>();
    std::vector<NumberReading> readings;
    readings.reserve(numbers.size());
    for (const std::size_t number : numbers) {
        value::Element element = elementOf(name, content.placed, number);
        readings.push_back(arePoints ? numberReading(std::move(element), points[number], points[number])
                                     : numberOf(std::move(element), content.bytes(number)));
    }
    return readings;
}

Result<ObjectReading> readingOf(ObjectContent content, const ObjectName& name) {
    if (name.isWhole() && !content.placed.dimensions().empty()) return ObjectReading{std::move(content)};
    const auto chosen = chooseNumbers(name, content.placed);
    if (!chosen) return chosen.error();
    ObjectReading reading;
    reading.numbers = numbersOf(content, name, chosen.value().numbers);
    reading.isRow = name.isElement() && chosen.value().dimensions.size() == 1;
    return reading;
}

/// What is shown after a write: one number, else all of the object.
Result<ObjectReading> writtenReading(ObjectContent content, const ObjectName& name) {
    const auto chosen = chooseNumbers(name, content.placed);
    if (name.isWhole() || (chosen && chosen.value().numbers.size() == 1))
        return readingOf(std::move(content), name);
    return ObjectReading{std::move(content)};
}

/// How a value is shown that has no place in the ECU.
Result<value::Element> virtualElement(const a2l::Description& description, std::string_view name) {
    const auto made = [&](const auto& record) -> Result<value::Element> {
        auto method = a2l::buildConversion(description, record.conversion);
        if (!method) {
            return Error{ErrorCode::invalidArgument, std::string(name) + ": " + method.error().text()};
        }
        const std::string format(record.format.empty() ? method.value().formatText() : record.format);
        const std::string unit(record.physUnit.value_or(method.value().unit()));
        value::Element element;
        element.name = name;
        element.coding.dataType = value::DataType::float64;
        element.conversion =
            std::make_shared<const value::Conversion>(value::Conversion::Identical(), format, unit);
        return element;
    };
    if (const a2l::Measurement* measurement = description.findMeasurement(name)) return made(*measurement);
    if (const a2l::Characteristic* parameter = description.findCharacteristic(name)) return made(*parameter);
    return Error{ErrorCode::notFound, std::string(name) + ": has no place in the ECU"};
}

std::vector<double> physicalNumbers(const ObjectContent& content) {
    const ObjectName whole{content.placed.object().name, content.placed.object().name, {}, {}};
    std::vector<std::size_t> all(content.placed.elementCount());
    std::iota(all.begin(), all.end(), std::size_t{0});
    std::vector<double> numbers;
    for (const NumberReading& number : numbersOf(content, whole, all))
        numbers.push_back(value::toDouble(number.element.conversion->toPhysical(number.raw)));
    return numbers;
}

/// One line, whatever their number.
void warnOfAllBeyond(const std::vector<TypedChange>& changes) {
    const auto isBeyond = [](const TypedChange& change) {
        return value::isBeyondLimits(change.element, change.change.physical);
    };
    const auto first = std::find_if(changes.begin(), changes.end(), isBeyond);
    if (first == changes.end()) return;
    warnBeyondLimits(first->element, first->change.physical);
    const auto others = std::count_if(first + 1, changes.end(), isBeyond);
    if (others > 0) log::warn("{}: and so are {} more of its values", first->element.name, others);
}

/// Whether some share bytes.
bool overlap(const std::vector<ObjectContent>& contents) {
    std::vector<a2l::MemorySpan> all;
    for (const ObjectContent& content : contents) {
        const auto spans = content.placed.spans(0);
        all.insert(all.end(), spans.begin(), spans.end());
    }
    const auto size = [](const std::vector<a2l::MemorySpan>& spans) {
        return std::accumulate(spans.begin(), spans.end(), std::size_t{0},
                               [](std::size_t sum, const auto& span) { return sum + span.size; });
    };
    return size(a2l::merged(all, 0)) < size(all);
}

}  // namespace

NamedObjects::NamedObjects(const a2l::Description& description, IMemory& memory, StopToken stop)
    : description_(description), memory_(memory), stop_(stop), access_(memory, std::move(stop)) {}

bool NamedObjects::isScalar(std::string_view name) const {
    if (a2l::findScalar(description_, name, false).ok()) return true;
    return name.find_first_of("*?") == std::string_view::npos &&
           !a2l::belongsToInstance(description_, name) && !a2l::parseObjectName(description_, name).ok();
}

bool NamedObjects::exists(std::string_view name) const {
    return a2l::findObject(description_, name).ok() || virtualOf(description_, name) != nullptr;
}

bool NamedObjects::hasDependents(std::string_view name) const {
    const auto dependents = a2l::dependentsOf(description_, std::span(&name, 1));
    if (!dependents.ok()) return true;
    return std::any_of(dependents.value().begin(), dependents.value().end(), [](const auto* dependency) {
        return dependency->kind == a2l::DependencyKind::dependentCharacteristic;
    });
}

Result<ObjectReading> NamedObjects::read(std::string_view text) {
    const auto name = parseName(description_, text);
    if (!name) return name.error();
    const a2l::Dependency* const dependency = virtualOf(description_, name.value().object);
    if (dependency != nullptr) return readVirtual(*dependency, name.value());
    const auto object = a2l::findObject(description_, name.value().object);
    if (!object) return object.error();
    const bool isPoint = name.value().axis || object.value().kind == a2l::ObjectKind::axisPoints;
    if (isNumber(name.value(), object.value()) && !isPoint) return readElement(name.value(), object.value());
    auto content = access_.read(object.value());
    if (!content) return content.error();
    return readingOf(std::move(content).value(), name.value());
}

Result<ObjectReading> NamedObjects::readElement(const ObjectName& name, const a2l::Object& object) {
    std::size_t number = 0;
    const auto content =
        access_.readElement(object, [&](const a2l::PlacedObject& placed) -> Result<std::size_t> {
            const auto chosen = chooseNumbers(name, placed);
            if (!chosen) return chosen.error();
            number = chosen.value().numbers.front();
            return number;
        });
    if (!content) return content.error();
    ObjectReading reading;
    reading.numbers.push_back(
        numberOf(content.value().placed.element(number), content.value().bytes(number)));
    return reading;
}

Result<std::vector<double>> NamedObjects::readNumbers(std::string_view name) {
    auto reading = read(name);
    if (!reading) return reading.error();
    if (reading.value().whole) return physicalNumbers(*reading.value().whole);
    std::vector<double> numbers;
    for (const NumberReading& number : reading.value().numbers)
        numbers.push_back(value::toDouble(number.element.conversion->toPhysical(number.raw)));
    return numbers;
}

Result<ObjectReading> NamedObjects::readVirtual(const a2l::Dependency& dependency, const ObjectName& name) {
    if (name.axis) return Error{ErrorCode::invalidArgument, name.text + ": is computed and has no axes"};
    const auto shown = virtualElement(description_, dependency.name);
    if (!shown) return shown.error();
    Computation computation(description_, [this](std::string_view source) { return readNumbers(source); });
    const auto numbers = computation.compute(dependency);
    if (!numbers) return numbers.error();
    ObjectReading reading;
    const auto count = static_cast<std::uint32_t>(numbers.value().size());
    const std::vector<std::uint32_t> dimensions(count > 1 ? 1 : 0, count);
    const auto chosen = a2l::selectElements(name, dimensions);
    if (!chosen) return chosen.error();
    for (const std::size_t i : chosen.value()) {
        value::Element element = shown.value();
        element.name += a2l::indexText(i, dimensions);
        reading.numbers.push_back(
            {std::move(element), std::numeric_limits<double>::quiet_NaN(), numbers.value()[i]});
    }
    return reading;
}

Result<a2l::Object> NamedObjects::writableObject(const WriteWish& wish, const ObjectName& name) const {
    if (virtualOf(description_, name.object) != nullptr) {
        return Error{ErrorCode::permissionDenied,
                     name.object + " is computed from others and has no place in the ECU"};
    }
    auto object = a2l::findObject(description_, name.object);
    if (!object) return object;
    if (auto allowed = checkWritable(object.value(), wish.rights); !allowed) return allowed.error();
    if (wish.rights.extendedLimits) a2l::takeExtendedLimits(object.value());
    return object;
}

Result<a2l::MemoryImage> NamedObjects::wantedImage(const ObjectName& name, const WriteWish& wish,
                                                   const ObjectContent& before,
                                                   std::vector<TypedChange>& typed) {
    const bool isRelative = wish.relation != Relation::value;
    if (before.placed.object().isText() && name.isWhole()) {
        if (!isRelative) return a2l::changedText(before, wish.text);
        return Error{ErrorCode::invalidArgument, name.text + ": is a text, no number"};
    }
    auto changes = isRelative ? relativeChanges(name, before, wish.relation, wish.text)
                              : typedChanges(name, before.placed, wish.text, stop_);
    if (!changes) return changes.error();
    typed = std::move(changes).value();
    std::vector<a2l::ObjectChange> plain;
    plain.reserve(typed.size());
    for (const TypedChange& change : typed)
        plain.push_back(change.change);
    auto image = a2l::changed(before, plain);
    if (image) warnOfAllBeyond(typed);
    return image;
}

ObjectWriting NamedObjects::write(const WriteWish& wish, const Announce& announce) {
    if (isNamePattern(description_, wish.name)) {
        return {Error{ErrorCode::invalidArgument,
                      fmt::format("'{}' is a pattern: name one object to be written", wish.name)}};
    }
    const auto name = parseName(description_, wish.name);
    if (!name) return {name.error()};
    const auto object = writableObject(wish, name.value());
    if (!object) return {object.error()};
    const std::string_view changed = isNumber(name.value(), object.value()) && !name.value().axis
                                         ? std::string_view(name.value().text)
                                         : std::string_view(name.value().object);
    if (!wish.withDependents) return writeAlone(name.value(), object.value(), wish);
    const auto dependents = a2l::dependentsOf(description_, std::span(&changed, 1));
    if (!dependents) return {dependents.error()};
    if (dependents.value().empty()) return writeAlone(name.value(), object.value(), wish);
    return writeTogether(name.value(), object.value(), wish, dependents.value(), announce);
}

ObjectWriting NamedObjects::writeAlone(const ObjectName& name, const a2l::Object& object,
                                       const WriteWish& wish) {
    ObjectWriting writing{Error{ErrorCode::closed, ""}};
    std::optional<ObjectContent> before;
    a2l::MemoryImage wanted;
    auto outcome = access_.write(object, [&](const ObjectContent& content) -> Result<a2l::MemoryImage> {
        auto image = wantedImage(name, wish, content, writing.typed);
        if (!image) return image;
        logAssumptions(object);
        before = content;
        wanted = image.value();
        const bool isOne = isNumber(name, object) || object.elementCount() == 1;
        const auto change = bytesOfChange(content, wanted);
        if (change.pieces.empty()) return image;
        if (wish.announce) wish.announce({change});
        if (wish.beforeWriting && (!isOne || wish.tellsOne)) wish.beforeWriting({change});
        return image;
    });
    if (!outcome.held.empty()) writing.held.push_back(heldObject(*before, wanted, outcome.held, false));
    if (!outcome.content) {
        writing.value = outcome.content.error();
        return writing;
    }
    if (before) writing.written.push_back({std::move(*before), outcome.content.value()});
    writing.value = writtenReading(std::move(outcome.content).value(), name);
    return writing;
}

ObjectWriting NamedObjects::writeTogether(const ObjectName& name, const a2l::Object& object,
                                          const WriteWish& wish,
                                          const std::vector<const a2l::Dependency*>& dependents,
                                          const Announce& announce) {
    std::vector<TypedChange> typed;
    auto before = access_.read(object);
    if (!before) return {before.error()};
    auto wanted = wantedImage(name, wish, before.value(), typed);
    if (!wanted) return {wanted.error()};
    std::vector<Step> steps;
    steps.push_back(
        {object, std::move(before).value(), std::move(wanted).value(), {}, std::string(wish.text)});
    for (const TypedChange& change : typed)
        steps.front().changes.push_back(change.change);
    auto planned = planDependents(dependents, steps.front());
    if (!planned) return {planned.error()};
    std::move(planned.value().begin(), planned.value().end(), std::back_inserter(steps));
    std::vector<std::string> names;
    for (const Step& step : steps) {
        logAssumptions(step.object);
        if (&step != &steps.front()) names.push_back(step.object.name);
    }
    if (!names.empty()) announce(names);
    if (wish.beforeWriting || wish.announce) {
        std::vector<ObjectBytes> bytes;
        bytes.reserve(steps.size());
        for (const Step& step : steps)
            bytes.push_back(bytesOfChange(step.before, step.wanted));
        std::erase_if(bytes, [](const ObjectBytes& one) { return one.pieces.empty(); });
        if (!bytes.empty() && wish.announce) wish.announce(bytes);
        if (!bytes.empty() && wish.beforeWriting) wish.beforeWriting(bytes);
    }
    ObjectWriting writing = carryOut(name, steps);
    writing.typed = std::move(typed);
    return writing;
}

Result<std::vector<NamedObjects::Step>> NamedObjects::planDependents(
    const std::vector<const a2l::Dependency*>& dependents, const Step& changed) {
    Computation computation(description_, [this](std::string_view name) { return readNumbers(name); });
    // Each step is planned on the memory that those before it leave.
    ObjectAccess::Assumed assumed(access_);
    assumed.add(changed.before, changed.wanted);
    std::vector<Step> steps;
    for (const a2l::Dependency* dependency : dependents) {
        auto numbers = computation.compute(*dependency);
        if (!numbers) return numbers.error();
        if (dependency->kind != a2l::DependencyKind::dependentCharacteristic) {
            computation.assume(dependency->name, std::move(numbers).value());
            continue;
        }
        auto object = a2l::findObject(description_, dependency->name);
        if (!object) return object.error();
        if (auto allowed = checkMask(object.value()); !allowed) return allowed.error();
        if (changed.before.placed.object().first.takesExtended) a2l::takeExtendedLimits(object.value());
        auto before = access_.read(object.value());
        if (!before) return before.error();
        const std::size_t count = before.value().placed.elementCount();
        if (numbers.value().size() == 1) numbers.value().resize(count, numbers.value().front());
        if (numbers.value().size() != count) {
            return Error{ErrorCode::invalidArgument,
                         fmt::format("{}: {} values are computed for its {} elements", dependency->name,
                                     numbers.value().size(), count)};
        }
        std::vector<a2l::ObjectChange> changes;
        for (std::size_t i = 0; i < count; ++i)
            changes.push_back({std::nullopt, i, numbers.value()[i]});
        auto wanted = a2l::changed(before.value(), changes);
        if (!wanted) return wanted.error();
        assumed.add(before.value(), wanted.value());
        steps.push_back({std::move(object).value(),
                         std::move(before).value(),
                         std::move(wanted).value(),
                         std::move(changes),
                         {}});
    }
    return steps;
}

Result<std::vector<std::string>> NamedObjects::unfitDependents(std::span<const Change> changes) {
    std::vector<std::string_view> names;
    ObjectAccess::Assumed assumed(access_);
    for (const Change& change : changes) {
        names.push_back(change.before.placed.object().name);
        assumed.add(change.before, change.wanted);
    }
    const auto dependents = a2l::dependentsOf(description_, names);
    if (!dependents) return dependents.error();
    Computation computation(description_, [this](std::string_view name) { return readNumbers(name); });
    std::vector<std::string> unfit;
    for (const a2l::Dependency* dependency : dependents.value()) {
        auto numbers = computation.compute(*dependency);
        if (!numbers) return numbers.error();
        if (dependency->kind != a2l::DependencyKind::dependentCharacteristic) {
            computation.assume(dependency->name, std::move(numbers).value());
            continue;
        }
        const auto object = a2l::findObject(description_, dependency->name);
        if (!object) return object.error();
        const auto held = access_.read(object.value());
        if (!held) return held.error();
        const std::size_t count = held.value().placed.elementCount();
        std::vector<a2l::ObjectChange> wanted;
        for (std::size_t i = 0; i < count && !numbers.value().empty(); ++i)
            wanted.push_back({std::nullopt, i, numbers.value()[i % numbers.value().size()]});
        const auto image = a2l::changed(held.value(), wanted);
        if (!image || !a2l::differences(held.value(), image.value()).empty())
            unfit.emplace_back(dependency->name);
    }
    return unfit;
}

/// Makes the bytes of what the ECU holds by now: an earlier step may have changed bits of the same ones.
ObjectWriteOutcome NamedObjects::carryOut(ObjectAccess& access, Step& step) {
    return access.write(step.object, [&](const ObjectContent& now) -> Result<a2l::MemoryImage> {
        if (now.placed.spans(0) != step.before.placed.spans(0)) {
            return Error{ErrorCode::protocolError,
                         step.object.name + ": its place or size changed meanwhile"};
        }
        auto wanted =
            step.changes.empty() ? a2l::changedText(now, step.text) : a2l::changed(now, step.changes);
        if (!wanted) return wanted;
        step.before = now;
        step.wanted = wanted.value();
        return wanted;
    });
}

/// What was written holds still after all that was written later, which may lie in the same bytes.
Result<void> NamedObjects::readAgain(ObjectAccess& access, const std::vector<Step>& steps,
                                     std::vector<ObjectContent>& contents) {
    if (!overlap(contents)) return {};
    for (std::size_t i = 0; i + 1 < steps.size(); ++i) {
        auto again = access.read(steps[i].object);
        if (!again) return again.error();
        if (!sameValues(contents[i], again.value())) {
            return Error{
                ErrorCode::invalidArgument,
                steps[i].object.name + ": does not keep its value when what depends on it is written"};
        }
        contents[i] = std::move(again).value();
    }
    return {};
}

ObjectWriting NamedObjects::carryOut(const ObjectName& name, std::vector<Step>& steps) {
    // Once begun, all of it is done, whatever stop comes.
    const auto finishing = memory_.finishing();
    if (stop_.requested()) return {Error::stopped(name.text + ": stopped")};
    ObjectAccess access(memory_, StopToken());
    ObjectWriting writing{Error{ErrorCode::closed, ""}};
    std::vector<ObjectContent> contents;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        auto outcome = carryOut(access, steps[i]);
        if (!outcome.content) {
            writing.value = outcome.content.error();
            takeBack(steps, i + (outcome.held.empty() ? 0 : 1), writing);
            return writing;
        }
        contents.push_back(std::move(outcome.content).value());
    }
    if (auto kept = readAgain(access, steps, contents); !kept) {
        writing.value = kept.error();
        takeBack(steps, steps.size(), writing);
        return writing;
    }
    for (std::size_t i = 0; i < steps.size(); ++i)
        writing.written.push_back({steps[i].before, contents[i]});
    writing.value = writtenReading(std::move(contents.front()), name);
    for (std::size_t i = 1; i < steps.size(); ++i)
        writing.dependents.push_back({steps[i].object.name, std::move(contents[i])});
    return writing;
}

/// Gives the first `count` objects what they held before, the last one first.
void NamedObjects::takeBack(const std::vector<Step>& steps, std::size_t count, ObjectWriting& writing) {
    ObjectAccess access(memory_, StopToken());
    writing.dependents.clear();
    writing.restored = count > 0;
    bool isSilent = false;
    for (std::size_t i = count; i-- > 0;) {
        const Step& step = steps[i];
        if (isSilent) {
            writing.held.push_back(heldObject(step.before, step.wanted, {}, i > 0));
            continue;
        }
        auto outcome = access.write(
            step.object, [&](const ObjectContent&) -> Result<a2l::MemoryImage> { return step.before.image; });
        if (outcome.content) continue;
        writing.restored = false;
        isSilent = outcome.content.error().code == ErrorCode::timeout;
        writing.held.push_back(heldObject(step.before, step.wanted, outcome.held, i > 0));
    }
}

}  // namespace lm::session
