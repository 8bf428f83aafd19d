// The control socket's request lines and the agent's log of client text.
#include <gtest/gtest.h>

#include "kqAgentCommon.h"
#include "kqAgentControl.h"
#include "kqAgentJson.h"

namespace {

using kqagent::Command;

TEST(KqAgentControl, RequestLinesAreDecodedOrRefusedWithTheReason)
{
    const std::string dup = ": duplicate key (the second value would silently replace the first)";
    const struct { std::string line, problem; std::vector<std::string> argv; std::string fileText; int logLevel; } cases[] = {
        {R"({"argv":["apply","f.json","--strict"],"fileText":"{}\n","logLevel":1})", "", {"apply", "f.json", "--strict"}, "{}\n", 1},
        {R"({"argv":["status"],"fileText":7})", "fileText: must be a text", {}, "", 0},
        {R"({"argv":["status"],"logLevel":"1"})", "logLevel: must be a number", {}, "", 0},
        {R"({"argv":["status"],"level":1})", "level: unknown key (known: argv, fileText, logLevel)", {}, "", 0},
        {R"({"argv":["status"],"argv":["load"]})", "argv" + dup, {}, "", 0},
        {R"({"argv":["status"],"\u0061rgv":["load"]})", "argv" + dup, {}, "", 0},
        {R"({"argv":["status"],"logLevel":1,"logLevel":4})", "logLevel" + dup, {}, "", 0},
        {R"({"argv":["st"],"fileText":"{\"a\":1,\"a\":2}"})", "", {"st"}, "{\"a\":1,\"a\":2}", 0},
        {R"({"argv":[]})", "argv: must be an array holding the command and its arguments", {}, "", 0},
        {R"({"argv":"status"})", "argv: must be an array holding the command and its arguments", {}, "", 0},
        {R"({"fileText":""})", "argv: must be an array holding the command and its arguments", {}, "", 0},
        {R"({"argv":["status",3]})", "argv[1]: must be a text", {}, "", 0},
        {R"({"argv":["status"])", "not valid JSON (unexpected end of data)", {}, "", 0},
        {std::string(R"({"argv":["status"]})") + '\0' + "x", "not valid JSON (a NUL byte)", {}, "", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        Command command;
        EXPECT_EQ(kqagent::DecodeCommand(c.line, command), c.problem);
        if (c.problem.empty()) {
            EXPECT_EQ(std::make_tuple(command.argv, command.fileText, command.logLevel),
                      std::make_tuple(c.argv, c.fileText, c.logLevel));
        }
    }
    // What the client encodes, the agent decodes unchanged, control characters included.
    const Command sent{{"client", "enable", "ipv4", "e\n\x1b[0m\\"}, std::string("a\0b\"", 4), 3};
    Command got;
    const std::string line = kqagent::EncodeCommand(sent);
    ASSERT_EQ(line.back(), '\n');
    EXPECT_EQ(kqagent::DecodeCommand(line.substr(0, line.size() - 1), got), "");
    EXPECT_EQ(std::make_tuple(got.argv, got.fileText, got.logLevel), std::make_tuple(sent.argv, sent.fileText, sent.logLevel));
}

TEST(KqAgentControl, DuplicateKeysAreFoundAsTheParserReadsThem)
{
    const std::string dup = ": duplicate key (the second value would silently replace the first)";
    const struct { const char *text; std::string found; } cases[] = {
        {R"({"a":1,"b":{"a":2},"c":[{"a":1},{"a":2}]})", ""},
        {R"({"a":1,"b":{"x":2,"x":3}})", "b.x" + dup},
        {R"({"c":[{"a":1},{"a":2,"b":"\"a\",","a":3}]})", "c[1].a" + dup},
        {R"({"a\"b":1,"a\u0022b":2})", "a\"b" + dup},
        {R"({"\n\t\/\\":1,"\u000a\u0009/\u005c":2})", "\n\t/\\" + dup},
        {R"({"\u00e9":1,"é":2})", "\xc3\xa9" + dup},
        {R"({"\ud83d\ude00":1,"😀":2})", "\xf0\x9f\x98\x80" + dup},
        {R"({"\ud83d":1,"\udc00":2})", "\xef\xbf\xbd" + dup},
        {R"({"a\u0000b":1,"a\u0000c":2})", "a" + dup},
        {R"({"\u0041":1,"\u0061":2})", ""},
        {R"([{"k":1},{"k":1,"k":2}])", "[1].k" + dup},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(kqagent::FindDuplicateKey(c.text), c.found);
    }
}

TEST(KqAgentControl, ClientTextIsEscapedForTheLog)
{
    const struct { std::string text, logged; } cases[] = {
        {"status", "status"},
        {"status\nkqagent: forged", "status\\nkqagent: forged"},
        {"a\rb\tc\\n", "a\\rb\\tc\\\\n"},
        {std::string("\x1b[31m\x7f\x01\x1f\0z", 10), "\\x1b[31m\\x7f\\x01\\x1f\\x00z"},
        {" ~\xc3\xa9\x80", " ~\xc3\xa9\x80"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(kqagent::EscapeForLog(c.text), c.logged);
}

}  // namespace
