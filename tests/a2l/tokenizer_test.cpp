#include "a2l/tokenizer.h"

#include <string>

#include <gtest/gtest.h>

#include "core/text.h"

namespace lm::a2l {
namespace {

std::string dumpTokens(const Block& block) {
    std::string out;
    for (const Token& token : block.tokens()) {
        const std::string text(token.text);
        if (!out.empty()) out += ' ';
        if (token.kind == TokenKind::string) out += '"' + text + '"';
        if (token.kind == TokenKind::identifier) out += text;
        if (token.kind == TokenKind::number) out += '#' + formatGeneral(token.value);
        out += '@' + std::to_string(token.line);
    }
    return out;
}

// KEYWORD@line{tokens|child position:child ...}; tokens carry their lines, numbers a '#'.
std::string dump(const Block& block) {
    std::string out = std::string(block.keyword) + '@' + std::to_string(block.line) + '{' + dumpTokens(block);
    for (const Block& child : block.children()) {
        out += '|' + std::to_string(child.position) + ':' + dump(child);
    }
    return out + '}';
}

TEST(Tokenizer, BuildsTheTree) {
    const std::pair<const char*, const char*> rows[] = {
        {"", "@1{}"},
        {"\xEF\xBB\xBF x", "@1{x@1}"},
        {"a\n\tb\r\v\fc\n\nd", "@1{a@1 b@2 c@2 d@4}"},
        {"a/*\n /* */b// c */ \"\nd//", "@1{a@1 b@2 d@3}"},
        {"/*/ x */ y /**/ z", "@1{y@1 z@1}"},
        {"a+b-c.d_e[1] [x]", "@1{a+b-c.d_e[1]@1 [x]@1}"},
        {"a=b;(c)\xE4", "@1{a@1 =@1 b@1 ;@1 (@1 c@1 )@1 \xE4@1}"},
        {"/beginX /end_A / /include", "@1{/@1 beginX@1 /@1 end_A@1 /@1 /@1 include@1}"},
        {R"("" "a\"b" "\\" "c\
" "d)"
         "\n\" e",
         R"(@1{""@1 "a\"b"@1 "\\"@1 "c\
"@1 "d
"@2 e@3})"},
        {R"("a ""b""" """" "" """c" "\"" "\\")", R"(@1{"a ""b"""@1 """"@1 ""@1 """c"@1 "\""@1 "\\"@1})"},
        {"\"a\"\"\nb\" c", "@1{\"a\"\"\nb\"@1 c@2}"},
        // Numbers: what the conversion does not use up is a name.
        {"0x 0x00FF -0x20 +0Xa 0xG", "@1{0x@1 #255@1 #-32@1 #10@1 0xG@1}"},
        {"+3 -3 .5 -.5 5. 1e3 1E-2 007 -0", "@1{#3@1 #-3@1 #0.5@1 #-0.5@1 #5@1 #1000@1 #0.01@1 #7@1 #-0@1}"},
        {"1.2.3 1.5e 12ms . + - +- +-1 --1 .e1 e1",
         "@1{1.2.3@1 1.5e@1 12ms@1 .@1 +@1 -@1 +-@1 +-1@1 --1@1 .e1@1 e1@1}"},
        {"4.29497e+09 123456789012345678 1e400 1e-400", "@1{#4.29497e+09@1 #1.23457e+17@1 #inf@1 #0@1}"},
        {"0x1FFFFFFFFFFFFFFFFF 0x000000000000000000001", "@1{#5.90296e+20@1 #1@1}"},
        {"inf nan 1d3 1,5", "@1{inf@1 nan@1 1d3@1 #1@1 ,@1 #5@1}"},
        // Blocks.
        {"a /begin B b /begin C c /end C d /end B e", "@1{a@1 e@1|1:B@1{b@1 d@1|1:C@1{c@1}}}"},
        {"/begin\nB\n/end B/begin B/end\nB", "@1{|0:B@1{}|0:B@3{}}"},
        {"/begin A2ML \" /begin X /* /end  \t\r\n A2ML x", "@1{x@2}"},
        {"/begin B /begin A2ML\n/end A2MX /end/endA2ML y /end B", "@1{|0:B@1{y@2}}"},
    };
    for (const auto& [text, tree] : rows)
        EXPECT_EQ(dump(parse(text).value()), tree) << text;
}

TEST(Tokenizer, TellsWhatIsWrongAndWhere) {
    const std::pair<const char*, const char*> rows[] = {
        {"a\n/*\n\n", "A2L line 2: unterminated comment"},
        {"\n\"\n\\\"\n", "A2L line 4: unterminated string"},
        {"\"\\", "A2L line 1: unterminated string"},
        {"\"a\"\"", "A2L line 1: unterminated string"},
        {"\n/begin", "A2L line 2: keyword expected after /begin or /end"},
        {"/begin\n \"x\ny\"", "A2L line 3: keyword expected after /begin or /end"},
        {"/begin A /end A\n/end\nA", "A2L line 3: unexpected /end A"},
        {"\n/begin A\n/begin B /end A", "A2L line 3: /end A does not match /begin B (line 3)"},
        {"/begin A\n/end a", "A2L line 2: /end a does not match /begin A (line 1)"},
        {"/begin A\n/begin B\n/end B\n\n", "A2L line 5: missing /end A for block at line 1"},
        {"/begin M\n/begin A2ML\n/end M\n", "A2L line 4: missing /end A2ML for block at line 2"},
    };
    for (const auto& [text, message] : rows)
        EXPECT_EQ(parse(text).error().text(), message) << text;
    std::string deep;
    for (int i = 0; i < 251; ++i)
        deep += "/begin A\n";
    EXPECT_EQ(parse(deep).error().text(), "A2L line 251: blocks nested deeper than 250 levels");
}

}  // namespace
}  // namespace lm::a2l
