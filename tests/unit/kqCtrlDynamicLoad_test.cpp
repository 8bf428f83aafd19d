// Start-up load through the real JSON readers: which entries come back, which processes are
// started, and what an add, a restart of the agent and a load leave in the registry.
#include <algorithm>
#include <optional>

#include <gtest/gtest.h>

#include "fakehost.h"

using fakehost::Host;
using fakehost::Ip4;

namespace {

using Strings = std::vector<std::string>;

const char kEth1Start[] = "/usr/sbin/dnsmasq -K --conf-file=/etc/vyr_dhcpd_eth1.conf --dhcp-leasefile=/etc/vyr_dhcpd_eth1.leases "
                          "--port=0 --pid-file=/var/run/vyr_dhcpd_eth1.pid -z";

std::string V4Server(const std::string &IfName, const char *Start, const char *Dns, const std::string &More = "")
{
    return "{\"ifname\": \"" + IfName + "\", \"vpnId\": 0, \"dhcpIpv4Server\": {\"ipRange\": [{\"startIp\": \"" + Start +
           "\", \"endIp\": \"192.0.2.200\"}], \"netmask\": \"255.255.255.0\", \"gateway\": \"192.0.2.1\", \"dnsIps\": [" + Dns +
           "], \"leaseTime\": 3600}" + More + "}";
}

std::string Relay(const std::string &IfName, const char *LanIp, const char *Server, bool Item = true)
{
    std::string relay = "\"dhcpRelay\": {\"lanIp\": \"" + std::string(LanIp) + "\", \"relayServer\": [\"" + Server + "\"]}";
    return Item ? "{\"ifname\": \"" + IfName + "\", \"vpnId\": 0, " + relay + "}" : ", " + relay;
}

std::string Doc(const Strings &Entries)
{
    std::string text = "{\"dhcps\": [";
    for (size_t i = 0; i < Entries.size(); ++i)
        text += (i ? ", " : "") + Entries[i];
    return text + "]}";
}

class DynamicLoad : public fakehost::ModuleTest {
protected:
    static void Fresh()
    {
        fakehost::Reset();
        Host().LogTestDump = false;
    }
    // Each node as "<ifname>:<server NetAddrType>/<relay NetAddrType>", in list order.
    static Strings Registry()
    {
        Strings out;
        for (const auto *c : kqtest::Registry())
            out.push_back(std::string(c->IfName) + ":" + std::to_string(c->DynamicServerConf.NetAddrType) + "/" +
                          std::to_string(c->DynamicRelayConf.NetAddrType));
        return out;
    }
    static int Count(const std::string &Message)
    {
        Strings m = fakehost::Messages();
        return static_cast<int>(std::count(m.begin(), m.end(), Message));
    }
};

// Both loaders refuse the same unusable documents, each in its own words; a refused document
// starts nothing, registers nothing, and its text is released.
TEST_F(DynamicLoad, BothLoadersRefuseUnusableDocuments)
{
    struct Row {
        std::optional<std::string> Doc;
        KQ_ERR_T Result;
        const char *ServerLine, *RelayLine;
    } rows[] = {
        {std::nullopt, -22, "invalid dhcp.conf\n", "invalid dhcp.conf\n"},
        {"{\"dhcps\": [", -22, "invalid dynamic conf, not json\n", "invalid dhcp conf, not json\n"},
        {"{\"other\": []}", -22, "invalid dhcp.conf, not complete dhcp type is invaild\n", "invalid dhcp.conf, not complete dynamic type is invaild\n"},
        {"{\"dhcps\": {}}", -22, "invalid dhcp.conf, not complete dhcp type is invaild\n", "invalid dhcp.conf, not complete dynamic type is invaild\n"},
        {"{\"dhcps\": []}", -2, "empty dhcp.conf\n", "empty dhcp.conf\n"},
        {"{\"dhcps\": [null, null]}", 0, "dynamic 1 is null\n", "dhcp 1 is null\n"},
    };
    const std::string path = Host().DhcpConfPath;
    fakehost::Lookalike relay{"/usr/sbin/dnsmasq", {"-K", "--conf-file=/etc/vyr_dhcpd_relay.conf", "--port=0",
                                                     "--pid-file=/var/run/vyr_dhcpd_relay.pid", "-z"}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.Doc.value_or("<missing>"));
        for (bool server : {true, false}) {
            Fresh();
            std::remove(path.c_str());
            if (row.Doc)
                fakehost::WriteFile(path, *row.Doc);
            fakehost::WriteFile(kqtest::kRelayPidPath, relay.PidText());
            long live = Host().LiveAllocations;
            EXPECT_EQ(server ? KQCtrl_LoadDynamicServerConf(path.c_str()) : KQCtrl_LoadDynamicRelayConf(path.c_str()), row.Result);
            Strings lines = fakehost::Lines();
            ASSERT_FALSE(lines.empty());
            EXPECT_EQ(std::count(lines.begin(), lines.end(), server ? row.ServerLine : row.RelayLine), 1);
            EXPECT_TRUE(!row.Doc || lines.front() == "agent dhcp.conf = " + *row.Doc + " \n");
            EXPECT_EQ(Host().LiveAllocations, live);
            EXPECT_EQ(fakehost::CallCount("KQ_FreeConf"), 1);
            EXPECT_TRUE(Host().Commands.empty());
            EXPECT_EQ(Host().Killed.size(), !server && row.Result == 0 ? 1u : 0u);  // a leftover relay is stopped
            EXPECT_TRUE(kqtest::Registry().empty());
        }
    }
    EXPECT_TRUE(fakehost::HasMessage("dhcp 0 is null\n"));

    Fresh();
    fakehost::WriteFile(path, "{\"dhcps\": [null]}");
    Host().Fail["KQ_FlexMsgAlloc"] = 0;
    EXPECT_EQ(KQCtrl_LoadDynamicRelayConf(path.c_str()), -12);
    EXPECT_EQ(fakehost::ErrorLines(), Strings{"Apply memory for dynamic relay content failed\n"});
}

TEST_F(DynamicLoad, DocumentsRestoreWhatTheirEntriesHold)
{
    const std::string eth1 = V4Server("eth1", "192.0.2.100", "\"192.0.2.53\"");
    const std::string eth2 = Relay("eth2", "198.51.100.1", "203.0.113.10");
    const std::string relay1 = "dhcp-relay=198.51.100.1,203.0.113.10\n";
    struct Row {
        const char *Name;
        std::string Document;
        KQ_ERR_T Result;
        Strings Commands, Registry;
        int Skipped;  // "Json to conf dynamic failed", server and relay loads together
        std::optional<std::string> RelayConf, Eth1Conf;
    };
    const Row rows[] = {
        {"bad entries are skipped",
         Doc({eth1, "{\"ifname\": \"bad/name\", \"dhcpRelay\": {\"lanIp\": \"198.51.100.9\", \"relayServer\": []}}",
              "{\"dhcpIpv4Server\": {\"netmask\": \"255.255.255.0\"}}", eth2,
              Relay("eth4", "198.51.100.4", "203.0.113.999")}),  // refused by the relay reader only
         0, {kEth1Start, kqtest::kRelayStartCmd}, {"eth1:1/0", "eth2:0/0", "eth4:0/0"}, 5, relay1, "dhcp-option=eth1,6,192.0.2.53\n"},
        {"empty array restores nothing", Doc({}), -2, {}, {}, 0, std::nullopt, std::nullopt},
        {"relay only: started once", Doc({eth2, Relay("eth3", "198.51.100.3", "203.0.113.30")}), 0, {kqtest::kRelayStartCmd},
         {"eth2:0/0", "eth3:0/0"}, 0, relay1 + "dhcp-relay=198.51.100.3,203.0.113.30\n", std::nullopt},
        {"pools without dns serve the interface address", Doc({V4Server("eth1", "192.0.2.100", "")}), 0, {kEth1Start},
         {"eth1:1/0"}, 0, std::nullopt, "dhcp-option=eth1,6,192.0.2.1\n"},
        // The mode is not restored: a combined entry comes back as SLAAC, whose list then takes
        // the interface address.
        {"combined entry without dns", Doc({R"({"ifname": "eth1", "vpnId": 0, "dhcpIpv6Server": {"dynamicMode": 3, "ipv6Range": )"
                                            R"([{"startIpv6": "2001:db8:1::100", "endIpv6": "2001:db8:1::1ff"}], "prefixlengthdhcp": 64, )"
                                            R"("leaseTimeIpv6": 60, "dnsIpv6s": [], "prefix": "2001:db8:1::", "prefixlengthslaac": 64}})"}),
         0, {kEth1Start}, {"eth1:2/0"}, 0, std::nullopt, "dhcp-range=2001:db8:1::, ra-only\nenable-ra\nra-param=eth1,10\n"
                                                         "dhcp-option=option6:dns-server,[2001:db8:1::1]\n"},
        // The server load registered the interface first, so the relay half stays empty.
        {"server and relay in one entry", Doc({V4Server("eth1", "192.0.2.100", "\"192.0.2.53\"", Relay("", "198.51.100.1", "203.0.113.10", false))}),
         0, {kEth1Start, kqtest::kRelayStartCmd}, {"eth1:1/0"}, 0, relay1, "dhcp-option=eth1,6,192.0.2.53\n"},
        // The second entry of an interface is started but not stored: the file is its.
        {"second entry of an interface", Doc({eth1, V4Server("eth1", "192.0.2.150", "\"192.0.2.54\"")}), 0,
         {kEth1Start, kEth1Start}, {"eth1:1/0"}, 0, std::nullopt, "dhcp-option=eth1,6,192.0.2.54\n"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.Name);
        fakehost::ClearRegistry();
        fakehost::RemoveModuleFiles();
        Fresh();
        Host().FirstIpv4["eth1"] = Ip4("192.0.2.1");
        Host().FirstIpv6["eth1"] = fakehost::Ip6("2001:db8:1::1");
        fakehost::WriteFile(Host().DhcpConfPath, row.Document);
        EXPECT_EQ(KQCtrl_LoadDynamicServiceConf(Host().DhcpConfPath.c_str()), row.Result);
        EXPECT_EQ(Host().Commands, row.Commands);
        EXPECT_EQ(Registry(), row.Registry);
        EXPECT_EQ(Count("Json to conf dynamic failed\n"), row.Skipped);
        EXPECT_EQ(fakehost::ReadFile(kqtest::kRelayConfPath), row.RelayConf);
        std::optional<std::string> eth1Conf = fakehost::ReadFile("/etc/vyr_dhcpd_eth1.conf");
        EXPECT_EQ(eth1Conf.has_value(), row.Eth1Conf.has_value());
        if (eth1Conf && row.Eth1Conf) {
            EXPECT_NE(eth1Conf->find(*row.Eth1Conf), std::string::npos) << *eth1Conf;
        }
        EXPECT_EQ(Count("load dynamic server failed\n"), row.Result == -2 ? 1 : 0);
        EXPECT_EQ(Count("lodd dynamic relay failed\n") + Count("Restart dynamic relay failed\n"), 0);
        // Both loaders read the document, unless the server load failed.
        EXPECT_EQ(Count("agent dhcp.conf = " + row.Document + " \n"), row.Result == -2 ? 1 : 2);
    }
    EXPECT_EQ(_KQCtrl_GetDynamicServerConfByName("eth1")->ServerIpv4Conf.Dns[0], Ip4("192.0.2.53"));  // the first entry's
}

}  // namespace
