#include "cli/json_writer.h"

#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace lm::cli {
namespace {

TEST(JsonWriter, WritesTextsAndNumbersThatEveryReaderTakes) {
    const std::pair<std::string, const char*> texts[] = {
        {"a\"b\\c", R"("a\"b\\c")"},
        {std::string("\0\n\x1F\x7F", 4), R"("\u0000\u000a\u001f\u007f")"},
        {"\u00B0\u20AC\U0001F600\u009B", "\"\u00B0\u20AC\U0001F600\\u009b\""},
        {"\xFFok\xC3", "\"\uFFFDok\uFFFD\""},
        {"\xE2\x82x", "\"\uFFFD\uFFFDx\""},
        {"\xED\xA0\x80{", "\"\uFFFD\uFFFD\uFFFD{\""},
    };
    for (const auto& [text, expected] : texts) {
        std::string written;
        JsonWriter(written).value(text);
        EXPECT_EQ(written, expected);
    }
    std::string written;
    JsonWriter json(written);
    json.beginObject();
    json.key("a").beginArray();
    json.endArray();
    json.key("{").beginArray();
    json.value(INT64_MIN);
    json.value(UINT64_MAX);
    json.value(std::uint8_t{65});
    for (const double number : {0.1, -0.0, 5e-324, 1e300, std::numeric_limits<double>::infinity(),
                                std::numeric_limits<double>::quiet_NaN()})
        json.value(number);
    json.null();
    json.endArray();
    json.member("b", false);
    json.endObject();
    EXPECT_EQ(written, R"({"a":[],"{":[-9223372036854775808,18446744073709551615,65,0.1,-0,5e-324,1e+300,)"
                       R"(null,null,null],"b":false})");
}

}  // namespace
}  // namespace lm::cli
