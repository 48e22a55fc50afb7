#include "a2l/folders.h"

#include <string>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "a2l/dependency.h"
#include "a2l/description.h"

namespace lm::a2l {
namespace {

Description parsed(std::string_view content) {
    auto result = parseDescription(
        fmt::format("/begin PROJECT P \"\" /begin MODULE M \"\"\n{}\n/end MODULE /end PROJECT", content));
    EXPECT_TRUE(result.ok()) << content;
    return result.ok() ? std::move(result).value() : Description();
}

TEST(Folders, TellWhatIsInThemAndWhereANameStands) {
    const Description d = parsed(R"(
/begin GROUP top "t" ROOT /begin SUB_GROUP right left none /end SUB_GROUP /begin REF_MEASUREMENT m /end REF_MEASUREMENT /end GROUP
/begin GROUP left "" /begin REF_CHARACTERISTIC k i.x[2] k /end REF_CHARACTERISTIC /begin SUB_GROUP top /end SUB_GROUP /end GROUP
/begin GROUP right "" /begin REF_MEASUREMENT m2 m /end REF_MEASUREMENT /begin FUNCTION_LIST f /end FUNCTION_LIST /end GROUP
/begin GROUP left "again" /begin REF_MEASUREMENT lost /end REF_MEASUREMENT /end GROUP
/begin MEASUREMENT m "" UBYTE c 0 0 0 1 /begin FUNCTION_LIST f old /end FUNCTION_LIST /end MEASUREMENT
/begin MEASUREMENT m2 "" UBYTE c 0 0 0 1 /begin FUNCTION_LIST old /end FUNCTION_LIST /end MEASUREMENT
/begin FUNCTION f "" FUNCTION_VERSION "1.2" /begin IN_MEASUREMENT m2 /end IN_MEASUREMENT /begin OUT_MEASUREMENT m /end OUT_MEASUREMENT
  /begin DEF_CHARACTERISTIC k /end DEF_CHARACTERISTIC /begin SUB_FUNCTION f /end SUB_FUNCTION /end FUNCTION
/begin CHARACTERISTIC k "" VALUE 0 l 0 c 0 1 /end CHARACTERISTIC)");
    const std::pair<const Folder*, std::string_view> contents[] = {
        {d.findGroup("top"), "top root  [m m2 k i.x[2]]"},
        {d.findGroup("left"), "left  [k i.x[2] m m2]"},
        {d.findFunction("f"), "f 1.2 [m2 m k]"},
        {d.findFunction("old"), "old  [m m2]"},
    };
    for (const auto& [folder, expected] : contents) {
        ASSERT_NE(folder, nullptr) << expected;
        EXPECT_EQ(fmt::format("{}{} {} [{}]", folder->name, folder->root ? " root" : "", folder->version,
                              fmt::join(objectsIn(d, *folder), " ")),
                  expected);
    }
    const std::pair<std::string_view, std::string_view> places[] = {
        {"m", "top 0, right 0, f 4, f 6, old 6"},
        {"i.x[2]", "left 1"},
        {"k", "left 1, f 2"},
        {"top", ""},
        {"no", ""},
    };
    for (const auto& [name, expected] : places) {
        std::string text;
        for (const Membership& place : foldersOf(d, name))
            text += fmt::format("{}{} {}", text.empty() ? "" : ", ", place.folder->name,
                                static_cast<int>(place.role));
        EXPECT_EQ(text, expected) << name;
    }
    EXPECT_EQ(fmt::format("{}", namesIn(d, *d.findGroup("right"), Role::functionOfGroup)), "[\"f\"]");
    EXPECT_EQ(fmt::format("{}", d.warnings),
              "[\"skipped: GROUP 'left' (line 6): the name is already used\"]");
}

std::string dependent(std::string_view name, std::string_view kind, std::string_view formula) {
    return fmt::format(
        "/begin CHARACTERISTIC {} \"\" VALUE 0 l 0 c 0 1 /begin {} {} /end {} /end CHARACTERISTIC\n", name,
        kind, formula, kind);
}

TEST(Dependencies, ComeInTheOrderOfComputing) {
    const std::string dep = "DEPENDENT_CHARACTERISTIC";
    const Description d =
        parsed(dependent("c", dep, "\"X1+X2\" v b") + dependent("b", dep, "\"X1*sysc(K)\" a") +
               dependent("v", "VIRTUAL_CHARACTERISTIC", "\"X1/X2\" a b") +
               dependent("r1", dep, "\"X\" r2 in") + dependent("r2", dep, "\"X\" r1") +
               dependent("after", dep, "\"X\" r2") + dependent("x3", dep, "\"2-X3\" a b") +
               dependent("bad", dep, "\"X1+\" a2") + dependent("none", dep, "") + R"(
/begin MOD_PAR "" SYSTEM_CONSTANT "K" "3" /end MOD_PAR
/begin COMPU_METHOD F "" FORM "" "" /begin FORMULA "X1-X2" /end FORMULA /end COMPU_METHOD
/begin MEASUREMENT vm "" UBYTE F 0 0 0 1 /begin VIRTUAL m1 m2 /end VIRTUAL /end MEASUREMENT
/begin MEASUREMENT one "" UBYTE NO_COMPU_METHOD 0 0 0 1 /begin VIRTUAL m1 /end VIRTUAL /end MEASUREMENT
/begin MEASUREMENT two "" UBYTE NO_COMPU_METHOD 0 0 0 1 /begin VIRTUAL m1 m2 /end VIRTUAL /end MEASUREMENT)");
    const std::pair<std::vector<std::string_view>, std::string_view> orders[] = {
        {{"a"}, "b v x3 c"}, {{"v"}, "c"}, {{"b", "a2"}, "v x3 bad c"},
        {{"m1"}, ""},        {{}, ""},     {{"in"}, "r1 depends on itself: r1 <- r2 <- r1"},
        {{"c"}, ""},
    };
    for (const auto& [changed, expected] : orders) {
        const auto found = dependentsOf(d, changed);
        std::string text = found ? "" : found.error().text();
        if (found)
            for (const Dependency* each : found.value())
                text += (text.empty() ? "" : " ") + std::string(each->name);
        EXPECT_EQ(text, expected);
    }
    const std::tuple<std::string_view, std::vector<double>, std::string_view> values[] = {
        {"b", {2.5}, "7.5"},
        {"vm", {7, 2}, "5"},
        {"one", {4}, "4"},
        {"two", {1, 2}, "two: has no formula"},
        {"x3", {1, 2}, "x3: the formula uses X3, but there are 2 sources"},
        {"bad", {1}, "bad: formula 'X1+': unexpected end"},
    };
    for (const auto& [name, sources, expected] : values) {
        const auto formula = formulaOf(d, *d.findDependency(name));
        EXPECT_EQ(formula ? fmt::format("{}", formula.value().evaluate(sources.data(), sources.size()))
                          : formula.error().text(),
                  expected);
    }
    EXPECT_EQ(d.findDependency("none"), nullptr);
    EXPECT_EQ(fmt::format("{}", d.warnings),
              "[\"skipped: DEPENDENT_CHARACTERISTIC 'none' (line 10): missing formula\"]");
}

}  // namespace
}  // namespace lm::a2l
