// The log statement: the exact lines a host receives per level and per host set-up, and the
// flex-log dump and reset that follow an error.
#include <functional>

#include <gtest/gtest.h>

#include "fakehost.h"
#include "kqCtrlDynamicLog.h"

namespace {

int g_line = 0;

void LogAt(uint32_t Level)
{
    // The macro takes the level as written: one statement per level.
    switch (Level) {
    case 1: g_line = __LINE__; KQ_LOG(kq::log::Trace, "value %d is %s\n", 5, "odd"); break;
    case 2: g_line = __LINE__; KQ_LOG(kq::log::Notice, "value %d is %s\n", 5, "odd"); break;
    case 3: g_line = __LINE__; KQ_LOG(kq::log::Warning, "value %d is %s\n", 5, "odd"); break;
    default: g_line = __LINE__; KQ_LOG(kq::log::Error, "value %d is %s\n", 5, "odd"); break;
    }
}

TEST(LogTest, LinesDumpAndResetPerLevelAndHostSetUp)
{
    using H = fakehost::State;
    const std::string odd = "value 5 is odd\n", dump = "dump flexlog:\n" + odd;
    struct Row {
        const char *Name;
        uint32_t Level;
        std::function<void(H &)> Setup;
        std::vector<std::string> Lines;  // '@' stands for "[LogAt:<line>] "
        int Resets;
        std::string FlexLog;
    } rows[] = {
        {"trace", 1, nullptr, {"<TRACEdynamic>[100:200:main]@" + odd}, 0, odd},
        {"notice", 2, nullptr, {"<NOTICEdynamic>[100:200:main]@" + odd}, 0, odd},
        {"warn", 3, nullptr, {"<WARNdynamic>[100:200:main]@" + odd}, 0, odd},
        {"error", 4, nullptr, {"<ERRORdynamic>[100:200:main]@" + odd, "<ERRORdynamic>[100:200:main]@" + dump}, 1, ""},
        {"error, flex-log refused", 4, [](H &h) { h.Fail["KQ_FlexLogSetFormatData"] = -ENOMEM; },
         {"<ERRORdynamic>[100:200:main]@" + odd}, 1, ""},
        {"error, no dump wanted", 4, [](H &h) { h.LogTestDump = false; }, {"<ERRORdynamic>[100:200:main]@" + odd}, 1, ""},
        {"no process id", 2, [](H &h) { h.ProcessId = 0; }, {"<NOTICEdynamic>[200:main]@" + odd}, 0, odd},
        {"no thread name", 2, [](H &h) { h.ThreadName.reset(); }, {"<NOTICEdynamic>[100:200]@" + odd}, 0, odd},
        {"thread id only", 2, [](H &h) { h.ThreadName.reset(); h.ProcessId = 0; }, {"<NOTICEdynamic>[200]@" + odd}, 0, odd},
        {"no thread id", 2, [](H &h) { h.ThreadId = 0; }, {"<NOTICEdynamic>@" + odd}, 0, odd},
        {"no thread id nor name", 2, [](H &h) { h.ThreadId = 0; h.ThreadName.reset(); }, {"<NOTICEdynamic>@" + odd}, 0, odd},
        {"no level text", 3, [](H &h) { h.HasLevel2Str = false; }, {"<dynamic>[100:200:main]@" + odd}, 0, odd},
        {"no logger", 4, [](H &h) { h.HasLog = false; }, {}, 1, ""},
        {"below threshold", 2, [](H &h) { h.LogThreshold = 3; }, {}, 0, odd},
        {"at threshold", 3, [](H &h) { h.LogThreshold = 3; }, {"<WARNdynamic>[100:200:main]@" + odd}, 0, odd},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.Name);
        fakehost::Reset();
        if (row.Setup)
            row.Setup(fakehost::Host());
        LogAt(row.Level);
        std::vector<std::string> expected;
        for (std::string line : row.Lines)
            expected.push_back(line.replace(line.find('@'), 1, "[LogAt:" + std::to_string(g_line) + "] "));
        EXPECT_EQ(fakehost::LogTexts(), expected);
        for (const auto &log : fakehost::Host().Logs)
            EXPECT_EQ(log.Level, row.Level);
        EXPECT_EQ(fakehost::CallCount("KQ_FlexLogDataReset"), row.Resets);
        EXPECT_EQ(fakehost::Host().FlexLog, row.FlexLog);
    }
}

}  // namespace
