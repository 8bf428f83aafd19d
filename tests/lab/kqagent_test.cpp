// kqagent driven as a user drives it: the built binary, a settings file, request files,
// a real client, and `status --json` checked against the lab's processes and leases.
#include <json-c/json.h>
#include <sys/socket.h>

#include <chrono>
#include <string>

#include "labutil.h"

#ifndef KQAGENT_PATH
#error "KQAGENT_PATH names the built kqagent"
#endif

namespace {

using namespace std::chrono_literals;

struct Outcome {
    int status;
    std::string out, err;
};

Outcome Agent(const lab::TempDir &dir, const std::string &args)
{
    const std::string out = dir.File("agent.out"), err = dir.File("agent.err");
    const int status = lab::Sh(std::string(KQAGENT_PATH) + " " + args + " >" + out + " 2>" + err);
    return {status, lab::ReadFile(out).value_or(""), lab::ReadFile(err).value_or("")};
}

// Every dnsmasq and dhclient of this test goes, whatever way the test ends.
struct ProcessSweep {
    ~ProcessSweep()
    {
        lab::KillAll("dnsmasq");
        lab::KillAll("dhclient");
    }
};

json_object *Get(json_object *object, const char *key)
{
    json_object *value = nullptr;
    json_object_object_get_ex(object, key, &value);
    return value;
}

const char *kServerRequest = R"({"requests":[{"op":"add","item":{"ifname":"lan1",
  "ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.100","len":20}],
  "netmask":"255.255.255.0","gateway":"192.0.2.1","dns":["192.0.2.1"],"leasetime":3600}}}}]})";

// Request 0 is valid and would change the lease time; request 1 has a misspelt key.
const char *kBadRequest = R"({"requests":[{"op":"add","item":{"ifname":"lan1",
  "ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.100","len":20}],
  "netmask":"255.255.255.0","leasetime":600}}}},
  {"op":"add","item":{"ifname":"lan1","ipv4dhcpitem":{"mode":"server","dhcpserver":{
  "dhcpiprange":[{"begin":"192.0.2.100","len":20}],"netmask":"255.255.255.0","leastime":600}}}}]})";

TEST(KqAgentLab, ApplyRefuseStatusAndDelete)
{
    LAB_REQUIRE_PREREQUISITES();
    ProcessSweep sweep;
    lab::TempDir dir("kq-agent-");
    lab::Netns zone("vpn7");
    lab::Netns client("kqa-client");
    lab::VethPair("vpn7", "lan1", "kqa-client", "c1");
    lab::AddAddr("vpn7", "lan1", "192.0.2.1/24");
    lab::HostSettings settings;
    settings.lans = {{"lan1", 7}};
    lab::HostConfig host(dir, settings);
    const std::string dhcpConf = dir.File("dhcp.conf");

    // A valid file: the zone's dnsmasq starts and a real client gets an address from the pool.
    lab::WriteFile(dir.File("server.json"), kServerRequest);
    const Outcome applied = Agent(dir, "apply " + dir.File("server.json"));
    ASSERT_EQ(applied.status, 0) << applied.out << applied.err;
    EXPECT_NE(applied.out.find("[0] add lan1 (ipv4 server): ok\n"), std::string::npos) << applied.out;
    const auto pid = lab::ReadPidFile("/var/run/vyr_dhcpd_lan1.pid");
    ASSERT_TRUE(pid && lab::ProcessAlive(*pid));
    const auto confText = lab::ReadFile("/etc/vyr_dhcpd_lan1.conf");
    ASSERT_TRUE(confText);
    const auto persisted = lab::ReadFile(dhcpConf);

    lab::Dhclient dhclient("kqa-client", "c1", lab::Dhclient::Mode::V4, dir);
    std::string address;
    ASSERT_TRUE(lab::WaitFor(
        [&] {
            for (const auto &a : lab::Addresses("kqa-client", "c1"))
                if (a.family == AF_INET && lab::AddrInRange(a.address, "192.0.2.100", "192.0.2.119"))
                    address = a.address;
            return !address.empty();
        },
        30s));
    ASSERT_TRUE(lab::WaitFor([&] { return lab::ReadFile("/etc/vyr_dhcpd_lan1.leases").value_or("").find(address) != std::string::npos; }, 10s));

    // A bad file: refused with its index, path and reason; files and processes unchanged.
    lab::WriteFile(dir.File("bad.json"), kBadRequest);
    const Outcome refused = Agent(dir, "apply " + dir.File("bad.json"));
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.err, "kqagent: " + dir.File("bad.json") +
                               ": request 1: item.ipv4dhcpitem.dhcpserver.leastime: unknown key (known here: "
                               "dhcpiprange, netmask, dns, offertime, gateway, leasetime)\nkqagent: nothing applied\n");
    EXPECT_EQ(refused.out, "");
    EXPECT_EQ(lab::ReadFile("/etc/vyr_dhcpd_lan1.conf"), confText);
    EXPECT_EQ(lab::ReadFile(dhcpConf), persisted);
    EXPECT_EQ(lab::ReadPidFile("/var/run/vyr_dhcpd_lan1.pid"), pid);
    EXPECT_TRUE(lab::ProcessAlive(*pid));

    // status --json tells what the lab really holds.
    const Outcome shown = Agent(dir, "status --json");
    ASSERT_EQ(shown.status, 0) << shown.err;
    json_object *status = json_tokener_parse(shown.out.c_str());
    ASSERT_NE(status, nullptr) << shown.out;
    std::unique_ptr<json_object, int (*)(json_object *)> guard(status, json_object_put);
    EXPECT_STREQ(json_object_get_string(Get(Get(status, "dhcpConf"), "path")), dhcpConf.c_str());
    json_object *lan1 = nullptr;
    json_object *interfaces = Get(status, "interfaces");
    for (size_t i = 0; i < json_object_array_length(interfaces); ++i)
        if (std::string(json_object_get_string(Get(json_object_array_get_idx(interfaces, i), "ifname"))) == "lan1")
            lan1 = json_object_array_get_idx(interfaces, i);
    ASSERT_NE(lan1, nullptr) << shown.out;
    EXPECT_EQ(json_object_get_int(Get(lan1, "zone")), 7);
    EXPECT_STREQ(json_object_get_string(Get(lan1, "netns")), "vpn7");
    json_object *server = Get(lan1, "server");
    EXPECT_TRUE(json_object_get_boolean(Get(Get(server, "process"), "running")));
    EXPECT_EQ(json_object_get_int(Get(Get(server, "process"), "pid")), *pid);
    json_object *leases = Get(server, "leases");
    ASSERT_EQ(json_object_array_length(leases), 1u) << shown.out;
    EXPECT_EQ(std::string(json_object_get_string(Get(json_object_array_get_idx(leases, 0), "address"))), address);
    EXPECT_FALSE(json_object_get_boolean(Get(Get(Get(status, "relay"), "process"), "running")));
    EXPECT_FALSE(json_object_get_boolean(Get(Get(Get(lan1, "dhclient"), "process"), "running")));
    json_object *use = Get(Get(server, "poolUse"), "ipv4");
    EXPECT_EQ(json_object_get_int(Get(use, "leases")), 1) << shown.out;
    EXPECT_EQ(json_object_get_int(Get(use, "addresses")), 20) << shown.out;

    // The plan: judged against dhcp.conf, nothing touched; the module's reader traces stay out.
    lab::WriteFile(dir.File("longer.json"), std::string(kServerRequest).replace(std::string(kServerRequest).find("3600"), 4, "7200"));
    const Outcome same = Agent(dir, "plan " + dir.File("server.json"));
    EXPECT_EQ(same.status, 0) << same.err;
    EXPECT_NE(same.out.find("\n[0] add lan1: server unchanged\n"), std::string::npos) << same.out;
    const Outcome longer = Agent(dir, "apply --dry-run " + dir.File("longer.json"));
    EXPECT_EQ(longer.status, 0) << longer.err;
    EXPECT_NE(longer.out.find("\n[0] add lan1: server restart (ipv4 leasetime differs)\n"), std::string::npos) << longer.out;
    EXPECT_EQ(longer.err, "");
    EXPECT_EQ(lab::ReadFile("/etc/vyr_dhcpd_lan1.conf"), confText);
    EXPECT_EQ(lab::ReadFile(dhcpConf), persisted);
    EXPECT_EQ(lab::ReadPidFile("/var/run/vyr_dhcpd_lan1.pid"), pid);

    // An add the module refuses because lan9's dnsmasq cannot start: no configuration file of
    // lan9 is left behind, and status does not list lan9.
    lab::WriteFile(dir.File("lan9.json"), std::string(kServerRequest).replace(std::string(kServerRequest).find("lan1"), 4, "lan9"));
    const Outcome lan9 = Agent(dir, "apply " + dir.File("lan9.json"));
    EXPECT_EQ(lan9.status, 1);
    EXPECT_NE(lan9.err.find("kqagent: request 0: add of lan9 refused (EINVAL (-22) Invalid argument): "), std::string::npos) << lan9.err;
    EXPECT_NE(lan9.err.find("kqagent: removed /etc/vyr_dhcpd_lan9.conf, left behind by the failed start (lan9 is not configured)\n"),
              std::string::npos) << lan9.err;
    EXPECT_FALSE(lab::ReadFile("/etc/vyr_dhcpd_lan9.conf"));
    const Outcome listed = Agent(dir, "status");
    EXPECT_EQ(listed.out.find("\nlan9: zone"), std::string::npos) << listed.out;
    EXPECT_NE(listed.out.find("\nlan1: zone 7 (netns vpn7)\n"), std::string::npos) << listed.out;

    // A refusal by the module itself: dhcp.conf cannot be written, so the add fails after
    // its server step and kqagent names the request and the code.
    settings.dhcpConf = "/proc/kq-nowhere/dhcp.conf";
    host.Update(settings);
    const Outcome failed = Agent(dir, "apply " + dir.File("server.json"));
    EXPECT_EQ(failed.status, 1);
    EXPECT_NE(failed.err.find("kqagent: request 0: add of lan1 failed (E"), std::string::npos) << failed.err;
    EXPECT_NE(failed.err.find("kqagent: request 0: {\"op\":\"add\",\"item\":{\"ifname\":\"lan1\""), std::string::npos)
        << failed.err;
    settings.dhcpConf = "";
    host.Update(settings);

    // Delete: the server goes with its pid and configuration files.
    lab::WriteFile(dir.File("delete.json"), R"({"requests":[{"op":"delete","item":{"ifname":"lan1"}}]})");
    const Outcome deleted = Agent(dir, "apply " + dir.File("delete.json"));
    ASSERT_EQ(deleted.status, 0) << deleted.out << deleted.err;
    EXPECT_TRUE(lab::WaitFor([&] { return !lab::ProcessAlive(*pid); }, 5s));
    EXPECT_FALSE(lab::ReadFile("/var/run/vyr_dhcpd_lan1.pid"));
    EXPECT_FALSE(lab::ReadFile("/etc/vyr_dhcpd_lan1.conf"));

    // What is left of lan1 (its lease file) is stale, shown once with the file, not as an interface.
    const Outcome after = Agent(dir, "status");
    EXPECT_NE(after.out.find("no interfaces configured\n"), std::string::npos) << after.out;
    EXPECT_NE(after.out.find("stale files (interfaces not configured):\n  lan1: /etc/vyr_dhcpd_lan1.leases\n"), std::string::npos)
        << after.out;

    // load: an empty document, a missing one and a damaged one with a good backup, in words.
    lab::WriteFile(dhcpConf, R"({ "dhcps": [ ] })");
    const Outcome empty = Agent(dir, "load");
    EXPECT_EQ(empty.status, 0);
    EXPECT_EQ(empty.out, "dhcp.conf at " + dhcpConf + " holds no interfaces; nothing to restore\nloaded " + dhcpConf + "\n");
    const Outcome missing = Agent(dir, "load " + dir.File("none.conf"));
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("kqagent: dhcp.conf at " + dir.File("none.conf") + " is missing; nothing to restore\n"),
              std::string::npos) << missing.err;
    lab::WriteFile(dhcpConf, R"({ "dhcps": [ { "ifname": "lan1", "vpnId": 0, "dhcpIpv4Se)");
    const Outcome damaged = Agent(dir, "load");
    EXPECT_EQ(damaged.status, 1);
    EXPECT_NE(damaged.err.find("kqagent: dhcp.conf at " + dhcpConf + " is not a document; its backup " + dhcpConf +
                               ".bak is intact: kqagent load " + dhcpConf + ".bak\n"),
              std::string::npos) << damaged.err;
    EXPECT_EQ(damaged.err.find("vaild"), std::string::npos) << damaged.err;

    // lan1 turned relay: the leases its server handed out are not the relay's.
    lab::WriteFile(dhcpConf, R"({ "dhcps": [ { "ifname": "lan1", "vpnId": 0, )"
                             R"("dhcpRelay": { "lanIp": "192.0.2.1", "relayServer": [ "203.0.113.2" ] } } ] })");
    const Outcome relayed = Agent(dir, "status");
    EXPECT_NE(relayed.out.find("  DRIFT: in dhcp.conf but not in the desired state\n  relay: lan ip 192.0.2.1 -> 203.0.113.2\n\n"), std::string::npos)
        << relayed.out;
    EXPECT_EQ(relayed.out.find(address), std::string::npos) << relayed.out;
}

}  // namespace
