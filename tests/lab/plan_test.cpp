// plan against apply: what `kqagent plan` says the module would do is what the following
// apply does to the real processes (new, unchanged, restarted, stopped, relay rebuilt), for
// each kind of change; and `check` works for any user and touches nothing.
//
//   zone 0   lan1 192.0.2.1/24 (IPv4 server)   lan2 2001:db8:2::1/64 (SLAAC)
//            rl3 198.51.100.129/25 (relay only)  dark (exists, no address)

#include "labutil.h"

namespace {

std::string Add4(const std::string &ifname, const std::string &fields)
{
    return R"({"op":"add","item":{"ifname":")" + ifname + R"(","ipv4dhcpitem":{"mode":"server","dhcpserver":{)" + fields + "}}}}";
}

const std::string kLan1 = R"("dhcpiprange":[{"begin":"192.0.2.100","len":20}],"netmask":"255.255.255.0","gateway":"192.0.2.1","dns":["192.0.2.1"],"leasetime":3600)";

std::string Lan2(const std::string &prefix)
{
    return R"({"op":"add","item":{"ifname":"lan2","ipv6dhcpitem":{"mode":"server","dhcpserver":{"prefix":")" + prefix +
           R"(","prefixlength":64,"dns":["2001:db8:2::1"],"ipv6dynamicmode":"slaac","dnsdynamicmode":"slaac"}}}})";
}

std::string Relay(const std::string &servers)
{
    return R"({"op":"add","item":{"ifname":"rl3","ipv4dhcpitem":{"mode":"relay","dhcprelay":{"relayserver":[)" + servers +
           R"(],"lanip":"198.51.100.129"}}}})";
}

std::string Requests(const std::vector<std::string> &requests)
{
    std::string text;
    for (const auto &request : requests)
        text += (text.empty() ? "" : ",") + request;
    return R"({"requests":[)" + text + "]}";
}

// The request lines of a plan, without its head line.
std::vector<std::string> PlanLines(const std::string &out)
{
    std::vector<std::string> lines;
    size_t at = out.find('\n');
    while (at != std::string::npos && at + 1 < out.size()) {
        const size_t end = out.find('\n', at + 1);
        lines.push_back(out.substr(at + 1, end - at - 1));
        at = end;
    }
    return lines;
}

std::optional<pid_t> Server(const std::string &ifname) { return lab::ReadPid("/var/run/vyr_dhcpd_" + ifname + ".pid"); }

TEST(PlanLab, WhatPlanSaysIsWhatApplyDoes)
{
    LAB_REQUIRE();
    lab::Sweep sweep;
    lab::TempDir dir;
    lab::Netns c1("pl-c1"), c2("pl-c2"), c3("pl-c3");
    lab::Veth("", "lan1", {"192.0.2.1/24"}, "pl-c1", "c1");
    lab::Veth("", "lan2", {"2001:db8:2::1/64"}, "pl-c2", "c2");
    lab::Veth("", "rl3", {"198.51.100.129/25"}, "pl-c3", "c3");
    lab::UseHost(dir, R"("logLevel": 3)");
    auto agent = lab::Serve(KQAGENT_PATH, dir.File("serve.log"));
    const std::string rebuilt = "    shared relay rebuilt and restarted (rl3)";
    const struct {
        std::vector<std::string> requests;
        std::vector<std::string> plan;
    } cases[] = {
        {{Add4("lan1", kLan1), Lan2("2001:db8:2::"), Relay(R"("198.51.100.2")")},
         {"[0] add lan1: new server", "[1] add lan2: new server", "[2] add rl3: new relay", rebuilt}},
        {{Add4("lan1", kLan1)}, {"[0] add lan1: server unchanged", rebuilt}},
        {{Add4("lan1", lab::Replaced(kLan1, "3600", "600"))},
         {"[0] add lan1: server restart (ipv4 leasetime differs)", rebuilt}},
        {{Add4("lan1", lab::Replaced(kLan1, "\"len\":20", "\"len\":30"))},
         {"[0] add lan1: server restart (ipv4 dhcpiprange, ipv4 leasetime differ)", rebuilt}},
        {{Add4("lan1", lab::Replaced(kLan1, "\"dns\":[\"192.0.2.1\"]", "\"dns\":[\"198.51.100.53\"]"))},
         {"[0] add lan1: server restart (ipv4 dhcpiprange, ipv4 dns differ)", rebuilt}},
        {{Add4("lan1", lab::Replaced(kLan1, "\"gateway\":\"192.0.2.1\",", "")), Lan2("2001:db8:2:0:1::")},
         {"[0] add lan1: server restart (ipv4 dns, ipv4 gateway differ)", rebuilt,
          "[1] add lan2: server restart (ipv6 prefix differs)", rebuilt}},
        {{Relay(R"("198.51.100.2","198.51.100.3")")}, {"[0] add rl3: relay changed (relayserver differs)", rebuilt}},
        {{R"({"op":"delete","item":{"ifname":"lan2"}})", R"({"op":"delete","item":{"ifname":"rl3"}})",
          R"({"op":"delete","item":{"ifname":"lan9"}})"},
         {"[0] delete lan2: server stop", rebuilt, "[1] delete rl3: relay removed", "    shared relay stopped (no relay interface left)",
          "[2] delete lan9: not configured; nothing to stop"}},
    };
    for (const auto &c : cases) {
        const std::string file = dir.File("case.json");
        lab::WriteFile(file, Requests(c.requests));
        SCOPED_TRACE(Requests(c.requests));
        const auto lan1 = Server("lan1"), lan2 = Server("lan2"), relay = lab::ReadPid("/var/run/vyr_dhcpd_relay.pid");
        const std::string conf = lab::Text(dir.File("dhcp.conf"));
        const lab::Outcome plan = lab::Kqagent(dir, "plan " + file);
        EXPECT_EQ(plan.Status, 0) << plan.Err;
        EXPECT_EQ(plan.Err, "");
        EXPECT_EQ(PlanLines(plan.Out), c.plan) << plan.Out;
        // Nothing touched by the plan.
        EXPECT_EQ(Server("lan1"), lan1);
        EXPECT_EQ(lab::ReadPid("/var/run/vyr_dhcpd_relay.pid"), relay);
        EXPECT_EQ(lab::Text(dir.File("dhcp.conf")), conf);

        const lab::Outcome applied = lab::Kqagent(dir, "apply " + file);
        ASSERT_EQ(applied.Status, 0) << applied.Out << applied.Err;
        // Each line's word against the processes.
        for (const auto &[ifname, before] : {std::pair{std::string("lan1"), lan1}, std::pair{std::string("lan2"), lan2}}) {
            std::string line;
            for (const auto &l : c.plan)
                if (l.find(" " + ifname + ": ") != std::string::npos)
                    line = l;
            const auto after = Server(ifname);
            if (line.empty() || lab::Has(line, "unchanged"))
                EXPECT_EQ(after, before) << ifname;
            else if (lab::Has(line, "server stop"))
                EXPECT_FALSE(after && lab::Alive(*after)) << ifname;
            else
                EXPECT_TRUE(after && after != before && lab::Alive(*after)) << ifname;
        }
        const auto relayAfter = lab::ReadPid("/var/run/vyr_dhcpd_relay.pid");
        const bool rebuiltLast = std::find(c.plan.begin(), c.plan.end(), rebuilt) != c.plan.end() &&
                                 c.plan.back() != "    shared relay stopped (no relay interface left)" && c.plan.back() != "[2] delete lan9: not configured; nothing to stop";
        if (rebuiltLast) {
            EXPECT_TRUE(relayAfter && relayAfter != relay && lab::Alive(*relayAfter));
        } else if (relay) {
            EXPECT_FALSE(relayAfter && lab::Alive(*relayAfter));
        }
    }

    // -v: the exact dnsmasq file the apply then writes.
    const std::string file = dir.File("verbose.json");
    lab::WriteFile(file, Requests({Add4("lan1", kLan1)}));
    const lab::Outcome verbose = lab::Kqagent(dir, "-v plan " + file);
    ASSERT_EQ(lab::Kqagent(dir, "apply " + file).Status, 0);
    std::string text;
    for (const auto &line : PlanLines(verbose.Out))
        if (line.rfind("      ", 0) == 0)
            text += line.substr(6) + "\n";
    EXPECT_EQ(text, lab::Text("/etc/vyr_dhcpd_lan1.conf")) << verbose.Out;

    // A file the module refuses (a dnsmasq file too long for it): plan names the refusal and
    // the request apply stops at, and apply then refuses the same way with nothing changed.
    std::string pools, servers, ranges;
    for (int i = 0; i < 64; ++i) {
        const std::string comma = i ? "," : "", n = std::to_string(i + 1);
        pools += comma + R"({"begin":"192.0.2.)" + std::to_string(100 + i) + R"(","len":1})";
        servers += comma + R"("198.51.100.)" + n + "\"";
        ranges += comma + R"({"ipv6begin":"2001:db8:ffff:ffff:ffff:ffff:1)" + n + R"(:0","ipv6end":"2001:db8:ffff:ffff:ffff:ffff:1)" + n + R"(:1"})";
    }
    lab::WriteFile(file, Requests({R"({"op":"add","item":{"ifname":"lan1","ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[)" + pools +
                                       R"(],"netmask":"255.255.255.0","dns":[)" + servers + R"(],"leasetime":4294967295}},"ipv6dhcpitem":{"mode":"server",)"
                                       R"("dhcpserver":{"ipv6dynamicmode":"dhcp","dnsdynamicmode":"dhcp","prefixlength":128,"leasetime":4294967295,"dhcpiprange":[)" +
                                       ranges + "]}}}}",
                                   Lan2("2001:db8:2::")}));
    const lab::Outcome refusedPlan = lab::Kqagent(dir, "plan " + file);
    EXPECT_EQ(refusedPlan.Status, 2);
    EXPECT_TRUE(lab::Has(refusedPlan.Out, "\n[0] add lan1: refused: add of lan1 refused (EOVERFLOW (-75) "));
    EXPECT_TRUE(lab::Has(refusedPlan.Out, "\n    apply stops here; request(s) 1..1 would not be applied\n"));
    const lab::Outcome refused = lab::Kqagent(dir, "apply " + file);
    EXPECT_EQ(refused.Status, 1);
    EXPECT_TRUE(lab::Has(refused.Err, "kqagent: request 0: add of lan1 refused (EOVERFLOW (-75) "));
    EXPECT_TRUE(lab::Has(refused.Err, "kqagent: lan1: its configured dnsmasq runs again (the refused request had stopped or replaced it)\n"));
    EXPECT_TRUE(Server("lan1") && lab::Alive(*Server("lan1")));
    EXPECT_EQ(lab::Text("/etc/vyr_dhcpd_lan1.conf"), text);
    EXPECT_FALSE(Server("lan2"));
}

// check as a user without privileges: no agent, no lock, nothing created; the machine is
// looked at (a missing interface, one without an address in its pool's subnet).
TEST(PlanLab, CheckRunsForAnyUserAndLooksAtTheMachine)
{
    LAB_REQUIRE("setpriv");
    lab::Sweep sweep;
    lab::TempDir dir;
    lab::Veth("", "dark", {}, "", "darkp");
    lab::Veth("", "lit", {"192.0.2.1/24"}, "", "litp");
    lab::UseHost(dir, R"("logLevel": 3, "controlSocket": ")" + dir.File("run/kqagent.sock") + "\"");
    lab::MustSh("chmod 755 " + dir.File("") + " && chmod 644 " + dir.File("kqhost.json"));
    // The build folder may be private to root: the user runs a copy, with the libraries beside it.
    const std::string build = std::string(KQAGENT_PATH).substr(0, std::string(KQAGENT_PATH).rfind('/'));
    lab::MustSh("mkdir -p " + dir.File("bin") + " && cp -L " KQAGENT_PATH " " + build + "/libkqdynamic.so* " + build +
                "/libkqhost.so* " + dir.File("bin") + " && chmod -R a+rX " + dir.File("bin"));
    const std::string pool = R"("dhcpiprange":[{"begin":"192.0.2.100","len":20}],"netmask":"255.255.255.0","leasetime":3600)";
    const struct {
        std::string requests;
        std::string args;
        int status;
        std::string out, err;
    } cases[] = {
        {Requests({Add4("lit", pool)}), "", 0, "1 request(s), all valid\n  [0] add lit (ipv4 server)\n", ""},
        {Requests({Add4("dark", pool), Add4("gone", pool)}), "", 0, "2 request(s), all valid\n",
         "kqagent: warning: FILE: request 0: item.ipv4dhcpitem.dhcpserver: dark holds no IPv4 address in 192.0.2.0/24 (its addresses: "
         "none): clients get no answer\nkqagent: warning: FILE: request 1: item.ifname: gone does not exist on this machine; its "
         "dnsmasq would serve no one\n"},
        {Requests({Add4("gone", pool)}), " --strict", 2, "",
         "kqagent: FILE: request 0: item.ifname: gone does not exist on this machine; its dnsmasq would serve no one\n"},
        {Requests({Add4("cafe1", pool)}), "", 2, "",
         "kqagent: FILE: request 0: item.ifname: \"cafe1\" is made only of hexadecimal digits, which dnsmasq reads as an address in "
         "its dhcp-range= line, so its dnsmasq would not start; give the interface another name\nkqagent: nothing applied\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.requests);
        const std::string file = dir.File("check.json");
        lab::WriteFile(file, c.requests);
        lab::MustSh("chmod 644 " + file);
        const int status = lab::Sh("setpriv --reuid=65534 --regid=65534 --clear-groups env KQ_HOST_CONFIG=" + dir.File("kqhost.json") +
                                   " LD_LIBRARY_PATH=" + dir.File("bin") + " " + dir.File("bin/kqagent") + " check " + file + c.args + " >" + dir.File("out") + " 2>" + dir.File("err"));
        EXPECT_EQ(status, c.status);
        EXPECT_TRUE(lab::Has(lab::Text(dir.File("out")), c.out));
        EXPECT_EQ(lab::Text(dir.File("err")), lab::Replaced(c.err, "FILE", file));
    }
    // Nothing created: no socket folder, no dnsmasq file, no dhcp.conf.
    EXPECT_FALSE(lab::ReadFile(dir.File("run/kqagent.sock.lock")));
    EXPECT_NE(lab::Sh("test -e " + dir.File("run")), 0);
    EXPECT_FALSE(lab::ReadFile("/etc/vyr_dhcpd_lit.conf"));
    EXPECT_FALSE(lab::ReadFile(dir.File("dhcp.conf")));
}

// The edges: a lost desired state or an unreadable dhcp.conf stops partial applies until the
// operator sends the whole configuration, and a disk that fills up mid-apply leaves nothing
// running that no file records.
TEST(PlanLab, EdgesLoseNothing)
{
    LAB_REQUIRE();
    lab::Sweep sweep;
    lab::TempDir dir;
    lab::Netns c1("pe-c1"), c3("pe-c3");
    lab::Veth("", "lan1", {"192.0.2.1/24"}, "pe-c1", "c1");
    lab::Veth("", "rl3", {"198.51.100.129/25"}, "pe-c3", "c3");
    lab::Veth("", "lan4", {"203.0.113.1/24"}, "", "lan4p");
    lab::UseHost(dir, R"("logLevel": 3)");
    const std::string all = Requests({Add4("lan1", kLan1), Relay(R"("198.51.100.2")")});
    const std::string lan4 = Add4("lan4", R"("dhcpiprange":[{"begin":"203.0.113.100","len":20}],"netmask":"255.255.255.0","leasetime":600)");
    const std::string other = Requests({lan4});
    lab::WriteFile(dir.File("all.json"), all);
    lab::WriteFile(dir.File("other.json"), other);
    auto agent = lab::Serve(KQAGENT_PATH, dir.File("serve.0.log"));
    ASSERT_EQ(lab::Kqagent(dir, "apply " + dir.File("all.json")).Status, 0);

    const std::string desired = dir.File("desired.json"), conf = dir.File("dhcp.conf"), backup = dir.File("dhcp.conf.bak");
    auto restart = [&](const std::string &log) {
        agent->Stop();
        agent = lab::Serve(KQAGENT_PATH, dir.File(log));
        return lab::Text(dir.File(log));
    };
    // The desired state is gone; dhcp.conf still holds both interfaces.
    unlink(desired.c_str());
    const std::string log = restart("serve.1.log");
    EXPECT_TRUE(lab::Has(log, "kqagent: the desired state " + desired + " is missing, and " + conf +
                                  " holds lan1, rl3 (running as restored from it); applies are refused until the whole "
                                  "configuration is sent with 'kqagent apply --replace FILE'\n"));
    const std::string confText = lab::Text(conf), backupText = lab::Text(backup);
    const auto relay = lab::ReadPid("/var/run/vyr_dhcpd_relay.pid");
    const lab::Outcome partial = lab::Kqagent(dir, "apply " + dir.File("other.json"));
    EXPECT_EQ(partial.Status, 1);
    EXPECT_TRUE(lab::Has(partial.Err, "kqagent: nothing applied: this apply would record only its own interfaces"));
    EXPECT_EQ(lab::Text(conf), confText);
    EXPECT_EQ(lab::Text(backup), backupText);
    EXPECT_EQ(lab::ReadPid("/var/run/vyr_dhcpd_relay.pid"), relay);
    EXPECT_FALSE(lab::ReadFile(desired));
    EXPECT_EQ(lab::Kqagent(dir, "client enable ipv4 lan4").Status, 1);

    // The whole configuration, declared so: lan4 in, nothing else kept; a reboot restores it.
    lab::WriteFile(dir.File("whole.json"), Requests({Add4("lan1", kLan1), lan4}));
    const lab::Outcome whole = lab::Kqagent(dir, "apply --replace " + dir.File("whole.json"));
    EXPECT_EQ(whole.Status, 0) << whole.Err;
    EXPECT_TRUE(lab::Has(whole.Out, "--replace deletes 1 other interface(s)\n"));
    EXPECT_TRUE(lab::Has(whole.Out, "] delete rl3: ok\n"));
    EXPECT_FALSE(lab::Has(lab::Text(desired), "rl3"));
    agent->Stop();
    lab::KillAll("/usr/sbin/dnsmasq");
    agent = lab::Serve(KQAGENT_PATH, dir.File("serve.2.log"));
    EXPECT_TRUE(Server("lan1") && lab::Alive(*Server("lan1")));
    EXPECT_TRUE(Server("lan4") && lab::Alive(*Server("lan4")));

    // dhcp.conf unreadable, no desired state: its backup is the only good copy and stays so.
    agent->Stop();
    unlink(desired.c_str());
    lab::WriteFile(conf, "{ \"dhcps\": [ { \"ifn");
    const std::string good = lab::Text(backup);
    EXPECT_TRUE(lab::Has(restart("serve.3.log"), "kqagent: " + conf + " could not be read, and its backup " + backup +
                                                     " is the only good copy; applies are refused"));
    EXPECT_EQ(lab::Kqagent(dir, "apply " + dir.File("other.json")).Status, 1);
    EXPECT_EQ(lab::Text(backup), good);
    agent->Stop();

    // A full disk under dhcp.conf. On its own kqagent makes each request durable before the
    // next: the add is refused and its dnsmasq does not stay behind.
    lab::KillAll("/usr/sbin/dnsmasq");
    lab::MustSh("mkdir -p " + dir.File("full") + " && mount -t tmpfs -o size=12k kq-full " + dir.File("full") +
                " && (cat /dev/zero >" + dir.File("full/filler") + " 2>/dev/null; true)");
    lab::UseHost(dir, R"("logLevel": 3, "dhcpConf": ")" + dir.File("full/dhcp.conf") + R"(", "dhcpConfBak": ")" +
                          dir.File("full/dhcp.conf.bak") + R"(", "desiredState": ")" + dir.File("state/desired.json") + "\"");
    const lab::Outcome alone = lab::Kqagent(dir, "apply " + dir.File("other.json"));
    EXPECT_EQ(alone.Status, 1);
    EXPECT_TRUE(lab::Has(alone.Err, "kqagent: request 0: add of lan4 "));
    EXPECT_TRUE(lab::Has(alone.Err, "kqagent: lan4: stopped the dnsmasq the refused request had started (lan4 is not configured)\n"));
    EXPECT_TRUE(lab::Procs("--pid-file=/var/run/vyr_dhcpd_lan4.pid").empty());
    EXPECT_FALSE(lab::ReadFile("/etc/vyr_dhcpd_lan4.conf"));
    // Through the agent an apply's durable writes are made at its end, together: lan4 is
    // served and desired, and the answer says dhcp.conf could not follow.
    agent = lab::Serve(KQAGENT_PATH, dir.File("serve.4.log"));
    const lab::Outcome full = lab::Kqagent(dir, "apply " + dir.File("other.json"));
    EXPECT_EQ(full.Status, 1);
    EXPECT_TRUE(lab::Has(full.Err, "kqagent: request(s) applied, but " + dir.File("full/dhcp.conf") +
                                       " or its backup could not be written: ENOSPC (-28) No space left on device; the previous "
                                       "one stays, and the desired state holds the change, so a restart restores it\n"))
        << full.Err;
    EXPECT_TRUE(Server("lan4") && lab::Alive(*Server("lan4")));
    EXPECT_FALSE(lab::ReadFile(dir.File("full/dhcp.conf")));
    EXPECT_TRUE(lab::Has(lab::Text(dir.File("state/desired.json")), "\"lan4\""));
    agent->Stop();
    lab::Sh("umount " + dir.File("full"));
}

}  // namespace
