#include "session/folder_filter.h"

#include "a2l/folders.h"

namespace lm::session {
namespace {

Error unknown(const char* kind, const std::string& name) {
    return {ErrorCode::notFound, std::string("the A2L has no ") + kind + " '" + name + "'"};
}

}  // namespace

Result<FolderFilter> FolderFilter::create(const a2l::Description& description,
                                          const std::vector<std::string>& groups,
                                          const std::vector<std::string>& functions) {
    FolderFilter filter;
    filter.takesAll_ = groups.empty() && functions.empty();
    const auto add = [&](const a2l::Folder& folder) {
        for (const std::string_view name : a2l::objectsIn(description, folder)) {
            filter.names_.insert(name);
            for (std::size_t end = name.find_first_of(".["); end != std::string_view::npos;
                 end = name.find_first_of(".[", end + 1))
                filter.owners_.insert(name.substr(0, end));
        }
    };
    for (const std::string& name : groups) {
        const a2l::Folder* const group = description.findGroup(name);
        if (group == nullptr) return unknown("GROUP", name);
        add(*group);
    }
    for (const std::string& name : functions) {
        const a2l::Folder* const function = description.findFunction(name);
        if (function == nullptr) return unknown("FUNCTION", name);
        add(*function);
    }
    return filter;
}

bool FolderFilter::takes(std::string_view name) const {
    if (takesAll_ || names_.contains(name)) return true;
    for (std::size_t end = name.find_last_of(".["); end != std::string_view::npos && end > 0;
         end = name.find_last_of(".[", end - 1)) {
        if (names_.contains(name.substr(0, end))) return true;
    }
    return false;
}

}  // namespace lm::session
