#include "sim/catalog.h"

#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "sim/a2l_writer.h"
#include "sim/protocol.h"
#include "sim/world.h"

namespace lm::sim {
namespace {

std::string fileText(const std::string& name) {
    std::ifstream file(std::string(XCPLUMO_SOURCE_DIR) + "/" + name, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

TEST(Catalog, ShippedFilesAreWhatItWrites) {
    const Options options;
    const Catalog catalog(options);
    EXPECT_EQ(fileText("examples/demo.a2l"), a2lText(options, catalog))
        << "write it anew: xcplumo-sim --write-a2l examples/demo.a2l";
    EXPECT_NE(fileText("docs/simulator.md").find(modelTable(catalog)), std::string::npos)
        << "put the table of xcplumo-sim --write-model into docs/simulator.md";
}

TEST(Catalog, LaysObjectsOutAlignedAndApart) {
    Options options;
    options.loadSignals = 300;
    options.loadBytes = 8;
    const Catalog catalog(options);
    const World world(catalog);
    std::set<std::string> names;
    std::map<std::pair<std::uint8_t, std::uint32_t>, const Row*> taken;
    for (const Row& row : catalog.rows()) {
        EXPECT_TRUE(names.insert(row.name).second) << row.name;
        if (row.place == Place::nowhere || row.place == Place::outside) continue;
        EXPECT_EQ(row.address % typeInfo(row.type).size, 0U) << row.name;
        EXPECT_NE(world.read(row.extension, row.address, row.size()), nullptr) << row.name;
        for (std::uint32_t i = 0; i < row.size(); ++i) {
            const auto [at, fresh] = taken.try_emplace({row.extension, row.address + i}, &row);
            EXPECT_TRUE(fresh || row.sharesWith == at->second->name) << row.name << ", " << at->second->name;
        }
    }
}

TEST(Catalog, A2lFollowsTheOptions) {
    Options options;
    options.order = ByteOrder::bigEndian;
    options.granularity = 2;
    options.identification = 3;
    options.timestampSize = 2;
    options.timestampFixed = true;
    options.fastEventUs = 50;
    options.overload = OverloadIndication::topBit;
    options.without = {kShortUpload};
    options.loadSignals = 1;
    const std::string text = a2lText(options, Catalog(options));
    for (const char* part :
         {"      BYTE_ORDER MSB_FIRST\n", "BYTE_ORDER_MSB_FIRST\n        ADDRESS_GRANULARITY_WORD\n",
          "IDENTIFICATION_FIELD_TYPE_RELATIVE_WORD_ALIGNED\n", "1 SIZE_WORD UNIT_100US TIMESTAMP_FIXED\n",
          "\"cyclic_50us\" \"event0\" 0 DAQ 255 50 3 0\n", "OVERLOAD_INDICATION_PID\n",
          "MEASUREMENT load_0000 "}) {
        EXPECT_NE(text.find(part), std::string::npos) << part;
    }
    EXPECT_EQ(text.find("SHORT_UPLOAD"), std::string::npos);
}

}  // namespace
}  // namespace lm::sim
