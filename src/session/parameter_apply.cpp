#include "session/parameter_apply.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "params/parameter_diff.h"
#include "session/dependents.h"
#include "session/masked_write.h"
#include "session/object_access.h"
#include "session/raw_steps.h"
#include "session/wanted_content.h"
#include "session/write_rights.h"

namespace lm::session {
namespace {

using params::Parameter;

/// The objects of the set, and those that cannot be applied.
std::vector<a2l::Object> findObjects(const a2l::Description& description, const params::ParameterSet& set,
                                     bool extendedLimits, std::vector<UnreadParameter>& problems) {
    std::vector<a2l::Object> objects;
    objects.reserve(set.parameters.size());
    for (const Parameter& parameter : set.parameters) {
        if (virtualOf(description, parameter.name) != nullptr) {
            problems.push_back({parameter.name,
                                {ErrorCode::permissionDenied,
                                 parameter.name + " is computed from others and has no place in the ECU"}});
            continue;
        }
        auto object = a2l::findObject(description, parameter.name);
        if (!object) {
            problems.push_back({parameter.name, object.error()});
        } else if (object.value().kind != a2l::ObjectKind::characteristic &&
                   object.value().kind != a2l::ObjectKind::axisPoints) {
            problems.push_back(
                {parameter.name, {ErrorCode::invalidArgument, parameter.name + " is no parameter"}});
        } else {
            if (extendedLimits) a2l::takeExtendedLimits(object.value());
            objects.push_back(std::move(object).value());
        }
    }
    return objects;
}

/// Bytes that the plan changes: which bits of them, what they become, and by whom.
class ChangedBytes {
  public:
    void add(const ObjectBytes& change) {
        for (const BytePiece& piece : change.pieces) {
            for (std::size_t i = 0; i < piece.mask.size(); ++i)
                bytes_[{piece.address.extension, piece.address.address + static_cast<std::uint32_t>(i)}]
                    .push_back({piece.mask[i], piece.after[i], &change.name});
        }
    }

    /// Another object whose bits the file gives another value; none for an object that agrees.
    const std::string* conflicting(const std::string& name, const a2l::ObjectContent& content,
                                   const a2l::MemoryImage& wanted) const {
        const std::string* found = nullptr;
        if (!touches(content.placed.spans(0))) return found;
        forEachOwnElement(content.placed, [&](const value::Element& element) {
            const std::uint8_t* const bytes = wanted.at(element.address, element.size());
            const auto mask = bitsOf(element);
            for (std::size_t i = 0; found == nullptr && bytes != nullptr && i < mask.size(); ++i) {
                const auto at = bytes_.find(
                    {element.address.extension, element.address.address + static_cast<std::uint32_t>(i)});
                if (at == bytes_.end()) continue;
                for (const Byte& byte : at->second) {
                    if (*byte.name != name && (byte.mask & mask[i] & (byte.after ^ bytes[i])) != 0)
                        found = byte.name;
                }
            }
        });
        return found;
    }

  private:
    struct Byte {
        std::uint8_t mask;
        std::uint8_t after;
        const std::string* name;
    };

    static std::vector<std::uint8_t> bitsOf(const value::Element& element) {
        return isMasked(element) ? maskBytes(element) : std::vector<std::uint8_t>(element.size(), 0xFF);
    }

    bool touches(const std::vector<a2l::MemorySpan>& spans) const {
        return std::any_of(spans.begin(), spans.end(), [&](const a2l::MemorySpan& span) {
            const auto first = bytes_.lower_bound({span.address.extension, span.address.address});
            return first != bytes_.end() && first->first.first == span.address.extension &&
                   first->first.second < span.end();
        });
    }

    std::map<std::pair<std::uint8_t, std::uint32_t>, std::vector<Byte>> bytes_;
};

/// Two names of the same bytes cannot both have their way.
void checkConflicts(ApplyPlan& plan, const std::vector<a2l::ObjectContent>& equal) {
    ChangedBytes changed;
    for (const ApplyStep& step : plan.steps)
        changed.add(step.change);
    const auto check = [&](const a2l::ObjectContent& content, const a2l::MemoryImage& wanted) {
        const std::string& name = content.placed.object().name;
        const std::string* const other = changed.conflicting(name, content, wanted);
        if (other == nullptr) return;
        plan.problems.push_back(
            {name,
             {ErrorCode::invalidArgument,
              fmt::format("{}: lies in the bytes of {}, of which the file wants something else", name,
                          *other)}});
    };
    for (const ApplyStep& step : plan.steps)
        check(step.before, step.wanted);
    for (const a2l::ObjectContent& content : equal)
        check(content, content.image);
}

bool isEmpty(const std::vector<std::uint8_t>& mask) {
    return std::all_of(mask.begin(), mask.end(), [](auto bits) { return bits == 0; });
}

/// Of what the file changes. Steps of an axis tell nothing of its points.
void warnOfExtended(const a2l::ObjectContent& content, const a2l::MemoryImage& wanted) {
    const a2l::PlacedObject& placed = content.placed;
    const bool isAxis = placed.object().kind == a2l::ObjectKind::axisPoints;
    if (placed.object().isText() || (isAxis && placed.axes().front().about().difference)) return;
    for (std::size_t i = 0; i < placed.elementCount(); ++i) {
        const value::Element element = placed.element(i);
        const std::uint8_t* const before = content.image.at(element.address, element.size());
        const std::uint8_t* const after = wanted.at(element.address, element.size());
        if (std::equal(before, before + element.size(), after)) continue;
        warnBeyondLimits(element, value::physicalValue(element, value::rawValue(element, after)));
    }
}

/// Values made for other points than those of the ECU must not come without these.
Result<void> checkSharedAxes(const Parameter& held, const Parameter& wanted, const params::ParameterSet& set,
                             RawSteps& steps) {
    const auto within = [&](const auto& parameter, auto axis, const auto& a, const auto& b) {
        return steps.within(parameter, axis, a, b);
    };
    const auto isIn = [&](const std::string& name) { return set.find(name) != nullptr; };
    const std::string differs =
        params::differentSharedAxis(held, wanted, within, isIn, "the ECU", "the file");
    if (differs.empty()) return {};
    Error error{ErrorCode::invalidArgument, held.name + ": " + differs};
    error.hint = "apply the axis too, or change the axis first";
    return error;
}

bool overlap(const a2l::MemorySpan& a, const BytePiece& b) {
    return a.address.extension == b.address.extension &&
           a.address.address < b.address.address + b.mask.size() && b.address.address < a.end();
}

void sortSteps(std::vector<ApplyStep>& steps) {
    std::set<std::string_view> axes;
    std::vector<a2l::MemorySpan> places;
    for (const ApplyStep& step : steps) {
        for (const a2l::Axis& axis : step.object.axes)
            axes.insert(axis.reference);
        for (const a2l::PlacedBy& place : step.before.placed.placedBy())
            if (!place.inRecord) places.push_back(place.span());
    }
    const auto isLater = [&](const ApplyStep& step) {
        if (step.object.kind == a2l::ObjectKind::axisPoints || axes.count(step.object.name) != 0)
            return false;
        return std::none_of(step.change.pieces.begin(), step.change.pieces.end(),
                            [&](const BytePiece& piece) {
                                return std::any_of(places.begin(), places.end(),
                                                   [&](const auto& span) { return overlap(span, piece); });
                            });
    };
    const auto placeOf = [](const ApplyStep& step) {
        const xcp::Address address = step.change.pieces.front().address;
        return std::pair(address.extension, address.address);
    };
    std::vector<std::pair<std::tuple<bool, std::pair<std::uint8_t, std::uint32_t>>, std::size_t>> order;
    for (std::size_t i = 0; i < steps.size(); ++i)
        order.push_back({{isLater(steps[i]), placeOf(steps[i])}, i});
    std::sort(order.begin(), order.end());
    std::vector<ApplyStep> sorted;
    sorted.reserve(steps.size());
    for (const auto& entry : order)
        sorted.push_back(std::move(steps[entry.second]));
    steps = std::move(sorted);
}

/// Bits that several change, which agree on them, are written by the first of them alone: to the next they
/// would seem changed meanwhile, and to an undo too.
void shareBits(std::vector<ApplyStep>& steps) {
    std::map<std::pair<std::uint8_t, std::uint32_t>, std::uint8_t> taken;
    for (ApplyStep& step : steps) {
        for (BytePiece& piece : step.change.pieces) {
            BytePiece shared = piece;
            for (std::size_t i = 0; i < piece.mask.size(); ++i) {
                const auto address = piece.address.address + static_cast<std::uint32_t>(i);
                std::uint8_t& bits = taken[{piece.address.extension, address}];
                shared.mask[i] = static_cast<std::uint8_t>(piece.mask[i] & bits);
                piece.mask[i] = static_cast<std::uint8_t>(piece.mask[i] & ~bits);
                bits = static_cast<std::uint8_t>(bits | piece.mask[i]);
            }
            if (!isEmpty(shared.mask)) step.shared.push_back(std::move(shared));
        }
        std::erase_if(step.change.pieces, [](const BytePiece& piece) { return isEmpty(piece.mask); });
    }
}

/// What earlier steps were to write for this one is there.
bool holdsShared(const ApplyStep& step, const a2l::MemoryImage& image) {
    return std::all_of(step.shared.begin(), step.shared.end(), [&](const BytePiece& piece) {
        const std::uint8_t* const held = image.at(piece.address, piece.mask.size());
        return held != nullptr && sameBits({held, piece.mask.size()}, piece.after, piece.mask);
    });
}

ObjectWriteOutcome write(IMemory& memory, const ApplyStep& step) {
    ObjectAccess access(memory, StopToken());
    auto written = access.write(step.object, [&](const a2l::ObjectContent& now) -> Result<a2l::MemoryImage> {
        if (now.placed.spans(0) != step.before.placed.spans(0)) {
            return Error{ErrorCode::protocolError,
                         step.object.name + ": its place or size changed meanwhile"};
        }
        return changedNow(step.change, now);
    });
    if (written.content && !holdsShared(step, written.content.value().image)) {
        written.content = Error{
            ErrorCode::protocolError,
            step.object.name + ": not whole, it shares bits with a parameter that could not be written"};
        written.held.resize(1);
    }
    return written;
}

/// The connection may be there again: the ECU ended the session, or was away.
bool isAway(const Error& error) {
    return error.code == ErrorCode::notOpen || error.code == ErrorCode::timeout;
}

/// What is begun is done whatever stop comes: it cuts off nothing but a silence that lasts.
Error silenceOf(const Error& error) {
    if (!error.isStop()) return error;
    return {ErrorCode::timeout, "the ECU does not answer"};
}

/// Takes back what a plan wrote or may have written, the last one first. Who is silent is not asked again.
class TakingBack {
  public:
    TakingBack(IMemory& memory, const ApplyPlan& plan, const ApplyOptions& options)
        : memory_(memory), plan_(plan), options_(options) {}

    std::vector<PutBack> run(const std::vector<std::size_t>& steps) {
        const auto ready = retreat();
        if (!ready && !isBack(ready.error()) && !silent_) silent_ = silenceOf(ready.error());
        std::vector<PutBack> all;
        for (auto step = steps.rbegin(); step != steps.rend(); ++step)
            all.push_back(takeBack(plan_.steps[*step].change));
        return all;
    }

  private:
    Result<void> retreat() const { return options_.retreat ? options_.retreat() : Result<void>(); }

    /// Once: the ECU is connected again, and on the pages that were written.
    bool isBack(const Error& error) {
        if (!isAway(error) || !options_.reconnect || std::exchange(hasTried_, true)) return false;
        auto ready = options_.reconnect();
        if (!ready && isAway(ready.error())) return false;
        if (ready) ready = retreat();
        if (!ready) silent_ = silenceOf(ready.error());
        return ready.ok();
    }

    PutBack takeBack(const ObjectBytes& change) {
        if (silent_) return {change.name, PutBack::State::unknown, silent_};
        PutBack one = putBack(memory_, change);
        if (one.error && isBack(*one.error)) one = putBack(memory_, change);
        if (!one.error) return one;
        one.error = silent_ ? *silent_ : silenceOf(*one.error);
        if (one.error->code == ErrorCode::timeout) silent_ = one.error;
        return one;
    }

    IMemory& memory_;
    const ApplyPlan& plan_;
    const ApplyOptions& options_;
    std::optional<Error> silent_;  ///< why no more is tried
    bool hasTried_ = false;
};

}  // namespace

Result<ApplyPlan> planApply(const a2l::Description& description, const params::ParameterSet& set,
                            bool extendedLimits, const ReadObjects& read) {
    ApplyPlan plan;
    const auto objects = findObjects(description, set, extendedLimits, plan.problems);
    RawSteps steps(description);
    const DefiningFunctions functions(description);
    std::vector<a2l::ObjectContent> equal;
    const auto take = [&](std::size_t i, Result<a2l::ObjectContent> content) {
        const a2l::Object& object = objects[i];
        const auto refuse = [&](const Error& error) { plan.problems.push_back({object.name, error}); };
        if (!content) return refuse(content.error());
        const Parameter& wanted = *set.find(object.name);
        Parameter held = parameterOf(content.value(), functions.of(object.name));
        auto image = wantedContent(content.value(), held, wanted, steps);
        if (!image) return refuse(image.error());
        if (auto same = checkSharedAxes(held, wanted, set, steps); !same) return refuse(same.error());
        ObjectBytes change = bytesOfChange(content.value(), image.value());
        if (change.pieces.empty()) {
            ++plan.equal;
            equal.push_back(std::move(content).value());
            return;
        }
        if (auto allowed = checkWritable(object, {}); !allowed) return refuse(allowed.error());
        if (extendedLimits) warnOfExtended(content.value(), image.value());
        plan.wanted.parameters.push_back(
            parameterOf({content.value().placed, image.value()}, functions.of(object.name)));
        plan.held.parameters.push_back(std::move(held));
        plan.steps.push_back(
            {object, std::move(content).value(), std::move(image).value(), std::move(change)});
    };
    if (auto done = read(objects, take); !done) return done.error();
    checkConflicts(plan, equal);
    sortSteps(plan.steps);
    shareBits(plan.steps);
    return plan;
}

ApplyOutcome carryOut(IMemory& memory, const StopToken& stop, const ApplyPlan& plan,
                      const ApplyOptions& options) {
    // What was begun is ended or taken back, whatever stop comes.
    const auto finishing = memory.finishing();
    ApplyOutcome outcome;
    std::vector<std::size_t> touched;
    for (std::size_t i = 0; i < plan.steps.size(); ++i) {
        if (options.progress) options.progress(i, plan.steps.size());
        outcome.stopped = stop.requested();
        if (outcome.stopped) break;
        if (options.writing) options.writing(plan.steps[i]);
        auto written = write(memory, plan.steps[i]);
        if (written.content) {
            outcome.written.push_back(i);
            touched.push_back(i);
            if (options.written) options.written(plan.steps[i]);
            continue;
        }
        const Error& error = written.content.error();
        outcome.failed.push_back({plan.steps[i].object.name, error});
        if (!written.held.empty() && options.keepGoing) {
            // No object is to stay half written.
            outcome.takenBack.push_back(putBack(memory, plan.steps[i].change));
        } else if (!written.held.empty()) {
            touched.push_back(i);
        }
        if (!options.keepGoing || error.code == ErrorCode::timeout) break;
    }
    if (options.conclude) outcome.stopped = stop.requested();
    bool stays = !outcome.stopped && (outcome.failed.empty() || options.keepGoing);
    if (stays && options.conclude && !outcome.written.empty()) {
        const auto concluded = options.conclude(outcome.written);
        stays = concluded.ok();
        if (!stays) outcome.failed.push_back({"", concluded.error()});
    }
    if (stays) return outcome;
    const auto takenBack = TakingBack(memory, plan, options).run(touched);
    outcome.takenBack.insert(outcome.takenBack.begin(), takenBack.begin(), takenBack.end());
    outcome.written.clear();
    return outcome;
}

}  // namespace lm::session
