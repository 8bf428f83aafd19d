// Settings file and logging of the reference host.
#include "hostTestUtil.h"

namespace {

constexpr const char *kConfig = "/etc/kq-host-settings.json";

// Loads text as the settings file (null: no KQ_HOST_CONFIG) and returns what went to stderr.
std::string Load(const char *text, const char *path = kConfig)
{
    if (text != nullptr)
        std::ofstream(kConfig) << text;
    text ? setenv("KQ_HOST_CONFIG", path, 1) : unsetenv("KQ_HOST_CONFIG");
    testing::internal::CaptureStderr();
    KQ_HostReloadConfig();
    return testing::internal::GetCapturedStderr();
}

// Every setting the module and the agent read, on one line.
std::string Settings()
{
    std::string text = std::string(KQ_AgentPathDhcpConf()) + " " + KQ_AgentPathDhcpConfbak() + " " +
                       KQ_HostDesiredStatePath() + " " + KQ_HostControlSocketPath() + " [";
    for (size_t i = 0; i < KQ_HostLanCount(); i++) {
        KQ_CONF_LAN lan;
        EXPECT_EQ(KQ_HostLanAt(i, &lan), 0);
        text += std::string(i ? "," : "") + lan.IfName + "=" + std::to_string(lan.CommConf.VpnId);
    }
    char ns5[16] = "?", ns6[16] = "?";
    KQ_HostNetnsName(5, ns5, sizeof(ns5));
    KQ_HostNetnsName(6, ns6, sizeof(ns6));
    return text + "] " + ns5 + " " + ns6 + " level " + std::to_string(KQ_HostLogLevel()) + " v6 " +
           std::to_string(KQCtrl_IfmInterfaceGetDhcpv6Count());
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
    const std::string defaults = "/etc/kqagent/dhcp.conf /etc/kqagent/dhcp.conf.bak /etc/kqagent/desired.json "
                                 "/run/kqagent/kqagent.sock [] vpn5 vpn6 level 2 v6 0";
    struct { const char *text; std::string settings; std::vector<std::string> messages; } cases[] = {
        {R"({"dhcpConf": "/etc/a/d.conf", "dhcpConfBak": "/etc/a/d.bak", "logLevel": 4, "logTo": "stderr",
             "lans": [{"ifname": "eth1", "vpnId": 3}, {"ifname": "eth2", "vpnId": 0}],
             "netns": {"5": "zone5"}, "dhcpv6Interfaces": ["eth1", "eth4"],
             "desiredState": "/var/lib/a/want.json", "controlSocket": "/run/a.sock"})",
         "/etc/a/d.conf /etc/a/d.bak /var/lib/a/want.json /run/a.sock [eth1=3,eth2=0] zone5 vpn6 level 4 v6 2", {}},
        {R"({"dhcpConf": "/srv/d.conf"})",
         "/srv/d.conf /etc/kqagent/dhcp.conf.bak /srv/desired.json /run/kqagent/kqagent.sock [] vpn5 vpn6 level 2 v6 0", {}},
        {R"({"dhcpConf": 5, "dhcpConfBak": "", "lans": {}, "netns": [], "logLevel": "3",
             "logTo": "file", "dhcpv6Interfaces": "eth1", "desiredState": 3, "controlSocket": "a.sock",
             "controlMemory": 65535})",
         defaults,
         {R"("dhcpConf" must be a text; using "/etc/kqagent/dhcp.conf")",
          R"("dhcpConfBak" must be a path of 1 to 4095 characters; using "/etc/kqagent/dhcp.conf.bak")",
          R"("lans" must be an array of {"ifname", "vpnId"}; using none)",
          R"("netns" must be an object of VPN id -> namespace name; using vpn<id>)",
          R"("logLevel" must be a number from 1 to 4; using 2)", R"("logTo" must be "stderr" or "syslog"; using "stderr")",
          R"("dhcpv6Interfaces" must be an array of interface names; using none)",
          R"("desiredState" must be a text; using "")",
          R"("controlSocket" must be an absolute path of at most 107 characters; using "/run/kqagent/kqagent.sock")",
          R"("controlMemory" must be a number of bytes from 65536 to 1099511627776; using 134217728)"}},
        {R"({"lans": [{"ifname": "eth1", "vpnId": 3}, {"ifname": "bad/name", "vpnId": 1},
                      {"ifname": "eth2"}, 7, {"ifname": "eth1", "vpnId": 4},
                      {"ifname": "eth3", "vpnId": -1}, {"ifname": "eth5", "vpnId": 4294967295}],
             "netns": {"5": "zone5", "0": "x", "abc": "y", "6": "a b", "7": 3},
             "logLevel": 9, "dhcpv6Interfaces": ["eth1", 3, "x:y", "e*", "-d", "a,b", "a\\b"]})",
         "/etc/kqagent/dhcp.conf /etc/kqagent/dhcp.conf.bak /etc/kqagent/desired.json /run/kqagent/kqagent.sock "
         "[eth1=3,eth5=4294967295] zone5 vpn6 level 2 v6 1",
         {R"("lans"[1] needs an interface name (1 to 15 characters) and a vpnId from 0 to 4294967295; dropped)",
          R"("lans"[2] must be an object with "ifname" and "vpnId"; dropped)",
          R"("lans"[3] must be an object with "ifname" and "vpnId"; dropped)",
          R"("lans"[4]: interface eth1 is listed twice; dropped)",
          R"("lans"[5] needs an interface name (1 to 15 characters) and a vpnId from 0 to 4294967295; dropped)",
          R"("netns" key "0" must be a VPN id from 1 to 4294967295; dropped)",
          R"("netns" key "abc" must be a VPN id from 1 to 4294967295; dropped)",
          R"("netns" "6" must be a namespace name (1 to 15 characters); dropped)",
          R"("netns" "7" must be a namespace name (1 to 15 characters); dropped)",
          R"("logLevel" must be a number from 1 to 4; using 2)",
          R"("dhcpv6Interfaces"[1] must be an interface name; dropped)", R"("dhcpv6Interfaces"[2] must be an interface name; dropped)",
          R"("dhcpv6Interfaces"[3] must be an interface name; dropped)", R"("dhcpv6Interfaces"[4] must be an interface name; dropped)",
          R"("dhcpv6Interfaces"[5] must be an interface name; dropped)", R"("dhcpv6Interfaces"[6] must be an interface name; dropped)"}},
        {R"({ "dhcpConf": )", defaults, {"not valid JSON (unexpected end of file); using the defaults"}},
        {R"({} x)", defaults, {"not valid JSON (unexpected character); using the defaults"}},
        {R"([])", defaults, {"the settings must be a JSON object; using the defaults"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        std::string err = Load(c.text), expected;
        for (const std::string &m : c.messages)
            expected += "kqhost: /etc/kq-host-settings.json: " + m + "\n";
        EXPECT_EQ(err, expected);
        EXPECT_EQ(Settings(), c.settings);
        EXPECT_STREQ(KQ_HostConfigPath(), kConfig);
    }
    // A pointer kept across a reload reads the new path.
    const char *kept = KQ_AgentPathDhcpConf();
    Load(R"({"dhcpConf": "/etc/b.conf"})");
    EXPECT_STREQ(kept, "/etc/b.conf");
    EXPECT_EQ(Load(R"({})", "/etc/kq-none.json"),
              "kqhost: /etc/kq-none.json: cannot read the settings (No such file or directory); using the defaults\n");
    EXPECT_STREQ(KQ_HostConfigPath(), "");
    EXPECT_EQ(Load(nullptr), "");
    EXPECT_EQ(Settings(), defaults);
}

TEST_F(HostSettings, UnknownKeysAreErrorsNamingTheKnownOnes)
{
    const std::string file = std::string(kConfig) + ": ";
    const std::string known = R"( (known keys: "dhcpConf", "dhcpConfBak", "desiredState", "controlSocket", "controlMemory", )"
                              R"("lans", "netns", "logLevel", "logTo", "dhcpv6Interfaces"))";
    const std::string lanKnown = R"( (known keys: "ifname", "vpnId"))";
    struct { const char *text; std::string errors; std::string lans; size_t memory; } cases[] = {
        {R"({"lans": [{"ifname": "eth1", "vpnId": 3}], "controlMemory": 65536})", "", "[eth1=3]", 65536},
        {R"({"controlMemory": 1099511627776})", "", "[]", size_t{1} << 40},
        {R"({"lan": [{"ifname": "eth1", "vpnId": 3}]})", file + R"(unknown key "lan")" + known + "\n", "[]", 128u << 20},
        {R"({"Lans": [], "logLevel": 3, "zones": {}})",
         file + R"(unknown key "Lans")" + known + "\n" + file + R"(unknown key "zones")" + known + "\n", "[]", 128u << 20},
        {R"({"lans": [{"ifname": "eth1", "vpnId": 3, "zone": 4}, {"ifname": "eth2", "vpnid": 5}]})",
         file + R"("lans"[0]: unknown key "zone")" + lanKnown + "\n" + file + R"("lans"[1]: unknown key "vpnid")" + lanKnown + "\n",
         "[eth1=3]", 128u << 20},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        Load(c.text);
        EXPECT_EQ(KQ_HostConfigError(), c.errors);
        EXPECT_EQ(Settings().substr(Settings().find('['), c.lans.size()), c.lans);
        EXPECT_EQ(KQ_HostControlMemory(), c.memory);
    }
    // Errors are the file's: the next reload of a good one (or of none) clears them.
    Load(R"({"dhcpConf": "/etc/b.conf"})");
    EXPECT_STREQ(KQ_HostConfigError(), "");
    Load(R"({"lan": []})");
    Load(nullptr);
    EXPECT_STREQ(KQ_HostConfigError(), "");
}

TEST_F(HostSettings, LoggingFollowsTheLevelAndWritesWholeLines)
{
    Load(R"({"logLevel": 2})");
    auto test = [](unsigned level, BOOL normal) { return KQ_LogTest(62, level, normal, "f"); };
    EXPECT_EQ((std::vector<BOOL>{test(1, TRUE), test(2, TRUE), test(4, TRUE), test(4, FALSE)}),
              (std::vector<BOOL>{FALSE, TRUE, TRUE, FALSE}));
    KQ_HostSetLogLevel(1);  // the flex-log dump only when everything is written
    EXPECT_TRUE(test(4, FALSE) && test(1, TRUE));
    KQ_HostSetLogLevel(9);
    EXPECT_EQ(KQ_HostLogLevel(), 1u);
    KQ_LOG_IMPL_S *impl = KQ_LogGetImplItem(62);
    ASSERT_TRUE(impl != nullptr && impl->Log != nullptr && impl->LogLevel2Str != nullptr);
    std::string names = std::string(KQ_LogGetModuleName(62)) + " " + KQ_LogGetModuleName(1) + " " + KQ_AgentLogGetTag();
    for (uint32_t level = 0; level <= 5; level++)
        names += std::string(" ") + impl->LogLevel2Str(level);
    EXPECT_EQ(names, "dynamic unknown kqagent  DEBUG: INFO: WARN: ERROR: ");
    testing::internal::CaptureStderr();
    impl->Log(KQ_AgentLogGetTag(), 4, "<%s%s>[f:%d] failed(%d:%s)\n", "ERROR:", "dynamic", 7, 2, "x");
    impl->Log(KQ_AgentLogGetTag(), 2, "no newline %s", "here");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "kqagent: <ERROR:dynamic>[f:7] failed(2:x)\nkqagent: no newline here\n");
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
    EXPECT_EQ((std::vector<long>{KQ_ThreadGetName(name, 4), KQ_ThreadGetName(name, 0), KQ_PlatformGetCurrentThreadId(),
                                 KQ_PlatformGetCurrentProcessId()}),
              (std::vector<long>{-ERANGE, -EINVAL, syscall(SYS_gettid), getpid()}));
    EXPECT_EQ(KQ_FlexLogSetFormatData("Start %s failed(%d:%s)\n", "eth1", 22, "Invalid argument"), 0);
    EXPECT_STREQ(KQ_FlexLogGetFormatBuff(), "Start eth1 failed(22:Invalid argument)\n");
    std::string other = "?";
    std::thread([&] { other = KQ_FlexLogGetFormatBuff(); }).join();
    EXPECT_EQ(other, "");
    KQ_FlexLogDataReset();
    EXPECT_STREQ(KQ_FlexLogGetFormatBuff(), "");
}

}  // namespace
