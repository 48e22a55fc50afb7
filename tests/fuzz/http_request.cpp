// What a client sends, as far as our own code reads it: first line the target, then the body. What comes out
// can be told again, and no path leads upwards.
#include "fuzz_input.h"
#include "http/target.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    const std::string_view text = fuzz::Input(data, size).rest();
    const std::size_t line = std::min(text.find('\n'), text.size());
    if (const auto target = http::parseTarget(text.substr(0, line))) {
        std::string again = "/";
        for (const std::string& segment : target.value().path) {
            fuzz::require(!segment.empty() && segment != "." && segment != "..", "a segment names something");
            fuzz::require(segment.find('\0') == std::string::npos, "a segment is a text");
            if (again.size() > 1) again += '/';
            for (const char c : segment) {
                for (const char part : {'%', "0123456789abcdef"[(c >> 4) & 15], "0123456789abcdef"[c & 15]})
                    again += part;
            }
        }
        const auto told = http::parseTarget(again);
        fuzz::require(told.ok() && told.value().path == target.value().path, "told again it is the same");
    }
    const auto body = http::parseBody(text.substr(std::min(line + 1, text.size())), 16);
    if (body) fuzz::require(http::parseBody(body.value().dump(), 16).value() == body.value(), "the body too");
    return 0;
}
