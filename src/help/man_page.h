// The manual page of a program, made of what its command line parser knows: page and --help have one source.
//
// Threads: a pure function. Lifetime: nothing is kept.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace lm::help {

/// The argument that asks either program for its manual page. It stands alone and in no help text.
inline constexpr const char* kManOption = "--help-man";

struct PageTexts {
    const char* version;
    const char* description;  ///< a paragraph
    const char* closing;      ///< heading of the text at the end of the help
    const char* seeAlso;      ///< another page of section 1
};

/// The page in troff. The description of the parser is "NAME - what it is".
std::string manPage(const CLI::App& app, const PageTexts& texts);

}  // namespace lm::help
