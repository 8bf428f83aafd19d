// The log statement: exact lines per level, the thread text forms, the level-4 dump and
// reset, and silence when the host says no.
#include <gtest/gtest.h>

#include "fakehost.h"
#include "kqCtrlDynamicLog.h"

namespace {

int g_line = 0;

void LogAt(uint32_t Level)
{
    // Each level needs its own statement: the macro takes the level as written.
    switch (Level) {
    case 1: g_line = __LINE__; KQ_LOG(kq::log::Trace, "value %d is %s\n", 5, "odd"); break;
    case 2: g_line = __LINE__; KQ_LOG(kq::log::Notice, "value %d is %s\n", 5, "odd"); break;
    case 3: g_line = __LINE__; KQ_LOG(kq::log::Warning, "value %d is %s\n", 5, "odd"); break;
    default: g_line = __LINE__; KQ_LOG(kq::log::Error, "value %d is %s\n", 5, "odd"); break;
    }
}

class LogTest : public fakehost::ModuleTest {};

TEST_F(LogTest, EachLevelWritesOneLineWithThePrefix)
{
    const char *levelText[] = {"", "TRACE", "NOTICE", "WARN"};
    for (uint32_t level = 1; level <= 3; ++level) {
        fakehost::Reset();
        LogAt(level);
        ASSERT_EQ(fakehost::Host().Logs.size(), 1u) << "level " << level;
        EXPECT_EQ(fakehost::Host().Logs[0].Level, level);
        EXPECT_EQ(fakehost::Host().Logs[0].Text, std::string("<") + levelText[level] +
                                                     "dynamic>[100:200:main][LogAt:" +
                                                     std::to_string(g_line) + "] value 5 is odd\n");
        // The message is stored in the flex-log but neither dumped nor reset.
        EXPECT_EQ(fakehost::Host().FlexLog, "value 5 is odd\n");
        EXPECT_EQ(fakehost::CallCount("KQ_FlexLogDataReset"), 0);
    }
}

TEST_F(LogTest, ErrorLineIsFollowedByTheFlexLogDumpAndReset)
{
    LogAt(4);
    std::string prefix = "<ERRORdynamic>[100:200:main][LogAt:" + std::to_string(g_line) + "] ";
    ASSERT_EQ(fakehost::LogTexts(),
              (std::vector<std::string>{prefix + "value 5 is odd\n", prefix + "dump flexlog:\nvalue 5 is odd\n"}));
    EXPECT_EQ(fakehost::Host().Logs[1].Level, 4u);
    EXPECT_EQ(fakehost::CallCount("KQ_FlexLogDataReset"), 1);
    EXPECT_EQ(fakehost::Host().FlexLog, "");
}

TEST_F(LogTest, ErrorWithoutStoredFlexLogHasNoDumpButStillResets)
{
    fakehost::Host().Fail["KQ_FlexLogSetFormatData"] = -ENOMEM;
    LogAt(4);
    EXPECT_EQ(fakehost::Host().Logs.size(), 1u);
    EXPECT_EQ(fakehost::CallCount("KQ_FlexLogDataReset"), 1);

    fakehost::Reset();
    fakehost::Host().LogTestDump = false;
    LogAt(4);
    EXPECT_EQ(fakehost::Host().Logs.size(), 1u);
    EXPECT_EQ(fakehost::CallCount("KQ_FlexLogDataReset"), 1);
}

TEST_F(LogTest, ThreadTextTakesFourForms)
{
    struct Row {
        long Pid, Tid;
        std::optional<std::string> Name;
        std::string Expected;
    } rows[] = {
        {100, 200, "worker", "[100:200:worker]"},
        {0, 200, "worker", "[200:worker]"},
        {100, 200, std::nullopt, "[100:200]"},
        {0, 200, std::nullopt, "[200]"},
        {100, 0, "worker", ""},
    };
    for (const auto &row : rows) {
        fakehost::Reset();
        fakehost::Host().ProcessId = row.Pid;
        fakehost::Host().ThreadId = row.Tid;
        fakehost::Host().ThreadName = row.Name;
        LogAt(2);
        ASSERT_EQ(fakehost::Host().Logs.size(), 1u);
        EXPECT_EQ(fakehost::Host().Logs[0].Text, "<NOTICEdynamic>" + row.Expected + "[LogAt:" +
                                                     std::to_string(g_line) + "] value 5 is odd\n");
    }
}

TEST_F(LogTest, HostWithoutLevelTextOrLoggerOrWishIsRespected)
{
    fakehost::Host().HasLevel2Str = false;
    LogAt(3);
    ASSERT_EQ(fakehost::Host().Logs.size(), 1u);
    EXPECT_EQ(fakehost::Host().Logs[0].Text.rfind("<dynamic>[100:200:main]", 0), 0u);

    fakehost::Reset();
    fakehost::Host().HasLog = false;
    LogAt(4);
    LogAt(1);
    EXPECT_TRUE(fakehost::Host().Logs.empty());
    EXPECT_EQ(fakehost::CallCount("KQ_FlexLogDataReset"), 1);

    fakehost::Reset();
    fakehost::Host().LogThreshold = 3;
    LogAt(1);
    LogAt(2);
    EXPECT_TRUE(fakehost::Host().Logs.empty());
    LogAt(3);
    EXPECT_EQ(fakehost::Host().Logs.size(), 1u);
}

}  // namespace
