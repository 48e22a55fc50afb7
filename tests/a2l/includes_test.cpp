#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "a2l/description.h"
#include "support/temp_dir.h"

namespace lm::a2l {
namespace {

std::string measurement(std::string_view name, std::string_view content = "") {
    return fmt::format("/begin MEASUREMENT {} \"\xE4\" UBYTE c 0 0 0 1 {} /end MEASUREMENT\n", name, content);
}

// What comes of the files: names with their texts, and warnings; or the error.
TEST(Includes, GoOnInPlaceOfTheDirective) {
    const test::TempDir directory;
    const std::filesystem::path root = directory.path();
    const auto put = [&](const std::string& file, std::string_view text) {
        std::filesystem::create_directories((root / file).parent_path());
        std::ofstream(root / file, std::ios::binary) << text;
    };
    put("sub/near.a2l", measurement("near"));
    put("sub/deep/both.a2l", "/include near.a2l /include far.a2l " + measurement("bad", "ECU_ADDRESS x"));
    put("sub/deep/near.a2l", "ECU_ADDRESS 7");
    put("far.a2l", "\xEF\xBB\xBF/begin MEASUREMENT far \"\xC3\xA4\" UBYTE c 0 0 0 1 /end MEASUREMENT");
    put("sub/open.a2l", "\n/begin MEASUREMENT m \"\" UBYTE c 0 0 0 1");
    put("sub/close.a2l", "/end MEASUREMENT\n/end GROUP");
    put("ring/a.a2l", "\n/include b.a2l");
    put("ring/b.a2l", "/include \"..\\ring\\a.a2l\"");
    for (int i = 0; i < 18; ++i)
        put(fmt::format("deep{}.a2l", i), i < 15 ? fmt::format("/include deep{}.a2l", i + 1) : "");
    put("twice0.a2l", "");
    for (int i = 1; i < 12; ++i)
        put(fmt::format("twice{}.a2l", i),
            fmt::format("/include twice{}.a2l\n/include twice{}.a2l", i - 1, i - 1));
    put("odd.a2l", "/begin GROUP \"");
    ASSERT_EQ(mkfifo((root / "pipe").c_str(), 0600), 0);
    const std::string in = root.string() + "/";
    const std::pair<std::string, std::string> rows[] = {
        {"/include \"sub\\near.a2l\" " + measurement("last"), "near last |"},
        {"/include x.aml\n" + measurement("bad", "ECU_ADDRESS x"),
         "| skipped: MEASUREMENT 'bad' (line 3): ECU_ADDRESS must be a non-negative integer"},
        // Beside the including file first, then beside the first file; each with its own encoding.
        {"/include\n sub/deep/both.a2l\n" + measurement("odd", "ARRAY_SIZE x"),
         "far | skipped: MEASUREMENT 'bad' (" + in +
             "sub/deep/both.a2l line 1): ECU_ADDRESS must be a "
             "non-negative integer skipped: MEASUREMENT 'odd' (line 4): ARRAY_SIZE must be a non-negative "
             "integer"},
        {measurement("m", "/include \"sub/deep/near.a2l\""), "m@7 |"},
        {"/begin GROUP g \"\" /include sub/open.a2l ECU_ADDRESS 3\n/include sub/close.a2l " +
             measurement("n"),
         "n |"},
        {"/include sub/open.a2l",
         "A2L line 3: /end MODULE does not match /begin MEASUREMENT (" + in + "sub/open.a2l line 2)"},
        {"\n/include sub/close.a2l",
         "A2L " + in + "sub/close.a2l line 1: /end MEASUREMENT does not match /begin MODULE (line 1)"},
        {"/include odd.a2l", "A2L " + in + "odd.a2l line 1: unterminated string"},
        {"/begin A2ML /include none /end A2ML // /include none\n/* /include none */", "|"},
        {"/include none.a2l", "A2L line 2: included file none.a2l not found in " + root.string()},
        {"/include \"/none.a2l\"", "A2L line 2: included file /none.a2l not found"},
        {"/include /begin", "A2L line 2: /include names no file"},
        {"/include \"\"", "A2L line 2: /include names no file"},
        {"/include \"x\n\"", "A2L line 2: unterminated string"},
        {"/include pipe", "A2L line 2: included file " + in + "pipe: is not a regular file"},
        {"/include /dev/null", "A2L line 2: included file /dev/null: is not a regular file"},
        {"/include sub", "A2L line 2: included file " + in + "sub: is not a regular file"},
        {"/include ring/a.a2l",
         "A2L " + in + "ring/b.a2l line 1: included file " + in + "ring/a.a2l: includes itself"},
        {"/include root.a2l", "A2L line 2: included file " + in + "root.a2l: includes itself"},
        {"/include deep0.a2l", "|"},
        {"/include ./sub/../deep0.a2l /include twice8.a2l", "|"},
        {"/include twice11.a2l", "A2L " + in + "twice2.a2l line 2: more than 1000 included files"},
    };
    for (const auto& [content, expected] : rows) {
        put("root.a2l",
            "/begin PROJECT P \"\" /begin MODULE M \"\"\n" + content + "\n/end MODULE /end PROJECT");
        const auto d = load(root / "root.a2l");
        std::string text = d ? "" : d.error().text();
        if (d) {
            for (const Measurement& m : d.value().measurements) {
                EXPECT_EQ(m.longIdentifier.empty() ? "\xC3\xA4" : m.longIdentifier, "\xC3\xA4");
                text += std::string(m.name) + (m.hasAddress && m.ecuAddress == 7 ? "@7 " : " ");
            }
            text += fmt::format("|{}{}", d.value().warnings.empty() ? "" : " ",
                                fmt::join(d.value().warnings, " "));
        }
        EXPECT_EQ(text, expected) << content;
    }
    put("deep15.a2l", "/include deep16.a2l");
    EXPECT_EQ(load(root / "deep0.a2l").error().text(), "A2L: no PROJECT block");
    put("root.a2l", "/include deep0.a2l");
    EXPECT_EQ(load(root / "root.a2l").error().text(),
              "A2L " + in + "deep15.a2l line 1: included files are nested deeper than 16");
}

}  // namespace
}  // namespace lm::a2l
