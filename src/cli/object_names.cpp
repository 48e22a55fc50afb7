#include "cli/object_names.h"

#include <algorithm>
#include <string_view>

#include "cli/list_row.h"

namespace lm::cli {
namespace {

char kindLetter(const a2l::Measurement& /*object*/) {
    return 'm';
}
char kindLetter(const a2l::AxisPoints& /*object*/) {
    return 'a';
}
char kindLetter(const a2l::Blob& /*object*/) {
    return 'b';
}
char kindLetter(const a2l::Instance& /*object*/) {
    return 's';
}
char kindLetter(const a2l::Characteristic& object) {
    switch (object.type) {
        case a2l::CharacteristicType::value:
            return 'p';
        case a2l::CharacteristicType::curve:
            return 'c';
        case a2l::CharacteristicType::valBlk:
            return 'b';
        case a2l::CharacteristicType::ascii:
            return 't';
        default:
            return 'M';
    }
}

void appendPlain(std::string& text, std::string_view part) {
    const std::size_t begin = text.size();
    text += part;
    std::replace_if(
        text.begin() + static_cast<std::ptrdiff_t>(begin), text.end(),
        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, ' ');
}

void appendNames(std::string& text, const a2l::Description& description, Units& units, const auto& objects) {
    for (const auto& object : objects) {
        const ListRow row = rowOf(description, object, units);
        text += kindLetter(object);
        for (const std::string_view part : {row.name, row.unit, row.description}) {
            text += '\t';
            appendPlain(text, part);
        }
        text += '\n';
    }
}

}  // namespace

std::string objectNames(const a2l::Description& description) {
    std::string text;
    Units units(description);
    appendNames(text, description, units, description.measurements);
    appendNames(text, description, units, description.characteristics);
    appendNames(text, description, units, description.axisPoints);
    appendNames(text, description, units, description.blobs);
    appendNames(text, description, units, description.instances);
    return text;
}

}  // namespace lm::cli
