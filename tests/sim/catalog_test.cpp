#include "sim/catalog.h"

#include <array>
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

TEST(Catalog, CoversEveryTypeAndConversion) {
    const Options options;
    const Catalog catalog(options);
    std::set<std::pair<DataType, ObjectOrder>> measured;
    std::size_t cyclic = 0;
    for (const Row& row : catalog.rows()) {
        const bool modelled = row.model.whole != nullptr || row.model.real != nullptr;
        if (modelled && row.event <= kEvent100ms) ++cyclic;
        if (modelled) {
            measured.insert({row.type, row.order});
            EXPECT_EQ(row.model.real != nullptr, typeInfo(row.type).isFloat) << row.name;
        }
        const bool known = row.conversion == "NO_COMPU_METHOD" ||
                           a2lConversions().find("COMPU_METHOD " + row.conversion + " ") != std::string::npos;
        EXPECT_TRUE(known) << row.conversion;
    }
    EXPECT_GE(cyclic, 40U);
    for (std::size_t type = 0; type < kTypes.size(); ++type) {
        EXPECT_EQ(measured.count({static_cast<DataType>(type), ObjectOrder::lsbFirst}), 1U);
        EXPECT_EQ(measured.count({static_cast<DataType>(type), ObjectOrder::msbFirst}), 1U);
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

TEST(World, ComputesLoadSignalsAndMaskedFields) {
    Options options;
    options.loadSignals = 2;
    const Catalog catalog(options);
    World world(catalog);
    for (int i = 0; i < 3; ++i)
        world.step(kEvent1ms);
    world.step(kEvent100ms);
    const Row* load = catalog.find("load_0001");
    EXPECT_EQ(readLittle<std::uint32_t>(world.read(0, load->address, 4)), 3U + 7919U);
    const Row* diag = catalog.find("diag_word");  // 1 in bits 1 to 6, 257 in 8 to 23, 1 in 31; big-endian
    EXPECT_EQ(readBytes<std::uint32_t>(world.read(0, diag->address, 4), ByteOrder::bigEndian), 0x80010102U);
}

TEST(DataType, CodesEveryKindOfValue) {
    struct Row {
        DataType type;
        ByteOrder order;
        std::uint64_t mask;
        RawValue value;
        std::uint64_t bits;  ///< of a word that was all ones, read least significant byte first
    };
    const auto little = ByteOrder::littleEndian;
    const auto big = ByteOrder::bigEndian;
    const Row rows[] = {
        {DataType::sbyte, little, 0, {-2, 0}, 0xFFFFFFFFFFFFFFFE},
        {DataType::uword, big, 0, {0x1234, 0}, 0xFFFFFFFFFFFF3412},
        {DataType::slong, little, 0x7E, {-3, 0}, 0xFFFFFFFFFFFFFFFB},
        {DataType::ulong, big, 0x00FFFF00, {0x1234, 0}, 0xFFFFFFFFFF3412FF},
        {DataType::int64, little, 0, {-1000003, 0}, 0xFFFFFFFFFFF0BDBD},
        {DataType::float16, little, 0, {0, 1.0}, 0xFFFFFFFFFFFF3C00},
        {DataType::float16, little, 0, {0, -65504.0}, 0xFFFFFFFFFFFFFBFF},
        {DataType::float16, big, 0, {0, 5.9604644775390625e-08}, 0xFFFFFFFFFFFF0100},
        {DataType::float16, little, 0, {0, 0.00006103515625}, 0xFFFFFFFFFFFF0400},
        {DataType::float32, big, 0, {0, -0.5}, 0xFFFFFFFF000000BF},
        {DataType::float64, little, 0, {0, 1.5}, 0x3FF8000000000000},
    };
    for (const Row& row : rows) {
        std::array<std::uint8_t, 8> bytes;
        bytes.fill(0xFF);
        storeRaw(bytes.data(), row.type, row.order, row.mask, row.value);
        EXPECT_EQ(readLittle<std::uint64_t>(bytes.data()), row.bits) << std::hex << row.bits;
        const RawValue back = loadRaw(bytes.data(), row.type, row.order, row.mask);
        EXPECT_EQ(back.whole, row.value.whole);
        EXPECT_EQ(back.real, row.value.real);
    }
}

}  // namespace
}  // namespace lm::sim
