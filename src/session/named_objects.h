// Reads and writes what users name: whole objects, elements and points of them, values that are computed
// from others. A parameter is written together with those that depend on it, or not at all.
//
// Threads: one at a time; a stop may be requested from any. Lifetime: description and memory are borrowed;
// what is returned owns everything.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "a2l/object.h"
#include "a2l/object_content.h"
#include "a2l/object_name.h"
#include "core/result.h"
#include "core/stop_token.h"
#include "session/ecu_memory.h"
#include "session/held_object.h"
#include "session/object_access.h"
#include "session/object_bytes.h"
#include "session/relative_change.h"
#include "session/typed_change.h"
#include "session/write_rights.h"

namespace lm::session {

/// One number that was read, or computed.
struct NumberReading {
    value::Element element;
    value::Value raw;       ///< with all digits; NaN when it is computed
    value::Value physical;  ///< its verbal text where it has one
};

/// What a name stands for, read.
struct ObjectReading {
    std::optional<a2l::ObjectContent> whole;  ///< a curve, a map, a block, a text, an axis
    std::vector<NumberReading> numbers = {};  ///< else its parts
    bool isRow = false;                       ///< the numbers along the one dimension without an index
};

struct WriteWish {
    std::string_view name;
    std::string_view text;
    WriteRights rights = {};
    bool withDependents = true;
    Relation relation = Relation::value;
    BeforeWriting beforeWriting = {};  ///< of more than one number, or `tellsOne`
    bool tellsOne = false;
    BeforeWriting announce = {};  ///< whatever is written
};

/// An object that was written: what it held, and what was read back.
struct WrittenObject {
    a2l::ObjectContent before;
    a2l::ObjectContent after;
};

/// A parameter that was written because another one was.
struct WrittenDependent {
    std::string name;
    a2l::ObjectContent content;  ///< as read back
};

struct ObjectWriting {
    Result<ObjectReading> value;  ///< as read back: a single number, else the whole object
    std::vector<TypedChange> typed = {};
    std::vector<WrittenDependent> dependents = {};
    std::vector<WrittenObject> written = {};  ///< of a write that succeeded: all of them
    // Of a write that failed on its way: objects that do not hold what they held before.
    std::vector<HeldObject> held = {};
    bool restored = false;  ///< all that had been written was taken back
};

class NamedObjects {
  public:
    /// `stop` is that of the memory's waits.
    NamedObjects(const a2l::Description& description, IMemory& memory, StopToken stop);

    /// Whether a name is that of one number at a place that the A2L tells, which ValueAccess serves, or that
    /// of nothing and no pattern either.
    bool isScalar(std::string_view name) const;
    /// Whether there is anything to read under a name.
    bool exists(std::string_view name) const;
    /// Whether other parameters depend on it, or that is not known for a circle.
    bool hasDependents(std::string_view name) const;

    /// Errors: those of a2l::parseObjectName, a2l::findObject, ObjectAccess::read, Computation::compute,
    /// "'PATTERN' matches no name of the A2L".
    Result<ObjectReading> read(std::string_view name);

    /// Called with the parameters that will be written as well, before anything is.
    using Announce = std::function<void(const std::vector<std::string>& dependents)>;

    /// Checks everything, then writes: the object, and in their order the parameters that depend on it. When
    /// one fails, what was written before it is taken back. Errors: those of read(), checkWritable(),
    /// typedChanges(), a2l::changed(), a2l::changedText(), ObjectAccess::write() and a2l::dependentsOf().
    ObjectWriting write(const WriteWish& wish, const Announce& announce);

    /// An object that gets other bytes, or got them.
    struct Change {
        const a2l::ObjectContent& before;
        const a2l::MemoryImage& wanted;
    };
    /// The parameters that depend on these and do not hold what is computed from them, once they are changed.
    /// Errors: those of read(), Computation::compute() and a2l::dependentsOf().
    Result<std::vector<std::string>> unfitDependents(std::span<const Change> changes);

  private:
    /// An object on its way to other bytes.
    struct Step {
        a2l::Object object;
        a2l::ObjectContent before;  ///< what it will hold when its turn comes, then what it did hold
        a2l::MemoryImage wanted;
        std::vector<a2l::ObjectChange> changes;
        std::string text;  ///< instead of changes, of a text as a whole
    };

    Result<ObjectReading> readElement(const a2l::ObjectName& name, const a2l::Object& object);
    Result<ObjectReading> readVirtual(const a2l::Dependency& dependency, const a2l::ObjectName& name);
    Result<std::vector<double>> readNumbers(std::string_view name);
    Result<a2l::Object> writableObject(const WriteWish& wish, const a2l::ObjectName& name) const;
    Result<a2l::MemoryImage> wantedImage(const a2l::ObjectName& name, const WriteWish& wish,
                                         const a2l::ObjectContent& before, std::vector<TypedChange>& typed);
    ObjectWriting writeAlone(const a2l::ObjectName& name, const a2l::Object& object, const WriteWish& wish);
    ObjectWriting writeTogether(const a2l::ObjectName& name, const a2l::Object& object, const WriteWish& wish,
                                const std::vector<const a2l::Dependency*>& dependents,
                                const Announce& announce);
    Result<std::vector<Step>> planDependents(const std::vector<const a2l::Dependency*>& dependents,
                                             const Step& changed);
    ObjectWriting carryOut(const a2l::ObjectName& name, std::vector<Step>& steps);
    static ObjectWriteOutcome carryOut(ObjectAccess& access, Step& step);
    static Result<void> readAgain(ObjectAccess& access, const std::vector<Step>& steps,
                                  std::vector<a2l::ObjectContent>& contents);
    void takeBack(const std::vector<Step>& steps, std::size_t count, ObjectWriting& writing);

    const a2l::Description& description_;
    IMemory& memory_;
    const StopToken stop_;
    ObjectAccess access_;
};

}  // namespace lm::session
