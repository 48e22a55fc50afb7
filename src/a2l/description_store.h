// The private side of a Description: its texts, its name indices and the pools of what few records have.
//
// Threads and lifetime: as the Description that owns it.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "a2l/name_index.h"
#include "a2l/text_store.h"

namespace lm::a2l {

struct Description::Store {
    TextStore texts;
    NameIndex measurements;
    NameIndex characteristics;
    NameIndex axisPoints;
    NameIndex compuMethods;
    NameIndex compuTabs;
    NameIndex compuVtabs;
    NameIndex recordLayouts;
    NameIndex blobs;
    NameIndex instances;
    NameIndex measurementTypes;
    NameIndex characteristicTypes;
    NameIndex axisTypes;
    NameIndex blobTypes;
    NameIndex structureTypes;
    NameIndex groups;
    NameIndex functions;
    NameIndex dependencies;
    NameIndex typeDependencies;
    NameIndex otherNames;
    std::vector<OtherName> others;
    std::vector<FolderList> lists;
    std::vector<NameNumber> numbers;
    std::vector<std::string_view> sources;
    std::vector<std::uint16_t> events;
    std::vector<std::uint32_t> dimensions;
    std::vector<std::string_view> maps;
    std::vector<Overwrite> overwrites;
    std::vector<std::string_view> instanceTypes;
    std::vector<InstanceDetails> instanceDetails = {{}};
};

}  // namespace lm::a2l
