// Each kind of object that A2L 1.61 and 1.71 have is found and gets its place in memory.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "a2l/description.h"
#include "a2l/placed_object.h"
#include "a2l/structure.h"

namespace lm::a2l {
namespace {

std::vector<std::string> allNames(const Description& description) {
    std::vector<std::string> names;
    const auto take = [&](const auto& objects) {
        for (const auto& object : objects)
            names.emplace_back(object.name);
    };
    take(description.measurements);
    take(description.characteristics);
    take(description.axisPoints);
    take(description.blobs);
    for (const Instance& instance : description.instances) {
        walkLeaves(description, instance, [&](const Result<Leaf>& leaf) {
            names.push_back(leaf ? leaf.value().name : leaf.error().text());
            return true;
        });
    }
    return names;
}

/// "NAME: REASON" of what has no values in the ECU or cannot be placed.
std::vector<std::string> withoutValues(const Description& description) {
    // Counts are one byte long in these files; pointers of 8 bytes stay within 32 bits.
    const auto one = [](xcp::Address, std::size_t size) -> Result<std::vector<std::uint8_t>> {
        std::vector<std::uint8_t> bytes(size);
        std::fill_n(bytes.begin(), std::min<std::size_t>(size, 4), std::uint8_t{1});
        return bytes;
    };
    std::vector<std::string> reasons;
    for (const std::string& name : allNames(description)) {
        const auto object = findObject(description, name);
        if (!object) {
            reasons.push_back(object.error().text());
            continue;
        }
        const auto placed = place(object.value(), one);
        if (!placed || placed.value().elementCount() == 0)
            reasons.push_back(name + " has no place" + (placed ? "" : ": " + placed.error().text()));
    }
    return reasons;
}

TEST(EveryKind, HasItsPlace) {
    struct Row {
        const char* file;
        std::size_t names;
    };
    const std::vector<std::string> computed = {"m_sum: measurement has no ECU_ADDRESS",
                                               "value_virtual: virtual characteristic has no ECU address"};
    for (const Row& row : {Row{"every_kind_161.a2l", 46}, Row{"every_kind_171.a2l", 123}}) {
        const auto description = load(std::string(A2L_TEST_DATA "/") + row.file);
        ASSERT_TRUE(description) << description.error().text();
        EXPECT_EQ(description.value().warnings, std::vector<std::string>()) << row.file;
        EXPECT_EQ(allNames(description.value()).size(), row.names);
        EXPECT_EQ(withoutValues(description.value()), computed) << row.file;
    }
}

}  // namespace
}  // namespace lm::a2l
