#include "a2l/structure.h"

#include <chrono>
#include <string>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "a2l/leaf_search.h"

namespace lm::a2l {
namespace {

Description parsedStructures(std::string_view content) {
    auto result = parseDescription(
        fmt::format("/begin PROJECT P \"\" /begin MODULE M \"\"\n{}\n/end MODULE /end PROJECT", content));
    EXPECT_TRUE(result.ok()) << content;
    return result.ok() ? std::move(result).value() : Description();
}

constexpr std::string_view kTypes = R"(
/begin TYPEDEF_MEASUREMENT tA "" ULONG NO_COMPU_METHOD 0 0 0 1000 /end TYPEDEF_MEASUREMENT
/begin TYPEDEF_MEASUREMENT tB "" UWORD NO_COMPU_METHOD 0 0 0 1000 /end TYPEDEF_MEASUREMENT
/begin TYPEDEF_MEASUREMENT t4 "" UWORD NO_COMPU_METHOD 0 0 0 1000 MATRIX_DIM 4 /end TYPEDEF_MEASUREMENT
/begin TYPEDEF_CHARACTERISTIC K "" CURVE RL 0 NO_COMPU_METHOD 0 9
  /begin AXIS_DESCR COM_AXIS i NO_COMPU_METHOD 4 0 9 AXIS_PTS_REF THIS.ax /end AXIS_DESCR /end TYPEDEF_CHARACTERISTIC
/begin TYPEDEF_AXIS A "" i RL 0 NO_COMPU_METHOD 4 0 9 /end TYPEDEF_AXIS
/begin TYPEDEF_BLOB B "" 16 /end TYPEDEF_BLOB
/begin TYPEDEF_STRUCTURE S "" 12 /begin STRUCTURE_COMPONENT a tA 0 /end STRUCTURE_COMPONENT
  /begin STRUCTURE_COMPONENT b tB 4 MATRIX_DIM 3 /end STRUCTURE_COMPONENT /end TYPEDEF_STRUCTURE
/begin TYPEDEF_STRUCTURE T "" 100 /begin STRUCTURE_COMPONENT s S 8 MATRIX_DIM 2 3 /end STRUCTURE_COMPONENT
  /begin STRUCTURE_COMPONENT c S 8 MATRIX_DIM 2 3 LAYOUT COLUMN_DIR /end STRUCTURE_COMPONENT
  /begin STRUCTURE_COMPONENT p S 80 ADDRESS_TYPE PLONG /end STRUCTURE_COMPONENT
  /begin STRUCTURE_COMPONENT q t4 84 MATRIX_DIM 2 /end STRUCTURE_COMPONENT
  /begin STRUCTURE_COMPONENT k K 90 /end STRUCTURE_COMPONENT /begin STRUCTURE_COMPONENT ax A 92 /end STRUCTURE_COMPONENT
  /begin STRUCTURE_COMPONENT w B 94 MATRIX_DIM 2 /end STRUCTURE_COMPONENT
  /begin STRUCTURE_COMPONENT r[0] tA 96 /end STRUCTURE_COMPONENT
  /begin STRUCTURE_COMPONENT lost none 96 /end STRUCTURE_COMPONENT /end TYPEDEF_STRUCTURE
/begin TYPEDEF_STRUCTURE C "" 4 /begin STRUCTURE_COMPONENT d D 0 /end STRUCTURE_COMPONENT /end TYPEDEF_STRUCTURE
/begin TYPEDEF_STRUCTURE D "" 4 /begin STRUCTURE_COMPONENT c C 0 /end STRUCTURE_COMPONENT /end TYPEDEF_STRUCTURE
/begin INSTANCE inst "" S 0x4000 MATRIX_DIM 2 /end INSTANCE
/begin INSTANCE t "" T 0x5000 ECU_ADDRESS_EXTENSION 3 ADDRESS_TYPE PWORD
  /begin OVERWRITE s.b 0 LIMITS 1 2 /end OVERWRITE /begin OVERWRITE THIS 0 FORMAT "%1" /end OVERWRITE
  /begin OVERWRITE k 2 FORMAT "%1" /end OVERWRITE /begin OVERWRITE gone 0 FORMAT "%1" /end OVERWRITE /begin OVERWRITE k 1 FORMAT "%1" /end OVERWRITE /end INSTANCE
/begin INSTANCE plain "" tB 0x6000 MATRIX_DIM 1000000000
  /begin OVERWRITE THIS 0 PHYS_UNIT "" CONVERSION cm /end OVERWRITE /end INSTANCE
/begin INSTANCE huge "" S 0xFFFFFFF0 MATRIX_DIM 100000 10000 /end INSTANCE
/begin INSTANCE ring "" C 0 /end INSTANCE /begin INSTANCE un.typed "" none 0 /end INSTANCE
/begin BLOB plain "" 0x10 4 /end BLOB)";

std::string shown(const Result<Leaf>& found) {
    if (!found) return found.error().text();
    const Leaf& leaf = found.value();
    std::string text = fmt::format("{} {:x}:{}", leaf.name, leaf.address.address, leaf.address.extension);
    for (const PointerHop& hop : leaf.hops)
        text += fmt::format(" p{}+{:x}", hop.size, hop.offset);
    if (!leaf.dimensions.empty()) text += fmt::format(" {}", leaf.dimensions);
    return text + std::string(leaf.overwrites.size(), '!');
}

TEST(Structures, FindLeaves) {
    const Description d = parsedStructures(kTypes);
    const std::pair<std::string_view, std::string_view> rows[] = {
        {"inst[0].a", "inst[0].a 4000:0"},
        {"inst[1].b[2]", "inst[1].b[2] 4014:0"},
        {"inst[1].b", "inst[1].b 4010:0 [3]"},
        {"t.s[1][2].b[1]", "t.s[1][2].b[1] 5000:3 p2+4a!"},
        {"t.c[1][2].a", "t.c[1][2].a 5000:3 p2+44"},
        {"t.p.b[2]", "t.p.b[2] 5000:3 p2+50 p4+8"},
        {"t.q[1]", "t.q[1] 5000:3 p2+5c"},
        {"t.w[1]", "t.w[1] 5000:3 p2+6e"},
        {"t.r[0]", "t.r[0] 5000:3 p2+60"},
        {"plain", "plain 6000:0 [1000000000]!"},
        {"plain[999999999]", "plain[999999999] 7735f3fe:0!"},
        {"plain[1000000000]", "plain: index 1000000000 is above the largest, 999999999"},
        {"plain[1]x", "plain[1]: has no part 'x'"},
        {"plain[1][0]", "plain[1]: has no part '[0]'"},
        {"inst", "inst: has 1 dimension(s): each needs an index, as in inst[0]"},
        {"inst.a", "inst: has 1 dimension(s): each needs an index, as in inst[0]"},
        {"inst[0]", "inst[0]: is a structure: name one of its parts"},
        {"inst[-1].a", "inst: has 1 dimension(s): each needs an index, as in inst[0]"},
        {"inst[0].", "inst[0]: has no part ''"},
        {"inst[0].z.y", "inst[0]: has no part 'z'"},
        {"inst[0].a.y", "inst[0].a: has no part '.y'"},
        {"t.s[1].b", "t.s: has 2 dimension(s): each needs an index, as in t.s[0][0]"},
        {"t.lost", "t.lost: type 'none' not found"},
        {"huge[1][0].b[0]", "huge[1][0].b[0]: lies beyond the last address"},
        {"ring.d.c.d", "ring: its structure contains itself or is nested too deep"},
        {"un.typed", "un.typed: type 'none' not found"},
        {"instx", "'instx' is not part of an INSTANCE"},
    };
    for (const auto& [name, expected] : rows)
        EXPECT_EQ(shown(findLeaf(d, name)), expected) << name;
    const Leaf curve = findLeaf(d, "t.k").value();
    EXPECT_EQ(resolveReference(curve, std::get<const Characteristic*>(curve.record)->axes[0].reference),
              "t.ax");
    EXPECT_EQ(std::get<const Blob*>(findLeaf(d, "t.w[0]").value().record)->size, 16U);
    EXPECT_EQ(fmt::format("{}", fmt::join(d.warnings, "\n")),
              "skipped: STRUCTURE_COMPONENT 'T.lost' (line 12): type 'none' not found\n"
              "skipped: TYPEDEF_STRUCTURE 'C' (line 20): it contains itself, or a structure that does\n"
              "skipped: TYPEDEF_STRUCTURE 'D' (line 21): it contains itself, or a structure that does\n"
              "OVERWRITE 'THIS' 0 of INSTANCE 't' (line 23) and 2 more: no value or axis is called so, it "
              "changes nothing\n"
              "'plain' names a BLOB and an INSTANCE (line 26): the BLOB is used\n"
              "skipped: INSTANCE 'un.typed' (line 29): type 'none' not found");
}

TEST(Structures, AreWalkedInOrderAndAsFarAsAsked) {
    const Description d = parsedStructures(kTypes);
    const std::pair<std::string_view, std::string_view> rows[] = {
        {"inst", "4: inst[0].a 4000:0, inst[0].b 4004:0 [3], inst[1].a 400c:0"},
        {"plain", "1: plain 6000:0 [1000000000]!"},
        {"huge",
         "2000000000: huge[0][0].a fffffff0:0, huge[0][0].b fffffff4:0 [3], huge[0][1].a: lies beyond the "
         "last address"},
        {"ring", "0: "},
        {"un.typed", "0: "},
        {"t", "33: t.s[0][0].a 5000:3 p2+8, t.s[0][0].b 5000:3 p2+c [3]!, t.s[0][1].a 5000:3 p2+20"},
    };
    for (const auto& [name, expected] : rows) {
        const Instance& instance = *d.findInstance(name);
        std::vector<std::string> leaves;
        walkLeaves(d, instance, [&](Result<Leaf> leaf) {
            leaves.push_back(shown(leaf));
            return leaves.size() < 3;
        });
        EXPECT_EQ(fmt::format("{}: {}", leafCount(d, instance), fmt::join(leaves, ", ")), expected) << name;
    }
    std::size_t same = 0;
    walkLeaves(d, *d.findInstance("t"), [&](Result<Leaf> leaf) {
        if (!leaf) return true;
        same += shown(findLeaf(d, leaf.value().name)) == shown(leaf) ? 1 : 0;
        return true;
    });
    EXPECT_EQ(same, leafCount(d, *d.findInstance("t")));
}

TEST(Structures, LeavesAreComputedAsTheirTypesSay) {
    const Description d = parsedStructures(R"(
/begin TYPEDEF_MEASUREMENT m "" UWORD NO_COMPU_METHOD 0 0 0 9 /end TYPEDEF_MEASUREMENT
/begin TYPEDEF_CHARACTERISTIC dep "" VALUE L 0 NO_COMPU_METHOD 0 9
  /begin DEPENDENT_CHARACTERISTIC "X1+X2" THIS.a other /end DEPENDENT_CHARACTERISTIC /end TYPEDEF_CHARACTERISTIC
/begin TYPEDEF_MEASUREMENT virt "" UWORD NO_COMPU_METHOD 0 0 0 9 /begin VIRTUAL THIS.k[1] /end VIRTUAL /end TYPEDEF_MEASUREMENT
/begin TYPEDEF_STRUCTURE S "" 8 /begin STRUCTURE_COMPONENT a m 0 /end STRUCTURE_COMPONENT
  /begin STRUCTURE_COMPONENT k dep 2 MATRIX_DIM 2 /end STRUCTURE_COMPONENT
  /begin STRUCTURE_COMPONENT v virt 6 /end STRUCTURE_COMPONENT /end TYPEDEF_STRUCTURE
/begin INSTANCE s "" S 0 MATRIX_DIM 2 /end INSTANCE)");
    std::string text;
    for (const std::string_view name : {"s[1].k", "s[1].k[0]", "s[1].v", "s[1].a"}) {
        const Dependency* found = d.findDependency(name);
        if (found == nullptr) continue;
        text += fmt::format("{} = f({}); ", found->name, fmt::join(d.sources(*found), ", "));
        EXPECT_TRUE(formulaOf(d, *found).ok()) << name;
    }
    EXPECT_EQ(text, "s[1].k = f(s[1].a, other); s[1].k = f(s[1].a, other); s[1].v = f(s[1].k[1]); ");
    const std::string_view changed = "s[0].a";
    EXPECT_EQ(dependentsOf(d, std::span(&changed, 1)).value().front()->name, "s[0].k");
}

// 64 structures, each of two of the next: too many leaves to count, and none of them made.
TEST(Structures, BombsAreHarmless) {
    std::string content =
        R"(/begin TYPEDEF_MEASUREMENT m "" UBYTE NO_COMPU_METHOD 0 0 0 1 /end TYPEDEF_MEASUREMENT)";
    for (int i = 0; i < 70; ++i) {
        const std::string of = i == 0 ? "m" : fmt::format("S{}", i - 1);
        content += fmt::format(
            "/begin TYPEDEF_STRUCTURE S{} \"\" 1 /begin STRUCTURE_COMPONENT a {} 0 MATRIX_DIM 1000000000"
            " /end STRUCTURE_COMPONENT /end TYPEDEF_STRUCTURE /begin INSTANCE i{} \"\" S{} 0 /end INSTANCE\n",
            i, of, i, i);
    }
    const Description d = parsedStructures(content);
    EXPECT_EQ(leafCount(d, *d.findInstance("i2")), 1000000000000000000U);
    EXPECT_EQ(leafCount(d, *d.findInstance("i9")), UINT64_MAX);
    // Where the beginning gives the indices no other elements are looked at.
    const std::pair<const char*, std::uint64_t> beginnings[] = {
        {"", 1000000000000000000U}, {"i2.a[7].", 1000000000}, {"I2.a[7].A[5].a[3]", 1},
        {"i2.a[1000000000].", 0},   {"i2.a[7].b", 0},         {"i2.a[7].a[5", 1000000000}};
    for (const auto& [text, count] : beginnings)
        EXPECT_EQ(leafCount(d, *d.findInstance("i2"), NameBeginning(text)), count) << text;
    std::string walked;
    walkLeaves(d, *d.findInstance("i2"), NameBeginning("i2.a[7].a[5].a"), [&](const Result<Leaf>& leaf) {
        walked += shown(leaf);
        return true;
    });
    EXPECT_EQ(walked, "i2.a[7].a[5].a c:0 [1000000000]");
    EXPECT_EQ(shown(findLeaf(d, "i2.a[7].a[5].a")), "i2.a[7].a[5].a c:0 [1000000000]");
    EXPECT_EQ(shown(findLeaf(d, "i69.a[0]")), "i69: its structure contains itself or is nested too deep");
    ASSERT_EQ(d.warnings.size(), 6U);
}

// A bound that a search through all of them, or names made of all of them, would not hold.
TEST(Structures, AmongManyInstancesALeafIsFoundAtOnce) {
    std::string content =
        R"(/begin TYPEDEF_MEASUREMENT m "" ULONG NO_COMPU_METHOD 0 0 0 1 /end TYPEDEF_MEASUREMENT
        /begin TYPEDEF_STRUCTURE S "" 160 )";
    for (int i = 0; i < 40; ++i)
        content += fmt::format("/begin STRUCTURE_COMPONENT part{} m {} /end STRUCTURE_COMPONENT\n", i, 4 * i);
    content += "/end TYPEDEF_STRUCTURE\n";
    for (int i = 0; i < 50'000; ++i)
        content += fmt::format("/begin INSTANCE unit_{} \"\" S {} /end INSTANCE\n", i, 160 * i);
    const Description d = parsedStructures(content);
    constexpr int kSearches = 1000;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < kSearches; ++i) {
        const auto leaf = findLeaf(d, fmt::format("unit_{}.part{}", 49'999 - i, i % 40));
        ASSERT_EQ(leaf.value().address.address, 160U * (49'999U - i) + 4U * (i % 40U));
    }
    const std::chrono::duration<double, std::milli> each =
        (std::chrono::steady_clock::now() - begin) / kSearches;
    EXPECT_LT(each.count(), 1.0);
    RecordProperty("microseconds", fmt::format("{:.2f}", each.count() * 1000));
}

}  // namespace
}  // namespace lm::a2l
