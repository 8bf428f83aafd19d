// `kqagent serve` as an appliance runs it: the agent restores everything at every start
// (zone, IPv6 mode and relay-only interfaces included) from dhcp.conf and its desired state,
// survives its own restarts without touching a dnsmasq, and serialises concurrent commands.
//
//   zone 7 (netns vpn7)   lan1 192.0.2.1, 2001:db8:1::1 --veth-- c1 in "ag-c1"   IPv4 + stateful DHCPv6
//   zone 0                lan2 203.0.113.1, 2001:db8:2::1 --veth-- c2 in "ag-c2"  IPv4 + DHCPv6 and SLAAC
//   zone 0                rl3 198.51.100.129 --veth-- c3 in "ag-c3"              relay only, towards
//                         up0 198.51.100.1 --veth-- srv0 198.51.100.2 in "ag-srv" (a lab dnsmasq)
#include <dirent.h>
#include <json-c/json.h>
#include <sys/socket.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstring>
#include <memory>
#include <string>

#include "labutil.h"

#ifndef KQAGENT_PATH
#error "KQAGENT_PATH names the built kqagent"
#endif

namespace {

using namespace std::chrono_literals;

const char *kLans = R"({"requests":[
  {"op":"add","item":{"ifname":"lan1",
    "ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.100","len":20}],
      "netmask":"255.255.255.0","gateway":"192.0.2.1","dns":["192.0.2.1"],"leasetime":3600}},
    "ipv6dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"ipv6begin":"2001:db8:1::1000","ipv6end":"2001:db8:1::1fff"}],
      "prefixlength":64,"dns":["2001:db8:1::1"],"leasetime":3600,"ipv6dynamicmode":"dhcp","dnsdynamicmode":"dhcp"}}}},
  {"op":"add","item":{"ifname":"lan2",
    "ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"203.0.113.100","len":20}],
      "netmask":"255.255.255.0","leasetime":3600}},
    "ipv6dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"ipv6begin":"2001:db8:2::100","ipv6end":"2001:db8:2::1ff"}],
      "prefixlength":64,"leasetime":3600,"ipv6dynamicmode":"both","dnsdynamicmode":"slaac"}}}},
  {"op":"add","item":{"ifname":"rl3",
    "ipv4dhcpitem":{"mode":"relay","dhcprelay":{"relayserver":["198.51.100.2"],"lanip":"198.51.100.129"}}}}]})";

struct Outcome {
    int status;
    std::string out;
};

Outcome Kqagent(const std::string &args)
{
    std::string command = KQAGENT_PATH;
    command += " " + args + " 2>&1; echo \"exit $?\"";
    const std::string out = lab::ShOut(command);
    const size_t at = out.rfind("exit ");
    return {at == std::string::npos ? -1 : std::atoi(out.c_str() + at + 5), out.substr(0, at)};
}

struct ProcessSweep {
    ~ProcessSweep()
    {
        lab::KillAll("kqagent");
        lab::KillAll("dnsmasq");
        lab::KillAll("dhclient");
    }
};

// The agent as a child of the test, started the way systemd starts it; ready once it listens.
std::unique_ptr<lab::Child> StartAgent(const lab::TempDir &dir, int round)
{
    const std::string log = dir.File("serve." + std::to_string(round) + ".log");
    auto agent = std::make_unique<lab::Child>("", std::vector<std::string>{KQAGENT_PATH, "serve"}, log);
    if (!lab::WaitFor([&] { return lab::ReadFile(log).value_or("").find("kqagent: listening on ") != std::string::npos; },
                      30s))
        throw lab::Error("the agent did not start listening:\n" + lab::ReadFile(log).value_or(""));
    return agent;
}

// Live dnsmasq processes of this test's network namespaces whose command line holds `needle`.
int CountDnsmasq(const std::string &needle)
{
    int count = 0;
    DIR *proc = opendir("/proc");
    while (proc != nullptr) {
        const dirent *e = readdir(proc);
        if (e == nullptr)
            break;
        const pid_t pid = atoi(e->d_name);
        std::string cmdline = lab::ReadFile("/proc/" + std::string(e->d_name) + "/cmdline").value_or("");
        for (char &c : cmdline)
            c = c == '\0' ? ' ' : c;
        if (pid > 0 && cmdline.rfind("/usr/sbin/dnsmasq ", 0) == 0 && cmdline.find(needle) != std::string::npos &&
            lab::ProcessAlive(pid))
            ++count;
    }
    if (proc != nullptr)
        closedir(proc);
    return count;
}

json_object *Get(json_object *object, const char *key)
{
    json_object *value = nullptr;
    json_object_object_get_ex(object, key, &value);
    return value;
}

// Interface -> its drift lines, from `status --json`.
std::map<std::string, std::string> Drift()
{
    std::map<std::string, std::string> drift;
    const Outcome shown = Kqagent("status --json");
    std::unique_ptr<json_object, int (*)(json_object *)> status(json_tokener_parse(shown.out.c_str()), json_object_put);
    json_object *interfaces = Get(status.get(), "interfaces");
    for (size_t i = 0; i < json_object_array_length(interfaces); ++i) {
        json_object *entry = json_object_array_get_idx(interfaces, i);
        drift[json_object_get_string(Get(entry, "ifname"))] = json_object_to_json_string(Get(entry, "drift"));
    }
    return drift;
}

std::optional<std::string> Lease(const lab::Netns &ns, const std::string &ifname, lab::Dhclient::Mode mode,
                                 const lab::TempDir &dir, const char *field)
{
    lab::Dhclient client(ns.Name(), ifname, mode, dir);
    std::optional<std::string> value;
    lab::WaitFor([&] { return (value = lab::LeaseField(client.LeaseFile(), field)).has_value(); }, 30s);
    return value;
}

TEST(AgentLab, EveryRestartRestoresZonesIpv6ModesAndRelayOnlyInterfaces)
{
    LAB_REQUIRE_PREREQUISITES();
    ProcessSweep sweep;
    lab::TempDir dir("kq-agent-");
    lab::Netns zone("vpn7"), c1("ag-c1"), c2("ag-c2"), c3("ag-c3"), server("ag-srv");
    for (const lab::Netns *ns : {&c1, &c2, &c3})
        lab::DisableDad(ns->Name(), "default");
    lab::DisableDad("", "default");
    lab::DisableDad(zone.Name(), "default");
    lab::VethPair(zone.Name(), "lan1", c1.Name(), "c1");
    lab::AddAddr(zone.Name(), "lan1", "192.0.2.1/24");
    lab::AddAddr(zone.Name(), "lan1", "2001:db8:1::1/64");
    lab::VethPair("", "lan2", c2.Name(), "c2");
    lab::AddAddr("", "lan2", "203.0.113.1/24");
    lab::AddAddr("", "lan2", "2001:db8:2::1/64");
    lab::VethPair("", "rl3", c3.Name(), "c3");
    lab::AddAddr("", "rl3", "198.51.100.129/25");
    lab::VethPair("", "up0", server.Name(), "srv0");
    lab::AddAddr("", "up0", "198.51.100.1/25");
    lab::AddAddr(server.Name(), "srv0", "198.51.100.2/25");
    server.MustSh("ip route add 198.51.100.128/25 via 198.51.100.1");
    ASSERT_TRUE(lab::WaitIpv6Ready(zone.Name(), "lan1") && lab::WaitIpv6Ready(c1.Name(), "c1"));
    ASSERT_TRUE(lab::WaitIpv6Ready("", "lan2") && lab::WaitIpv6Ready(c2.Name(), "c2"));
    lab::Dnsmasq remote(server.Name(), dir, "remote",
                        "port=0\ninterface=srv0\ndhcp-authoritative\n"
                        "dhcp-range=198.51.100.200,198.51.100.220,255.255.255.128,10m\n");
    lab::HostSettings settings;
    settings.lans = {{"lan1", 7}, {"lan2", 0}, {"rl3", 0}};
    settings.logLevel = 3;
    lab::HostConfig host(dir, settings);

    auto agent = StartAgent(dir, 0);
    lab::WriteFile(dir.File("lans.json"), kLans);
    const Outcome applied = Kqagent("apply " + dir.File("lans.json"));
    ASSERT_EQ(applied.status, 0) << applied.out;

    for (int round = 1; round <= 3; ++round) {
        SCOPED_TRACE("restart " + std::to_string(round));
        // The agent ends; every service it started keeps serving.
        const auto lan1 = lab::ReadPidFile("/var/run/vyr_dhcpd_lan1.pid");
        ASSERT_TRUE(lan1 && lab::ProcessAlive(*lan1));
        agent->Stop();
        EXPECT_EQ(agent->Status(), std::optional<int>(0));
        EXPECT_TRUE(lab::ProcessAlive(*lan1));
        // A reboot: no dnsmasq survives it.
        lab::KillAll("dnsmasq");
        lab::Dnsmasq relayTarget(server.Name(), dir, "remote" + std::to_string(round),
                                 "port=0\ninterface=srv0\ndhcp-authoritative\n"
                                 "dhcp-range=198.51.100.200,198.51.100.220,255.255.255.128,10m\n");
        agent = StartAgent(dir, round);

        for (const char *ifname : {"lan1", "lan2", "rl3"}) {
            EXPECT_NE(lab::ReadFile(dir.File("dhcp.conf")).value_or("").find(std::string("\"") + ifname + "\""),
                      std::string::npos);
            EXPECT_NE(lab::ReadFile(dir.File("desired.json")).value_or("").find(std::string("\"") + ifname + "\""),
                      std::string::npos);
        }
        const auto drift = Drift();
        for (const char *ifname : {"lan1", "lan2", "rl3"})
            EXPECT_EQ(drift.count(ifname) ? drift.at(ifname) : "absent", "[ ]") << ifname;

        lab::TempDir leases("kq-leases-");
        EXPECT_TRUE(Lease(c1, "c1", lab::Dhclient::Mode::V4, leases, "fixed-address")) << "lan1 IPv4";
        const auto v6 = Lease(c1, "c1", lab::Dhclient::Mode::V6, leases, "iaaddr");
        EXPECT_TRUE(v6 && lab::AddrInRange(*v6, "2001:db8:1::1000", "2001:db8:1::1fff")) << "lan1 IPv6";
        EXPECT_TRUE(Lease(c2, "c2", lab::Dhclient::Mode::V4, leases, "fixed-address")) << "lan2 IPv4";
        const auto both = Lease(c2, "c2", lab::Dhclient::Mode::V6, leases, "iaaddr");
        EXPECT_TRUE(both && lab::AddrInRange(*both, "2001:db8:2::100", "2001:db8:2::1ff")) << "lan2 IPv6";
        const auto relayed = Lease(c3, "c3", lab::Dhclient::Mode::V4, leases, "fixed-address");
        EXPECT_TRUE(relayed && lab::AddrInRange(*relayed, "198.51.100.200", "198.51.100.220"))
            << "rl3 through the relay\n" << relayTarget.Log();
        if (HasFailure())
            FAIL() << lab::ReadFile(dir.File("serve." + std::to_string(round) + ".log")).value_or("")
                   << lab::ReadFile("/var/log/morvaxel.log").value_or("");
    }

    // A desired state that cannot be read: the restart says so and what it could not
    // reconcile, dhcp.conf is still restored, and nothing overwrites the operator's file.
    const std::string desiredPath = dir.File("desired.json");
    const std::string good = lab::ReadFile(desiredPath).value_or("");
    const std::string broken = good.substr(0, good.size() / 2);
    lab::WriteFile(desiredPath, broken);
    agent->Stop();
    lab::KillAll("dnsmasq");
    agent = StartAgent(dir, 4);
    const std::string log = lab::ReadFile(dir.File("serve.4.log")).value_or("");
    EXPECT_NE(log.find("kqagent: desired state " + desiredPath + ": not valid JSON ("), std::string::npos) << log;
    EXPECT_NE(log.find("kqagent: could not reconcile every interface (" + desiredPath + ": not valid JSON"),
              std::string::npos) << log;
    EXPECT_NE(log.find("lan2: dnsmasq running, pid "), std::string::npos) << log;
    const Outcome refused = Kqagent("apply " + dir.File("lans.json"));
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.out.find("kqagent: nothing applied; repair or move that file"), std::string::npos) << refused.out;
    EXPECT_EQ(lab::ReadFile(desiredPath), broken);
    EXPECT_NE(Drift().at("lan1"), "[ ]");  // nothing to compare with but dhcp.conf

    // Repaired and re-read (SIGHUP): the difference is applied and lan1 is whole again.
    lab::WriteFile(desiredPath, good);
    kill(agent->Pid(), SIGHUP);
    EXPECT_TRUE(lab::WaitFor([&] { return Drift() == std::map<std::string, std::string>{
                                              {"lan1", "[ ]"}, {"lan2", "[ ]"}, {"rl3", "[ ]"}}; }, 20s))
        << lab::ReadFile(dir.File("serve.4.log")).value_or("");
}

// Eight kqagent commands at once, first through a running agent, then each on its own:
// none is lost from dhcp.conf or the desired state, and no interface gets a second dnsmasq.
TEST(AgentLab, ConcurrentAppliesWithAndWithoutAnAgent)
{
    LAB_REQUIRE_PREREQUISITES();
    ProcessSweep sweep;
    lab::TempDir dir("kq-conc-");
    lab::HostConfig host(dir, lab::HostSettings{.logLevel = 3});
    std::string names[2][8];
    for (int set = 0; set < 2; ++set) {
        for (int i = 0; i < 8; ++i) {
            const std::string ifname = names[set][i] = std::string(set == 0 ? "ka" : "kb") + std::to_string(i);
            const int base = 16 * i + 1 + (set == 0 ? 0 : 8);
            const std::string net = set == 0 ? "198.51.100." : "203.0.113.";
            lab::MustSh("ip link add " + ifname + " type veth peer name " + ifname + "p && ip link set " + ifname +
                        " up && ip link set " + ifname + "p up");
            lab::AddAddr("", ifname, net + std::to_string(base) + "/29");
            lab::WriteFile(dir.File(ifname + ".json"),
                           R"({"requests":[{"op":"add","item":{"ifname":")" + ifname +
                               R"(","ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":")" + net +
                               std::to_string(base + 1) + R"(","len":4}],"netmask":"255.255.255.248","leasetime":600}}}}]})");
        }
    }
    auto runAll = [&](int set) {
        std::string script;
        for (const auto &ifname : names[set]) {
            script += KQAGENT_PATH;
            script += " apply " + dir.File(ifname + ".json") + " >" + dir.File(ifname + ".out") + " 2>&1 & ";
        }
        return lab::Sh(script + "wait");
    };

    auto agent = StartAgent(dir, 0);
    runAll(0);
    agent->Stop();
    EXPECT_EQ(agent->Status(), std::optional<int>(0));
    runAll(1);

    const std::string conf = lab::ReadFile(dir.File("dhcp.conf")).value_or("");
    const std::string desired = lab::ReadFile(dir.File("desired.json")).value_or("");
    for (const auto &set : names) {
        for (const auto &ifname : set) {
            EXPECT_NE(lab::ReadFile(dir.File(ifname + ".out")).value_or("").find(": ok\n"), std::string::npos)
                << ifname << ": " << lab::ReadFile(dir.File(ifname + ".out")).value_or("");
            EXPECT_NE(conf.find("\"" + ifname + "\""), std::string::npos) << ifname << " not in dhcp.conf\n" << conf;
            EXPECT_NE(desired.find("\"" + ifname + "\""), std::string::npos) << ifname << " not desired\n" << desired;
            EXPECT_EQ(CountDnsmasq("--pid-file=/var/run/vyr_dhcpd_" + ifname + ".pid"), 1) << ifname;
        }
    }
}

}  // namespace
