// The agent's lines on a journal stream: each with its syslog priority, whole lines only.
#include <gtest/gtest.h>

#include <sstream>

#include "kqAgentJournal.h"

namespace {

using kqagent::Priority;
using kqagent::PriorityLineBuf;

TEST(AgentJournal, EveryLineGetsThePriorityItSays)
{
    const struct { const char *Written; Priority Fallback; const char *Journal; } cases[] = {
        {"kqagent: lan1: start failed (EIO (-5))\n", Priority::Error, "<3>kqagent: lan1: start failed (EIO (-5))\n"},
        {"kqagent: warning: desired.json: lan1 is refused\n", Priority::Error, "<4>kqagent: warning: desired.json: lan1 is refused\n"},
        {"kqagent: note: r.json: relay mode is IPv4 only\n", Priority::Error, "<5>kqagent: note: r.json: relay mode is IPv4 only\n"},
        {"services: 2 kept running, 0 started\n", Priority::Info, "<6>services: 2 kept running, 0 started\n"},
        // A priority written in front wins; the host's own lines come with theirs.
        {"<6>kqagent: listening on /run/kqagent/kqagent.sock\n", Priority::Error, "<6>kqagent: listening on /run/kqagent/kqagent.sock\n"},
        {"<7>kqagent: <DEBUG:dynamic>[f:1] x\n", Priority::Error, "<7>kqagent: <DEBUG:dynamic>[f:1] x\n"},
        // Not a priority: "<8>" and "<3" are text.
        {"<8>x\n", Priority::Error, "<3><8>x\n"},
        {"<3 x\n", Priority::Info, "<6><3 x\n"},
        {"\n", Priority::Error, "<3>\n"},
        // Several lines in one write each get their own; a half line waits for its end.
        {"kqagent: a\nkqagent: warning: b\nkqagent: c", Priority::Error, "<3>kqagent: a\n<4>kqagent: warning: b\n"},
    };
    for (const auto &c : cases) {
        std::stringbuf journal;
        PriorityLineBuf lines(&journal, c.Fallback);
        std::ostream out(&lines);
        out << c.Written << std::flush;
        EXPECT_EQ(journal.str(), c.Journal) << c.Written;
    }
}

TEST(AgentJournal, APriorityMarksOnlyAJournalStream)
{
    std::stringbuf journal;
    PriorityLineBuf lines(&journal, Priority::Error);
    std::ostream toJournal(&lines);
    toJournal << Priority::Info << "kqagent: listening on S" << std::endl
              << "kqagent: event loop: EIO" << std::endl
              << Priority::Warning << "kqagent: lan1 dnsmasq (pid 5): killed; restarted, pid 6 (restart 1)\n";
    EXPECT_EQ(journal.str(), "<6>kqagent: listening on S\n<3>kqagent: event loop: EIO\n"
                             "<4>kqagent: lan1 dnsmasq (pid 5): killed; restarted, pid 6 (restart 1)\n");

    std::ostringstream terminal;
    terminal << Priority::Info << "kqagent: listening on S\n";
    EXPECT_EQ(terminal.str(), "kqagent: listening on S\n");
}

}  // namespace
