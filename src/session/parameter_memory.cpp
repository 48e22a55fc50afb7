#include "session/parameter_memory.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "a2l/object_builder.h"

namespace lm::session {
namespace {

using Objects = std::vector<a2l::Object>;

bool liesIn(const a2l::MemorySegment& segment, const a2l::Object& object) {
    const xcp::Address address = object.first.address;
    const std::uint8_t extension = segment.xcp ? segment.xcp->addressExtension : std::uint8_t{0};
    return object.hops.empty() && address.extension == extension && segment.holds(address.address);
}

Result<a2l::Object> asObject(const a2l::MemorySegment& segment) {
    a2l::Blob blob;
    blob.name = segment.name;
    blob.address = segment.address;
    blob.size = segment.size;
    return a2l::buildBlob(blob);
}

/// Puts the segments that hold some of the objects in their place.
Result<void> takeSegments(const a2l::Description& description, Objects& objects) {
    Objects whole;
    for (const a2l::MemorySegment& segment : description.parameters.segments) {
        const bool mapped = segment.xcp && !segment.xcp->mappings.empty();
        const bool elsewhere = segment.xcp && segment.xcp->addressExtension != 0;
        const auto inside = [&segment](const a2l::Object& object) { return liesIn(segment, object); };
        if (mapped || elsewhere || std::none_of(objects.begin(), objects.end(), inside)) continue;
        auto object = asObject(segment);
        if (!object) return object.error();
        std::erase_if(objects, inside);
        whole.push_back(std::move(object).value());
    }
    objects.insert(objects.end(), std::make_move_iterator(whole.begin()),
                   std::make_move_iterator(whole.end()));
    return {};
}

std::vector<params::MemoryRun> joined(const std::vector<a2l::MemorySpan>& spans,
                                      const a2l::MemoryImage& image) {
    std::vector<params::MemoryRun> runs;
    for (const a2l::MemorySpan& span : a2l::merged(spans, 0)) {
        const std::uint8_t* const bytes = image.at(span.address, span.size);
        runs.push_back({span.address.address, {bytes, bytes + span.size}});
    }
    return runs;
}

}  // namespace

Result<params::MemoryFile> readParameterMemory(const a2l::Description& description, ParameterChoice& choice,
                                               bool wholeSegments, const ReadObjects& read,
                                               std::vector<std::string>& elsewhere) {
    if (wholeSegments) {
        if (auto taken = takeSegments(description, choice.objects); !taken) return taken.error();
    }
    std::vector<a2l::MemorySpan> spans;
    a2l::MemoryImage image;
    const auto take = [&](std::size_t index, Result<a2l::ObjectContent> content) {
        const std::string& name = choice.objects[index].name;
        if (!content) {
            choice.unread.push_back({name, content.error()});
            return;
        }
        const auto own = content.value().placed.spans(0);
        if (std::any_of(own.begin(), own.end(),
                        [](const a2l::MemorySpan& span) { return span.address.extension != 0; })) {
            elsewhere.push_back(name);
            return;
        }
        for (const a2l::MemorySpan& span : own) {
            image.add(span.address, {content.value().image.at(span.address, span.size), span.size});
            spans.push_back(span);
        }
    };
    if (auto done = read(choice.objects, take); !done) return done.error();
    if (spans.empty()) return Error{ErrorCode::notFound, "there is no byte to be kept"};
    return params::MemoryFile(joined(spans, image), {});
}

}  // namespace lm::session
