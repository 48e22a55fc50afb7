// The layouts of the page: JSON files in a folder `layouts` beside the recordings.
//
// Threads: any; those who write at once follow each other. Lifetime: owns everything.
#pragma once

#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/result.h"

namespace lm::serve {

inline constexpr std::string_view kLayoutsFolder = "layouts";  ///< among the recordings

class Layouts {
  public:
    /// `folder`: of the recordings; empty: nothing is kept.
    explicit Layouts(const std::filesystem::path& folder);

    bool kept() const { return !folder_.empty(); }
    /// {"layouts": names, "last": name or null}
    nlohmann::json list() const;
    /// Errors: notFound, invalidArgument for what is no name.
    Result<std::string> read(const std::string& name) const;
    /// It becomes the last one. Errors: invalidArgument for what is no layout, permissionDenied where nothing
    /// can be written, by errno else.
    Result<void> write(const std::string& name, const std::string& text);
    Result<void> remove(const std::string& name);

  private:
    Result<std::filesystem::path> pathOf(const std::string& name) const;
    Result<void> makeFolder() const;
    std::string last() const;

    const std::filesystem::path folder_;  ///< of the layouts
    mutable std::mutex mutex_;
};

}  // namespace lm::serve
