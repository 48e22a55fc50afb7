// What reading and writing a parameter file with physical values gives: the values themselves, and all that
// the file could not say.
//
// Threads: plain values and pure functions. Lifetime: results own their text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "params/parameter_set.h"

namespace lm::params {

/// Larger files are refused before any of their text is looked at.
inline constexpr std::size_t kMostFileBytes = std::size_t{256} << 20U;

struct ReadSet {
    ParameterSet set = {};
    /// What was passed over or mended, each with its place: "CDFX line 12: ...".
    std::vector<std::string> warnings = {};
};

struct LeftOut {
    std::string name;
    std::string why;
};

struct WrittenSet {
    std::string text = {};
    /// Written, though their physical values do not lead back to the same bytes.
    std::vector<std::string> notExact = {};
    /// Not in the text.
    std::vector<LeftOut> leftOut = {};
};

/// What a form can do with the texts of parameters.
enum class LineBreaks : std::uint8_t { held, notHeld };

/// Why no physical form can hold the parameter: "holds a number that is not finite"; empty: it can.
std::string whyNotHeld(const Parameter& parameter, LineBreaks lineBreaks);

/// Whether the physical values lead back to the same bytes.
bool isExact(const Parameter& parameter);

/// Equal as the form writes them: a double and an exact number of the same size are.
bool sameValue(const value::Value& a, const value::Value& b);

/// A name that stands in a file without quotes: no blanks, control characters or quotes.
bool isPlainName(std::string_view name);

/// A unit or a description as a line of a file holds it: control characters are blanks.
std::string asLine(std::string_view text);

}  // namespace lm::params
