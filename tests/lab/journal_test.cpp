// kqagent with its stderr connected to the journal (JOURNAL_STREAM names that file): every
// line carries its syslog priority, so `journalctl -p err` shows exactly the errors; with
// any other stderr the lines are as they always were.
#include <sys/stat.h>

#include "labutil.h"

namespace {

std::vector<std::string> Lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// JOURNAL_STREAM for the file at Path, as systemd sets it for the stream it connects.
std::string StreamOf(const std::string &Path)
{
    struct stat st {};
    if (stat(Path.c_str(), &st) != 0)
        throw std::runtime_error("stat " + Path);
    return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
}

TEST(JournalLab, EveryLineCarriesItsPriorityAndOnlyErrorsAreErrors)
{
    LAB_REQUIRE();
    lab::Sweep sweep;
    lab::TempDir dir;
    const std::string journal = dir.File("journal"), out = dir.File("stdout");
    lab::WriteFile(journal, "");
    lab::WriteFile(dir.File("kqhost.json"), "{\"dhcpConf\": \"" + dir.File("dhcp.conf") + "\", \"logLevel\": 9}\n");
    lab::WriteFile(dir.File("bad.json"), "{\"requests\": [{\"op\": \"add\", \"item\": {\"ifname\": \"lan0\", \"bogus\": 1}}]}\n");
    lab::WriteFile(dir.File("add.json"),
                   R"({"requests": [{"op": "add", "item": {"ifname": "lan0", "ipv4dhcpitem": {"mode": "server",
                       "dhcpserver": {"dhcpiprange": [{"begin": "192.0.2.100", "len": 50}], "netmask": "255.255.255.0",
                       "gateway": "192.0.2.1", "leasetime": 3600}}}}]})");
    // The module cannot write lan0's dnsmasq file: a real error, logged by the module.
    lab::MustSh("mkdir -p /etc/vyr_dhcpd_lan0.conf");
    const std::string agent = KQAGENT_PATH " --config " + dir.File("kqhost.json");

    setenv("JOURNAL_STREAM", StreamOf(journal).c_str(), 1);
    EXPECT_EQ(lab::Sh(agent + " check " + dir.File("bad.json") + " >>" + out + " 2>>" + journal), 2);
    {
        lab::Child served("", agent + " serve", journal);
        ASSERT_TRUE(lab::WaitFor([&] { return lab::Has(lab::Text(journal), "kqagent: listening on "); }))
            << lab::Text(journal);
        EXPECT_EQ(lab::Sh(agent + " apply " + dir.File("add.json") + " >>" + out + " 2>>" + dir.File("apply.err")), 1);
        served.Stop();
    }
    unsetenv("JOURNAL_STREAM");

    const std::string text = lab::Text(journal);
    const std::vector<std::string> lines = Lines(text);
    ASSERT_FALSE(lines.empty());
    std::vector<std::string> errors;
    for (const std::string &line : lines) {
        EXPECT_TRUE(line.size() >= 3 && line[0] == '<' && line[1] >= '0' && line[1] <= '7' && line[2] == '>') << line;
        if (line.rfind("<3>", 0) == 0)
            errors.push_back(line);
        // The module's own levels decide: errors, warnings, notices, traces.
        if (lab::Has(line, "<ERROR:dynamic>")) {
            EXPECT_EQ(line.substr(0, 3), "<3>") << line;
        }
        if (lab::Has(line, "<WARN:dynamic>")) {
            EXPECT_EQ(line.substr(0, 3), "<4>") << line;
        }
    }
    // The settings' complaint is a warning; the agent's life is information.
    const struct { const char *Prefix, *Piece; } expected[] = {
        {"<4>kqhost: ", "\"logLevel\" must be a number from 1 to 4"},
        {"<3>kqagent: ", "bogus"},
        {"<3>kqagent: ", "nothing applied"},
        {"<6>kqagent: ", "listening on "},
        {"<6>kqagent: ", "apply from pid "},
        {"<5>kqagent: ", "; leaving every service running"},
        {"<3>kqagent: <ERROR:dynamic>", "Set dynamic service conf failed"},
    };
    for (const auto &e : expected) {
        bool found = false;
        for (const std::string &line : lines)
            found = found || (line.rfind(e.Prefix, 0) == 0 && line.find(e.Piece) != std::string::npos);
        EXPECT_TRUE(found) << e.Prefix << "..." << e.Piece << " in:\n" << text;
    }
    // journalctl -p err: the module's errors and the refused file, nothing of a normal life.
    for (const std::string &line : errors) {
        EXPECT_FALSE(lab::Has(line, "listening on") || lab::Has(line, "leaving every service running") ||
                     lab::Has(line, "<INFO:") || lab::Has(line, "<WARN:") || lab::Has(line, "kqhost:"))
            << line;
    }
    // stdout is not the journal stream, and the client's stderr was a plain file: as ever.
    EXPECT_EQ(lab::Text(out).find('<'), std::string::npos) << lab::Text(out);
    EXPECT_TRUE(lab::Has(lab::Text(dir.File("apply.err")), "kqagent: "));
    EXPECT_EQ(lab::Text(dir.File("apply.err")).rfind("<", 0), std::string::npos);

    // The same stderr without JOURNAL_STREAM (or naming another file) gets no priorities.
    for (const std::string &stream : {std::string(), StreamOf(out)}) {
        if (!stream.empty())
            setenv("JOURNAL_STREAM", stream.c_str(), 1);
        std::string plain;
        lab::Sh(agent + " check " + dir.File("bad.json") + " 2>&1 >/dev/null", &plain);
        unsetenv("JOURNAL_STREAM");
        EXPECT_EQ(plain.rfind("kqhost: ", 0), 0u) << plain;
        EXPECT_EQ(plain.find("\n<"), std::string::npos) << plain;
    }
    lab::MustSh("rm -rf /etc/vyr_dhcpd_lan0.conf");
}

}  // namespace
