// What is read of a request before any handler sees it: targets, bodies, routes, who may ask.
#include <gtest/gtest.h>

#include "http/access.h"
#include "http/router.h"
#include "http/target.h"

namespace lm::http {
namespace {

std::string shown(const std::string& text) {
    const Result<Target> target = parseTarget(text);
    if (!target) return "error";
    std::string line;
    for (const std::string& segment : target.value().path)
        line += "[" + segment + "]";
    for (const auto& [name, value] : target.value().query)
        line += " " + name + "=" + value;
    return line;
}

TEST(Target, IsSplitBeforeItIsDecoded) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"/", ""},
        {"/v1/ecus/a%2Fb", "[v1][ecus][a/b]"},
        {"/a+b?q=c+d%2B&e", "[a+b] e= q=c d+"},
        {"/%C3%A4?x=1%26y=2", "[ä] x=1&y=2"},
        {"/a?", "[a]"},
        {"", "error"},
        {"*", "error"},
        {"http://other/v1", "error"},
        {"/a//b", "error"},
        {"/a/", "error"},
        {"/../etc/passwd", "error"},
        {"/%2e%2e/x", "error"},
        {"/%2E", "error"},
        {"/a%00b", "error"},
        {"/a%0d%0ab", "error"},
        {"/a%", "error"},
        {"/a%4", "error"},
        {"/a%zz", "error"},
        {"/%ff", "error"},
        {"/?a=1&a=2", "error"},
        {"/1/2/3/4/5/6/7/8/9/10/11/12/13/14/15/16/17", "error"},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(shown(text), expected) << text;
}

TEST(Body, IsAnObjectOfLimitedDepth) {
    const std::string deep(100000, '[');
    const std::vector<std::pair<std::string, bool>> cases{
        {"", true},
        {R"({"a": [[{}]]})", true},
        {R"({"a": "[[[[[[[["})", true},
        {R"({"a": "\"[[[[[[["})", true},
        {R"({"a": [[[[]]]]})", false},
        {R"({"a": )" + deep, false},
        {"[]", false},
        {"{", false},
        {R"({"a": 1e999})", false},
        {"{\"a\": \"\xff\"}", false},
    };
    for (const auto& [text, good] : cases)
        EXPECT_EQ(parseBody(text, 4).ok(), good) << text.substr(0, 40);
}

TEST(Access, JudgesByTheHead) {
    AccessSetup setup;
    setup.port = 8080;
    setup.readOnly = true;
    setup.hosts = {"bench"};
    const std::shared_ptr<Access> access = std::move(Access::create(setup)).value();
    const std::string bearer = "Bearer " + access->token();
    ASSERT_EQ(access->token().size(), 64U);
    EXPECT_FALSE(access->login(access->token().substr(1)).ok());
    const std::string set = std::move(access->login(access->token())).value();
    EXPECT_EQ(set.find(access->token()), std::string::npos);
    EXPECT_NE(set.find("; HttpOnly; SameSite=Strict"), std::string::npos);
    const std::string cookie = set.substr(0, set.find(';'));

    struct Case {
        Credentials credentials;
        Demand demand;
        int status;
    };
    const std::string own = "127.0.0.1:8080";
    const Demand reads;
    const Demand writes{true, false, false};
    const Demand open{false, true, false};
    const std::vector<Case> cases{
        {{own, "", bearer, ""}, reads, 200},
        {{own, "http://" + own, "", "other=1; " + cookie}, reads, 200},
        {{"localhost:8080", "", bearer, ""}, reads, 200},
        {{"[::1]:8080", "", bearer, ""}, reads, 200},
        {{"BENCH:8080", "", bearer, ""}, reads, 200},
        {{own, "", "", ""}, open, 200},
        {{own, "", "", ""}, reads, 401},
        {{own, "", bearer + "0", ""}, reads, 401},
        {{own, "", "Bearer ", ""}, reads, 401},
        {{own, "", "", "xcplumo-8080=; xcplumo-8080=" + access->token()}, reads, 401},
        {{own, "", "", "x" + cookie}, reads, 401},
        {{own, "http://evil.example", bearer, ""}, reads, 403},
        {{own, "null", bearer, ""}, reads, 403},
        {{own, "http://localhost:8080", "", cookie}, reads, 403},
        {{own, "http://evil.example", "", ""}, open, 403},
        {{"evil.example:8080", "", bearer, ""}, reads, 421},
        {{"evil.example", "", bearer, ""}, open, 421},
        {{"127.0.0.1", "", bearer, ""}, reads, 421},
        {{"192.168.1.2:8080", "", bearer, ""}, reads, 421},
        {{"", "", bearer, ""}, reads, 421},
        {{own, "", bearer, "", true}, reads, 400},
        {{own, "", bearer, ""}, writes, 403},
        {{own, "", bearer, ""}, {false, false, true}, 403},
    };
    for (const Case& one : cases) {
        const std::optional<Response> refusal = access->judge(one.credentials, one.demand);
        EXPECT_EQ(refusal ? refusal->status : 200, one.status)
            << one.credentials.host << one.credentials.origin << one.credentials.authorization;
        if (refusal) {
            EXPECT_EQ(refusal->body.find(access->token()), std::string::npos);
        }
    }
    for (int i = 0; i < 64; ++i)
        ASSERT_TRUE(access->login(access->token()).ok());
    EXPECT_TRUE(access->judge({own, "", "", cookie}, reads)) << "the oldest cookie is forgotten";
}

TEST(Router, TellsWhatAnAddressTakes) {
    Router router;
    const Handler none = [](Request&, const Reply&) {};
    router.add("GET", "/v1/ecus/{ecu}/values/{name}", {}, none);
    router.add("PUT", "/v1/ecus/{ecu}/values/{name}", {}, none);
    Request request;
    request.method = "PUT";
    request.path = {"v1", "ecus", "a/b", "values", "{name}"};
    const auto found = router.find(request);
    ASSERT_TRUE(std::holds_alternative<const Route*>(found));
    EXPECT_EQ(std::get<const Route*>(found)->method, "PUT");
    EXPECT_EQ(request.part("ecu"), "a/b");
    request.method = "DELETE";
    const auto other = router.find(request);
    ASSERT_TRUE(std::holds_alternative<Response>(other));
    EXPECT_EQ(std::get<Response>(other).status, 405);
    EXPECT_EQ(std::get<Response>(other).headers.at(0).second, "GET, PUT");
    request.path.pop_back();
    EXPECT_EQ(std::get<Response>(router.find(request)).status, 404);
}

}  // namespace
}  // namespace lm::http
