#include "value/data_type.h"

#include <array>

namespace lm::value {
namespace {

constexpr std::array<std::string_view, 11> kNames = {"UBYTE",        "SBYTE",        "UWORD",       "SWORD",
                                                     "ULONG",        "SLONG",        "A_UINT64",    "A_INT64",
                                                     "FLOAT16_IEEE", "FLOAT32_IEEE", "FLOAT64_IEEE"};

}  // namespace

std::string_view dataTypeName(DataType type) {
    return kNames[static_cast<std::size_t>(type)];
}

std::optional<DataType> dataTypeFromName(std::string_view name) {
    for (std::size_t i = 0; i < kNames.size(); ++i) {
        if (kNames[i] == name) return static_cast<DataType>(i);
    }
    return std::nullopt;
}

}  // namespace lm::value
