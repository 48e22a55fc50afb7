// The files of the page that `serve` and `view` show in a browser, as they were when the program was built.
//
// Threads: any. Lifetime: constants of the program.
#pragma once

#include <span>
#include <string_view>

namespace lm::page {

struct PageFile {
    std::string_view name;         ///< "index.html"
    std::string_view contentType;  ///< as HTTP names it
    std::string_view bytes;
};

/// Ordered by their names.
std::span<const PageFile> pageFiles();

}  // namespace lm::page
