// What the writer and the reader of JSON parameter files both know of the form.
//
// Threads: constants.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "params/parameter_set.h"

namespace lm::params {

inline constexpr std::string_view kJsonFormat = "xcplumo parameter set";
inline constexpr int kJsonSchema = 1;

inline constexpr std::pair<std::string_view, std::string Origin::*> kJsonOrigin[] = {
    {"ecu", &Origin::ecu},        {"a2l", &Origin::a2lFile}, {"a2lSha256", &Origin::a2lSha256},
    {"epk", &Origin::epk},        {"pages", &Origin::pages}, {"time", &Origin::time},
    {"creator", &Origin::creator}};

}  // namespace lm::params
