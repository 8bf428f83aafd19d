// Settings file and logging of the reference host.
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kqHostLinux.h"

namespace {

constexpr const char *kConfig = "/etc/kq-host-settings.json";

// Loads text as the settings file (null: no KQ_HOST_CONFIG) and returns what went to stderr.
std::string Load(const char *text, const char *path = kConfig)
{
    if (text != nullptr) {
        std::ofstream(kConfig) << text;
        setenv("KQ_HOST_CONFIG", path, 1);
    } else {
        unsetenv("KQ_HOST_CONFIG");
    }
    testing::internal::CaptureStderr();
    KQ_HostReloadConfig();
    return testing::internal::GetCapturedStderr();
}

std::string Lans()
{
    std::string text;
    for (size_t i = 0; i < KQ_HostLanCount(); i++) {
        KQ_CONF_LAN lan;
        EXPECT_EQ(KQ_HostLanAt(i, &lan), 0);
        text += std::string(text.empty() ? "" : ",") + lan.IfName + "=" + std::to_string(lan.CommConf.VpnId);
    }
    return text;
}

std::string Netns(uint32_t vpnId)
{
    char name[16];
    return KQ_HostNetnsName(vpnId, name, sizeof(name)) >= 0 ? name : "?";
}

class HostSettings : public ::testing::Test {
protected:
    void TearDown() override
    {
        unlink(kConfig);
        Load(nullptr);
    }
};

TEST_F(HostSettings, KeysAreReadAndEveryProblemFallsBackWithAMessage)
{
    const std::string defConf = "/etc/kqagent/dhcp.conf", defBak = "/etc/kqagent/dhcp.conf.bak";
    struct {
        const char *text;
        std::string conf, bak, lans, netns5, netns6;
        uint32_t level, v6;
        std::vector<std::string> messages;  // each must appear on stderr; none when empty
        std::string desired = "/etc/kqagent/desired.json", socket = "/run/kqagent/kqagent.sock";
    } cases[] = {
        {R"({"dhcpConf": "/etc/a/d.conf", "dhcpConfBak": "/etc/a/d.bak", "logLevel": 4, "logTo": "stderr",
             "lans": [{"ifname": "eth1", "vpnId": 3}, {"ifname": "eth2", "vpnId": 0}],
             "netns": {"5": "zone5"}, "dhcpv6Interfaces": ["eth1", "eth4"],
             "desiredState": "/var/lib/a/want.json", "controlSocket": "/run/a.sock"})",
         "/etc/a/d.conf", "/etc/a/d.bak", "eth1=3,eth2=0", "zone5", "vpn6", 4, 2, {}, "/var/lib/a/want.json", "/run/a.sock"},
        {R"({"dhcpConf": "/srv/d.conf"})", "/srv/d.conf", defBak, "", "vpn5", "vpn6", 2, 0, {}, "/srv/desired.json"},
        {R"({"dhcpConf": 5, "dhcpConfBak": "", "lans": {}, "netns": [], "logLevel": "3",
             "logTo": "file", "dhcpv6Interfaces": "eth1", "extra": 1, "desiredState": 3, "controlSocket": "a.sock"})",
         defConf, defBak, "", "vpn5", "vpn6", 2, 0,
         {"\"dhcpConf\" must be a text; using \"/etc/kqagent/dhcp.conf\"",
          "\"dhcpConfBak\" must be a path of 1 to 4095 characters", "\"lans\" must be an array",
          "\"netns\" must be an object", "\"logLevel\" must be a number from 1 to 4; using 2",
          "\"logTo\" must be \"stderr\" or \"syslog\"", "\"dhcpv6Interfaces\" must be an array",
          "unknown key \"extra\" ignored", "\"desiredState\" must be a text",
          "\"controlSocket\" must be an absolute path of at most 107 characters"}},
        {R"({"lans": [{"ifname": "eth1", "vpnId": 3}, {"ifname": "bad/name", "vpnId": 1},
                      {"ifname": "eth2"}, 7, {"ifname": "eth1", "vpnId": 4},
                      {"ifname": "eth3", "vpnId": -1}, {"ifname": "eth5", "vpnId": 4294967295}],
             "netns": {"5": "zone5", "0": "x", "abc": "y", "6": "a b", "7": 3},
             "logLevel": 9, "dhcpv6Interfaces": ["eth1", 3, "x:y", "e*", "-d", "a,b", "a\\b"]})",
         defConf, defBak, "eth1=3,eth5=4294967295", "zone5", "vpn6", 2, 1,
         {"\"lans\"[1] needs an interface name", "\"lans\"[2] must be an object with",
          "\"lans\"[3] must be an object with", "\"lans\"[4]: interface eth1 is listed twice",
          "\"lans\"[5] needs", "\"netns\" key \"0\" must be a VPN id", "\"netns\" key \"abc\"",
          "\"netns\" \"6\" must be a namespace name", "\"netns\" \"7\" must be",
          "\"logLevel\" must be", "\"dhcpv6Interfaces\"[1] must be", "\"dhcpv6Interfaces\"[2] must be",
          "\"dhcpv6Interfaces\"[3] must be", "\"dhcpv6Interfaces\"[4] must be", "\"dhcpv6Interfaces\"[5] must be",
          "\"dhcpv6Interfaces\"[6] must be"}},
        {R"({ "dhcpConf": )", defConf, defBak, "", "vpn5", "vpn6", 2, 0,
         {"not valid JSON (unexpected end of file); using the defaults"}},
        {R"({} x)", defConf, defBak, "", "vpn5", "vpn6", 2, 0, {"not valid JSON"}},
        {R"([])", defConf, defBak, "", "vpn5", "vpn6", 2, 0, {"the settings must be a JSON object"}},
    };
    for (const auto &c : cases) {
        std::string err = Load(c.text);
        SCOPED_TRACE(c.text);
        EXPECT_EQ(KQ_AgentPathDhcpConf(), c.conf);
        EXPECT_EQ(KQ_AgentPathDhcpConfbak(), c.bak);
        EXPECT_EQ(KQ_HostDesiredStatePath(), c.desired);
        EXPECT_EQ(KQ_HostControlSocketPath(), c.socket);
        EXPECT_EQ(Lans(), c.lans);
        EXPECT_EQ(Netns(5), c.netns5);
        EXPECT_EQ(Netns(6), c.netns6);
        EXPECT_EQ(KQ_HostLogLevel(), c.level);
        EXPECT_EQ(KQCtrl_IfmInterfaceGetDhcpv6Count(), c.v6);
        EXPECT_STREQ(KQ_HostConfigPath(), kConfig);
        if (c.messages.empty()) {
            EXPECT_EQ(err, "");
        }
        std::string said = "kqhost: ";
        said += kConfig;
        said += ": ";
        for (const std::string &m : c.messages)
            EXPECT_NE(err.find(said + m), std::string::npos)
                << m << "\nstderr:\n" << err;
    }

    // A pointer kept across a reload reads the new path.
    const char *kept = KQ_AgentPathDhcpConf();
    Load(R"({"dhcpConf": "/etc/b.conf"})");
    EXPECT_STREQ(kept, "/etc/b.conf");
    EXPECT_EQ(Load(R"({})", "/etc/kq-none.json"),
              "kqhost: /etc/kq-none.json: cannot read the settings (No such file or directory); using the defaults\n");
    EXPECT_STREQ(KQ_HostConfigPath(), "");
    EXPECT_EQ(Load(nullptr), "");
    EXPECT_STREQ(KQ_AgentPathDhcpConf(), "/etc/kqagent/dhcp.conf");
}

TEST_F(HostSettings, LoggingFollowsTheLevelAndWritesWholeLines)
{
    Load(R"({"logLevel": 2})");
    struct {
        unsigned level;
        BOOL normal, expected;
    } atTwo[] = {{1, TRUE, FALSE}, {2, TRUE, TRUE}, {4, TRUE, TRUE}, {4, FALSE, FALSE}};
    for (const auto &c : atTwo)
        EXPECT_EQ(KQ_LogTest(62, c.level, c.normal, "f"), c.expected) << c.level << c.normal;
    KQ_HostSetLogLevel(1);  // the flex-log dump only when everything is written
    EXPECT_TRUE(KQ_LogTest(62, 4, FALSE, "f"));
    EXPECT_TRUE(KQ_LogTest(62, 1, TRUE, "f"));
    KQ_HostSetLogLevel(9);
    EXPECT_EQ(KQ_HostLogLevel(), 1u);

    KQ_LOG_IMPL_S *impl = KQ_LogGetImplItem(62);
    ASSERT_TRUE(impl != nullptr && impl->Log != nullptr && impl->LogLevel2Str != nullptr);
    const char *texts[] = {"", "DEBUG:", "INFO:", "WARN:", "ERROR:", ""};
    for (uint32_t level = 0; level <= 5; level++)
        EXPECT_STREQ(impl->LogLevel2Str(level), texts[level]);
    EXPECT_STREQ(KQ_LogGetModuleName(62), "dynamic");
    EXPECT_STREQ(KQ_LogGetModuleName(1), "unknown");
    EXPECT_STREQ(KQ_AgentLogGetTag(), "kqagent");
    testing::internal::CaptureStderr();
    impl->Log(KQ_AgentLogGetTag(), 4, "<%s%s>[f:%d] failed(%d:%s)\n", "ERROR:", "dynamic", 7, 2, "x");
    impl->Log(KQ_AgentLogGetTag(), 2, "no newline %s", "here");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kqagent: <ERROR:dynamic>[f:7] failed(2:x)\nkqagent: no newline here\n");
    Load(R"({"logTo": "syslog"})");
    testing::internal::CaptureStderr();
    impl->Log("kqagent", 4, "to syslog\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(HostLog, ThreadTextAndFlexLogArePerThread)
{
    char name[16];
    pthread_setname_np(pthread_self(), "kq-main");
    EXPECT_EQ(KQ_ThreadGetName(name, sizeof(name)), 0);
    EXPECT_STREQ(name, "kq-main");
    EXPECT_EQ(KQ_ThreadGetName(name, 4), -ERANGE);
    EXPECT_EQ(KQ_ThreadGetName(name, 0), -EINVAL);
    EXPECT_EQ(KQ_PlatformGetCurrentThreadId(), static_cast<long>(syscall(SYS_gettid)));
    EXPECT_EQ(KQ_PlatformGetCurrentProcessId(), static_cast<long>(getpid()));

    EXPECT_EQ(KQ_FlexLogSetFormatData("Start %s failed(%d:%s)\n", "eth1", 22, "Invalid argument"), 0);
    EXPECT_STREQ(KQ_FlexLogGetFormatBuff(), "Start eth1 failed(22:Invalid argument)\n");
    std::string other;
    std::thread([&] { other = KQ_FlexLogGetFormatBuff(); }).join();
    EXPECT_EQ(other, "");
    KQ_FlexLogDataReset();
    EXPECT_STREQ(KQ_FlexLogGetFormatBuff(), "");
}

}  // namespace
