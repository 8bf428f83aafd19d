// kqagent serve keeps what it is responsible for running: a zone LAN's dnsmasq, a DHCPv6
// LAN's, the shared relay and an enabled dhclient each come back after a SIGKILL and serve
// real clients again; an agent restart keeps every one of them, a start after a reboot
// starts them all, and a service that keeps dying is given up until `kqagent load`. Changes
// leave the agent no zombie, and what `load` started an agent restart keeps.
//
//   zone 7 (netns vpn7)   lan1 192.0.2.1 --- c1 in "sv-c1"              DHCPv4 server
//   zone 0                lan2 2001:db8:2::1 --- c2 in "sv-c2"          stateful DHCPv6
//   zone 0                rl3 198.51.100.129 --- c3 in "sv-c3"          relay only, towards
//                         up0 198.51.100.1 --- srv0 198.51.100.2 in "sv-srv" (a lab dnsmasq)
//   zone 0                wan0 (`kqagent client enable ipv4`) --- up1 203.0.113.1 in "sv-srv"
#include <signal.h>

#include "labutil.h"

namespace {

const char *kLans = R"({"requests":[
  {"op":"add","item":{"ifname":"lan1",
    "ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.100","len":20}],
      "netmask":"255.255.255.0","gateway":"192.0.2.1","dns":["192.0.2.1"],"leasetime":3600}}}},
  {"op":"add","item":{"ifname":"lan2",
    "ipv6dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"ipv6begin":"2001:db8:2::100","ipv6end":"2001:db8:2::1ff"}],
      "prefixlength":64,"dns":["2001:db8:2::1"],"leasetime":3600,"ipv6dynamicmode":"dhcp","dnsdynamicmode":"dhcp"}}}},
  {"op":"add","item":{"ifname":"rl3",
    "ipv4dhcpitem":{"mode":"relay","dhcprelay":{"relayserver":["198.51.100.2"],"lanip":"198.51.100.129"}}}}]})";

// What this lab never gives the agent cause to log: the module's warnings and errors, the
// agent's own failures.
std::string Complaints(const std::string &Log)
{
    std::istringstream lines(Log);
    std::string found;
    for (std::string line; std::getline(lines, line);)
        if (line.find("WARN:") != std::string::npos || line.find("ERROR:") != std::string::npos ||
            (line.rfind("kqagent:", 0) == 0 && line.find("failed") != std::string::npos))
            found += line + "\n";
    return found;
}

size_t Count(const std::string &Text, const std::string &Piece)
{
    size_t n = 0;
    for (size_t at = Text.find(Piece); at != std::string::npos; at = Text.find(Piece, at + 1))
        ++n;
    return n;
}

// The children of Parent that ended and were never reaped.
std::string Zombies(pid_t Parent)
{
    std::string found;
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        const std::string stat = lab::Text(entry.path().string() + "/stat");
        const size_t end = stat.rfind(')');
        if (end == std::string::npos)
            continue;
        std::istringstream fields(stat.substr(end + 1));
        std::string state;
        pid_t ppid = 0;
        if (fields >> state >> ppid && ppid == Parent && state == "Z")
            found += entry.path().filename().string() + " ";
    }
    return found;
}

// Each interface of `status --json` with its drift.
std::string Drift(const lab::TempDir &Dir)
{
    const std::string status = lab::Kqagent(Dir, "status --json").Out;
    std::string drift;
    for (int i = 0; i < 5; ++i)
        drift += lab::JsonAt(status, "interfaces." + std::to_string(i) + ".ifname") + " " +
                 lab::JsonAt(status, "interfaces." + std::to_string(i) + ".drift") + "\n";
    return drift;
}

// SIGKILLs the service of PidFile and waits until the agent has started it again and said so
// in Log: "kqagent: <Name> (pid OLD): <How>; restarted, pid NEW (restart <N>)" (How "": any
// text). Returns the new pid, 0 when none came.
pid_t KillAndWait(const std::string &Log, const std::string &Name, const std::string &PidFile, const std::string &How, int N)
{
    const pid_t old = lab::ReadPid(PidFile).value_or(0);
    if (old <= 0 || !lab::Alive(old) || kill(old, SIGKILL) != 0) {
        ADD_FAILURE() << PidFile << " names no live process to kill";
        return 0;
    }
    pid_t now = 0;
    if (!lab::WaitFor([&] { return (now = lab::ReadPid(PidFile).value_or(old)) != old && lab::Alive(now); }, 20s)) {
        ADD_FAILURE() << Name << " was not started again:\n" << lab::Text(Log);
        return 0;
    }
    const std::string head = "kqagent: " + Name + " (pid " + std::to_string(old) + "): ",
                      tail = "; restarted, pid " + std::to_string(now) + " (restart " + std::to_string(N) + ")\n";
    EXPECT_TRUE(lab::WaitFor([&] {
        const std::string log = lab::Text(Log);
        return How.empty() ? log.find(head) != std::string::npos && log.find(tail) != std::string::npos
                           : log.find(head + How + tail) != std::string::npos;
    })) << head + How + tail << "not in:\n" << lab::Text(Log);
    return now;
}

TEST(SuperviseLab, KilledServicesComeBackAndRestartsAndRebootsKeepThemRunning)
{
    LAB_REQUIRE();
    lab::Sweep sweep;
    lab::TempDir dir;
    lab::Netns zone("vpn7"), c1("sv-c1"), c2("sv-c2"), c3("sv-c3"), server("sv-srv");
    lab::Veth("vpn7", "lan1", {"192.0.2.1/24"}, "sv-c1", "c1");
    lab::Veth("", "lan2", {"2001:db8:2::1/64"}, "sv-c2", "c2");
    lab::Veth("", "rl3", {"198.51.100.129/25"}, "sv-c3", "c3");
    lab::Veth("", "up0", {"198.51.100.1/25"}, "sv-srv", "srv0", {"198.51.100.2/25"});
    lab::Veth("", "wan0", {}, "sv-srv", "up1", {"203.0.113.1/24"});
    lab::MustSh("ip -n sv-srv route add 198.51.100.128/25 via 198.51.100.1");
    lab::Dnsmasq remote("sv-srv", dir, "remote",
                        "port=0\ninterface=srv0\ninterface=up1\ndhcp-authoritative\n"
                        "dhcp-range=198.51.100.200,198.51.100.220,255.255.255.128,10m\n"
                        "dhcp-range=203.0.113.100,203.0.113.150,255.255.255.0,10m\n");
    lab::UseHost(dir, R"("logLevel": 3, "lans": [{"ifname": "lan1", "vpnId": 7}, {"ifname": "lan2", "vpnId": 0}, {"ifname": "rl3", "vpnId": 0}])");
    auto agent = lab::Serve(KQAGENT_PATH, dir.File("serve.0.log"));
    lab::WriteFile(dir.File("lans.json"), kLans);
    const lab::Outcome applied = lab::Kqagent(dir, "apply " + dir.File("lans.json"));
    ASSERT_EQ(applied.Status, 0) << applied.Out << applied.Err;
    const lab::Outcome enabled = lab::Kqagent(dir, "client enable ipv4 wan0");
    ASSERT_EQ(enabled.Status, 0) << enabled.Out << enabled.Err;
    EXPECT_EQ(enabled.Out, "client enable ipv4 wan0 (zone 0): ok\n");
    const std::string wanLease = "/var/lib/dhclient/dhclient.wan0.leases";
    EXPECT_TRUE(lab::WaitFor([&] { return lab::LeaseField(wanLease, "fixed-address").has_value(); }, 30s));

    // Each kind of service killed: one restart, logged once, and its clients served again
    // (the enabled dhclient, its lease file gone, gets a lease of its own again).
    const struct {
        std::string Name, PidFile, Ns, IfName, Mode, First, Last;  // Ns "": the enabled dhclient itself
    } services[] = {
        {"lan1 dnsmasq", "/var/run/vyr_dhcpd_lan1.pid", "sv-c1", "c1", "-4", "192.0.2.100", "192.0.2.119"},
        {"lan2 dnsmasq", "/var/run/vyr_dhcpd_lan2.pid", "sv-c2", "c2", "-6", "2001:db8:2::100", "2001:db8:2::1ff"},
        {"relay dnsmasq", "/var/run/vyr_dhcpd_relay.pid", "sv-c3", "c3", "-4", "198.51.100.200", "198.51.100.220"},
        {"wan0 dhclient", "/var/run/wan0_dhclient.pid", "", "wan0", "-4", "203.0.113.100", "203.0.113.150"},
    };
    const std::string log0 = dir.File("serve.0.log"), killed = "killed by signal 9 (KILL)";
    for (const auto &s : services) {
        SCOPED_TRACE(s.Name);
        if (s.Ns.empty())
            std::filesystem::remove(wanLease);
        ASSERT_NE(KillAndWait(log0, s.Name, s.PidFile, killed, 1), 0);
        const std::string field = s.Mode == "-6" ? "iaaddr" : "fixed-address";
        std::string got;
        if (s.Ns.empty()) {
            lab::WaitFor([&] { return lab::LeaseField(wanLease, field).has_value(); }, 30s);
            got = lab::LeaseField(wanLease, field).value_or("none");
        } else {
            std::filesystem::remove(dir.File(s.IfName + s.Mode + ".leases"));
            lab::Dhclient client(s.Ns, s.IfName, dir, s.Mode);
            got = client.Wait(field).value_or("none");
        }
        EXPECT_TRUE(lab::InRange(got, s.First, s.Last)) << got << "\n" << lab::Text(remote.Log);
    }
    for (const auto &s : services)
        EXPECT_EQ(Count(lab::Text(log0), "kqagent: " + s.Name + " (pid "), 1u) << s.Name << "\n" << lab::Text(log0);
    EXPECT_EQ(Complaints(lab::Text(log0)), "");

    // Changes replace and stop processes, and each dnsmasq start leaves its middle process
    // to the agent: none of them stays a zombie.
    for (const char *lease : {"600", "3600"}) {
        std::string lan1 = kLans;
        lan1 = "{\"requests\":[" + lan1.substr(lan1.find("{\"op\""), lan1.find("}}}},") + 4 - lan1.find("{\"op\"")) + "]}";
        const std::string hour = "\"leasetime\":3600";
        lan1.replace(lan1.find(hour), hour.size(), std::string("\"leasetime\":") + lease);
        lab::WriteFile(dir.File("lan1.json"), lan1);
        const lab::Outcome changed = lab::Kqagent(dir, "apply " + dir.File("lan1.json"));
        ASSERT_EQ(changed.Status, 0) << lan1 << changed.Out << changed.Err;
    }
    EXPECT_TRUE(lab::WaitFor([&] { return Zombies(agent->Pid).empty(); }, 5s)) << Zombies(agent->Pid);

    // The agent restarts: it keeps every process as it runs, and says nothing is wrong.
    std::vector<std::optional<pid_t>> pids;
    for (const auto &s : services)
        pids.push_back(lab::ReadPid(s.PidFile));
    agent->Stop();
    EXPECT_EQ(agent->Status, std::optional<int>(0));
    agent = lab::Serve(KQAGENT_PATH, dir.File("serve.1.log"));
    const std::string log1 = dir.File("serve.1.log");
    EXPECT_TRUE(lab::Has(lab::Text(log1), "services: 4 kept running, 0 started\n"));
    for (size_t i = 0; i < pids.size(); ++i) {
        EXPECT_EQ(lab::ReadPid(services[i].PidFile), pids[i]) << services[i].PidFile;
        EXPECT_TRUE(pids[i] && lab::Alive(*pids[i])) << services[i].PidFile;
    }
    // What it kept is supervised too, though it is no child of this agent.
    EXPECT_NE(KillAndWait(log1, "lan1 dnsmasq", services[0].PidFile, "", 1), 0);
    EXPECT_EQ(Complaints(lab::Text(log1)), "") << lab::Text(log1);

    // A reboot: no dnsmasq or dhclient survives it, nor anything in /run. The start brings
    // back every LAN, the relay and the enabled client, each as desired.
    agent->Stop();
    EXPECT_EQ(agent->Status, std::optional<int>(0));
    lab::KillAll("/usr/sbin/dnsmasq ");
    lab::KillAll("dhclient ");
    lab::Sh("ip netns pids vpn7 | xargs -r kill -9");
    ASSERT_TRUE(lab::WaitFor([] {
        std::string left;
        lab::Sh("ip netns pids vpn7", &left);
        return left.empty();
    }));
    lab::MustSh("rm -f /var/run/*.pid");
    agent = lab::Serve(KQAGENT_PATH, dir.File("serve.2.log"));
    const std::string log2 = dir.File("serve.2.log"), started = lab::Text(log2);
    EXPECT_TRUE(lab::Has(started, "services: 0 kept running, 4 started\n"));
    for (const auto &s : services) {
        const std::optional<pid_t> pid = lab::ReadPid(s.PidFile);
        EXPECT_TRUE(pid && lab::Alive(*pid)) << s.PidFile;
    }
    EXPECT_EQ(Drift(dir), "\"lan1\" []\n\"lan2\" []\n\"rl3\" []\n\"wan0\" []\nabsent absent\n");
    EXPECT_TRUE(lab::Has(lab::Kqagent(dir, "status wan0").Out, "\n  desired: dhclient enabled\n  serving: no dnsmasq of its own\n  runs as desired\n"));
    EXPECT_EQ(Complaints(lab::Text(log2)), "") << lab::Text(log2);

    // lan2's dnsmasq dies five times in a row: restarted four times, then given up (and
    // status says so) until `kqagent load`, which also puts it back under supervision.
    const std::string lan2 = services[1].PidFile;
    for (int restart = 1; restart <= 4; ++restart)
        ASSERT_NE(KillAndWait(log2, "lan2 dnsmasq", lan2, killed, restart), 0) << restart;
    const pid_t last = lab::ReadPid(lan2).value_or(0);
    ASSERT_TRUE(last > 0 && kill(last, SIGKILL) == 0);
    EXPECT_TRUE(lab::WaitFor([&] {
        return lab::Has(lab::Text(log2), "kqagent: lan2 dnsmasq (pid " + std::to_string(last) + "): " + killed +
                                             "; gave up after 5 failures in a row ('kqagent load' starts it again)\n");
    }, 20s)) << lab::Text(log2);
    const std::string process = "interfaces.1.server.process";
    const lab::Outcome given = lab::Kqagent(dir, "status --json");
    EXPECT_EQ(lab::JsonAt(given.Out, "interfaces.1.ifname"), "\"lan2\"");
    EXPECT_EQ(lab::JsonAt(given.Out, process + ".running"), "false") << given.Out;
    EXPECT_EQ(lab::JsonAt(given.Out, process + ".supervision.restarts"), "4") << given.Out;
    EXPECT_EQ(lab::JsonAt(given.Out, process + ".supervision.lastExit"), "\"" + killed + "\"");
    EXPECT_NE(lab::JsonAt(given.Out, process + ".supervision.gaveUp"), "absent");
    EXPECT_TRUE(lab::Has(lab::JsonAt(given.Out, "interfaces.1.drift"), "dnsmasq is not running"));
    EXPECT_TRUE(lab::Has(lab::Kqagent(dir, "status lan2").Out, "(restarted 4 times, last exit: killed by signal 9 (KILL); GAVE UP at "));
    EXPECT_FALSE(lab::ReadPid(lan2) && lab::Alive(*lab::ReadPid(lan2)));  // still given up after a command

    const lab::Outcome loaded = lab::Kqagent(dir, "load");
    EXPECT_EQ(loaded.Status, 0) << loaded.Out << loaded.Err;
    EXPECT_TRUE(lab::Has(loaded.Out, "lan2: dnsmasq running, pid "));
    const std::optional<pid_t> back = lab::ReadPid(lan2);
    ASSERT_TRUE(back && lab::Alive(*back)) << loaded.Out << loaded.Err;
    const lab::Outcome resumed = lab::Kqagent(dir, "status --json");
    EXPECT_EQ(lab::JsonAt(resumed.Out, process + ".supervision.gaveUp"), "absent") << resumed.Out;
    EXPECT_EQ(lab::JsonAt(resumed.Out, "interfaces.1.drift"), "[]");
    // What `load` started is recorded: an agent restart keeps it too.
    agent->Stop();
    agent = lab::Serve(KQAGENT_PATH, dir.File("serve.3.log"));
    const std::string log3 = dir.File("serve.3.log");
    EXPECT_TRUE(lab::Has(lab::Text(log3), "services: 4 kept running, 0 started\n")) << lab::Text(log3);
    EXPECT_EQ(lab::ReadPid(lan2), back);
    EXPECT_NE(KillAndWait(log3, "lan2 dnsmasq", lan2, "", 1), 0);  // kept, so no child: exit unknown
    {
        std::filesystem::remove(dir.File("c2-6.leases"));
        lab::Dhclient client("sv-c2", "c2", dir, "-6");
        EXPECT_TRUE(lab::InRange(client.Wait("iaaddr").value_or("none"), "2001:db8:2::100", "2001:db8:2::1ff"));
    }
}

}  // namespace
