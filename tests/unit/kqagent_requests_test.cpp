// kqagent's request files: what a valid file builds, how each fault is refused, what the
// checks and the plan tell the operator.
#include <gtest/gtest.h>

#include "fakehost.h"
#include "kqAgentChecks.h"
#include "kqAgentCommon.h"
#include "kqAgentMessages.h"
#include "kqAgentPlan.h"
#include "kqAgentRequests.h"

namespace {

using kqagent::ParseRequests;

std::string File(const std::string &requests) { return R"({"requests":[)" + requests + "]}"; }

const char kServer4[] = R"({"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.100","len":50}],"netmask":"255.255.255.0","leasetime":3600}})";

// An add for ifname with the given IPv4 item and IPv6 server part (each left out when empty).
std::string Add(const char *ifname, const std::string &v4, const std::string &v6 = "")
{
    return std::string(R"({"op":"add","item":{"ifname":")") + ifname + "\"" + (v4.empty() ? "" : ",\"ipv4dhcpitem\":" + v4) +
           (v6.empty() ? "" : ",\"ipv6dhcpitem\":{\"mode\":3,\"dhcpserver\":" + v6 + "}") + "}}";
}

std::string Server4(const std::string &fields)
{
    return R"({"mode":3,"dhcpserver":{"netmask":"255.255.255.0","leasetime":3600,)" + fields + "}}";
}

std::vector<kqagent::Request> Parsed(const std::string &text)
{
    auto parsed = ParseRequests(text);
    EXPECT_TRUE(parsed.Ok()) << parsed.error;
    return parsed.requests;
}

std::string Packed(const DhcpItemV2 &Item)
{
    std::string out(dhcp_item_v2__get_packed_size(&Item), '\0');
    dhcp_item_v2__pack(&Item, reinterpret_cast<uint8_t *>(out.data()));
    return out;
}

// n list entries from a format taking the same number twice: base, base + 1, ...
std::string Many(size_t n, const char *format, size_t base = 1)
{
    std::string list;
    for (size_t i = 0; i < n; ++i) {
        char text[160];
        snprintf(text, sizeof(text), format, base + i, base + i);
        list += (i ? "," : "") + std::string(text);
    }
    return list;
}

TEST(KqAgentRequests, ValidFilesBuildExactMessages)
{
    std::vector<kqagent::Request> kept;  // copies of the result keep their messages alive after the original is gone
    {
        const auto parsed = ParseRequests(File(
            R"({"op":"add","item":{"ifname":"lan1",
             "ipv4dhcpitem":{"mode":3,"dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.100","len":50},{"begin":"192.0.2.200","len":1}],
               "netmask":"255.255.255.0","dns":["192.0.2.1","198.51.100.53"],"gateway":"192.0.2.1","leasetime":3600,"offertime":60}},
             "ipv6dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"ipv6begin":"2001:db8:1::100","ipv6end":"2001:db8:1::1ff"}],
               "prefixlength":64,"dns":["2001:db8:1::1"],"leasetime":7200,"prefix":"2001:db8:1::","ipv6dynamicmode":"dhcp","dnsdynamicmode":1}}}},
           {"op":"add","item":{"ifname":"lan2","ipv4dhcpitem":{"mode":"relay","dhcprelay":{"relayserver":["203.0.113.2","203.0.113.3"],"lanip":"198.51.100.1"}}}},
           {"op":"delete","item":{"ifname":"lan3"}},)" + Add("lan1", kServer4) +
            R"(,{"op":"add","item":{"ifname":"lan1","ipv6dhcpitem":{"mode":"relay"}}})"));
        ASSERT_TRUE(parsed.Ok()) << parsed.error;
        EXPECT_EQ(parsed.notes, std::vector<std::string>{"request 4: item.ipv6dhcpitem.mode: the module relays IPv4 only; IPv6 relay mode configures nothing"});
        kept = parsed.requests;
    }
    auto full = kqtest::ServerMsg::DualStack(1, 1);
    full.IfName = "lan1";
    full.Pools = {{"192.0.2.100", 50}, {"192.0.2.200", 1}};
    full.Dns = {kqtest::Ip4("192.0.2.1"), kqtest::Ip4("198.51.100.53")};
    full.Gateway = kqtest::Ip4("192.0.2.1");
    full.Offer = 60;
    full.V6Dns = {"2001:db8:1::1"};
    auto relay = kqtest::RelayItem("lan2", "198.51.100.1", {"203.0.113.2", "203.0.113.3"});
    kqtest::ServerMsg deleted, minimal = kqtest::ServerMsg::Ipv4();  // optional fields not given stay unset
    deleted.IfName = "lan3";
    minimal.IfName = "lan1";
    minimal.Pools = {{"192.0.2.100", 50}};
    ASSERT_EQ(kept.size(), 5u);
    const std::vector<std::string> expected = {Packed(*full.Build()), Packed(*relay.get()), Packed(*deleted.Build()), Packed(*minimal.Build())};
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(Packed(kept[i].Item()), expected[i]) << i;
    std::vector<std::string> summaries;  // "add" or "delete" as the request's op says
    for (const auto &r : kept)
        summaries.push_back(r.Summary());
    EXPECT_EQ(summaries, (std::vector<std::string>{"add lan1 (ipv4 server, ipv6 server)", "add lan2 (ipv4 relay)", "delete lan3",
                                                   "add lan1 (ipv4 server)", "add lan1 (ipv6 relay)"}));
    EXPECT_EQ(kqagent::ErrnoName(-22) + kqagent::ErrnoName(-75) + kqagent::ErrnoName(-2) + kqagent::ErrnoName(-100000),
              "EINVAL (-22)EOVERFLOW (-75)ENOENT (-2)error -100000");
}

TEST(KqAgentRequests, FaultsAreRefusedWithIndexPathAndReason)
{
    const std::string stateful6 = R"({"dhcpiprange":[{"ipv6begin":"2001:db8:1::100","ipv6end":"2001:db8:1::1ff"}],"prefixlength":64,)";
    const std::string badName = " is not a usable interface name (1..15 characters, no leading '-', none of / : * ? [ ] , \" ' # = \\, blanks or control characters)";
    const std::string dup = ": duplicate key (the second value would silently replace the first)";
    auto lease = [](const char *v) {
        return File(Add("lan1", std::string(R"({"mode":3,"dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.10","len":5}],"netmask":"255.255.255.0","leasetime":)") + v + "}}"));
    };
    const std::string v4 = "request 0: item.ipv4dhcpitem.", s4 = v4 + "dhcpserver.", s6 = "request 0: item.ipv6dhcpitem.dhcpserver";
    auto V4 = [](const std::string &item) { return File(Add("lan1", item)); };
    auto S4 = [](const std::string &fields) { return File(Add("lan1", Server4(fields))); };
    auto V6 = [](const std::string &server) { return File(Add("lan1", "", server)); };
    const struct { std::string text, error; } cases[] = {
        {"", "(file): not valid JSON near line 1, column 1: unexpected end of data"},
        {File(Add("lan1", kServer4)) + "\n}", "(file): not valid JSON near line 2, column 1: unexpected text after the document"},
        {"{\n \"requests\": [\n  {\"op\" \"add\"}]}", "(file): not valid JSON near line 3, column 9: object property name separator ':' expected"},
        {"null", "(file): expected an object, found null"},
        {File(R"({"op":"delete","item":{"ifname":"lan1"}},)"), "(file): not valid JSON near line 1, column 55: a comma before ']' (no trailing commas)"},
        {File(R"({"op":"delete","item":{"ifname":"lan1",}})"), "(file): not valid JSON near line 1, column 53: a comma before '}' (no trailing commas)"},
        {File(R"({"op":"delete","item":{"ifname":"lan1","ifname":"lan2"}})"), "request 0: item.ifname" + dup},
        {File(Add("lan1", kServer4) + R"(,{"op":"delete","op":"add","item":{"ifname":"lan1"}})"), "request 1: op" + dup},
        {R"({"requests":[],"requests":[]})", "requests" + dup},
        {"[]", "(file): expected an object, found an array"},
        {R"({"requests":[]})", "requests: holds 0 entries, allowed 1..18446744073709551615"},
        {R"({"request":[]})", "request: unknown key (known here: requests)"},
        {R"({})", "requests: missing (required)"},
        {File("3"), "request 0: (request): expected an object, found an integer"},
        {File(R"({"op":"add"})"), "request 0: item: missing (required)"},
        {File(R"({"op":"replace","item":{"ifname":"lan1"}})"), "request 0: op: \"replace\" is not an operation (use \"add\" or \"delete\")"},
        {File(R"({"op":"add","item":{"ifname":"lan1"},"extra":1})"), "request 0: extra: unknown key (known here: op, item)"},
        {File(Add("lan1", kServer4) + "," + Add("lan1/x", "")), "request 1: item.ifname: \"lan1/x\"" + badName},
        {File(Add("abcdefghijklmnop", "")), "request 0: item.ifname: \"abcdefghijklmnop\"" + badName},
        {File(R"({"op":"add","item":{"ifname":7}})"), "request 0: item.ifname: expected a string, found an integer"},
        {File(R"({"op":"add","item":{"ifname":null}})"), "request 0: item.ifname: must not be null"},
        {V4(R"({"mode":"server"})"), v4 + "dhcpserver: missing (mode is \"server\")"},
        {V4(R"({"mode":"relay"})"), v4 + "dhcprelay: missing (mode is \"relay\")"},
        {V4(R"({"mode":4})"), v4 + "mode: 4 is out of range 1..3"},
        {V4(R"({"mode":"on"})"), v4 + "mode: \"on\" is not a mode (use 1 \"off\", 2 \"relay\", 3 \"server\")"},
        {V4(R"({"mode":true})"), v4 + "mode: expected a mode: 1 \"off\", 2 \"relay\", 3 \"server\", found a boolean"},
        {S4(R"("dhcpiprange":[{"begin":"192.0.2.300","len":5}])"), s4 + "dhcpiprange[0].begin: \"192.0.2.300\" is not an IPv4 address"},
        {S4(R"("dhcpiprange":[{"begin":"192.0.2.10"}])"), s4 + "dhcpiprange[0].len: missing (required)"},
        {S4(R"("dhcpiprange":[{"begin":"255.255.255.250","len":7}])"), s4 + "dhcpiprange[0].len: 7 is out of range 1..6"},
        {S4(R"("dhcpiprange":[])"), s4 + "dhcpiprange: holds 0 entries, allowed 1..64"},
        {V4(R"({"mode":3,"dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.10","len":5}],"netmask":"255.0.255.0","leasetime":60}})"),
         s4 + "netmask: \"255.0.255.0\" is not a netmask"},
        {lease("0"), s4 + "leasetime: 0 is out of range 1..4294967295"},
        {lease("4294967296"), s4 + "leasetime: 4294967296 is out of range 1..4294967295"},
        {lease("\"3600\""), s4 + "leasetime: expected an integer, found a string"},
        {lease("60.5"), s4 + "leasetime: expected an integer, found a fractional number"},
        {S4(R"("dhcpiprange":[{"begin":"192.0.2.10","len":5}],"dns":["192.0.2.1","0.0.0.0"])"), s4 + "dns[1]: \"0.0.0.0\" is not usable here (0.0.0.0)"},
        {S4(R"("dhcpiprange":[{"begin":"192.0.2.10","len":5}],"lease":60)"), s4 + "lease: unknown key (known here: dhcpiprange, netmask, dns, offertime, gateway, leasetime)"},
        {V4(R"({"mode":2,"dhcprelay":{"relayserver":[)" + Many(5, R"("203.0.113.%zu")") + R"(],"lanip":"198.51.100.1"}})"),
         v4 + "dhcprelay.relayserver: holds 5 entries, allowed 1..4"},
        {V4(R"({"mode":2,"dhcprelay":{"relayserver":["203.0.113.1"]}})"), v4 + "dhcprelay.lanip: missing (required)"},
        {V6(stateful6 + R"("ipv6dynamicmode":1,"dnsdynamicmode":2})"),
         s6 + ": ipv6dynamicmode \"dhcp\" with dnsdynamicmode \"slaac\" is not served; use dhcp+dhcp (stateful DHCPv6), slaac+dhcp "
              "(stateless DHCPv6), slaac+slaac (SLAAC) or both+slaac (SLAAC and DHCPv6)"},
        {V6(stateful6 + R"("ipv6dynamicmode":1})"), s6 + ".dnsdynamicmode: missing (mode is \"server\")"},
        {V6(R"({"prefixlength":64,"ipv6dynamicmode":"dhcp","dnsdynamicmode":"dhcp"})"),
         s6 + ".dhcpiprange: needs at least one range (ipv6dynamicmode \"dhcp\" with dnsdynamicmode \"dhcp\")"},
        {V6(R"({"prefixlength":64,"ipv6dynamicmode":"slaac","dnsdynamicmode":"slaac"})"), s6 + ".prefix: missing (ipv6dynamicmode \"slaac\" with dnsdynamicmode \"slaac\")"},
        {V6(R"({"prefix":"2001:db8:1::","ipv6dynamicmode":"slaac","dnsdynamicmode":"dhcp"})"),
         s6 + ".prefixlength: missing (ipv6dynamicmode \"slaac\" with dnsdynamicmode \"dhcp\")"},
        {V6(R"({"prefix":"2001:db8:1::","prefixlength":129,"ipv6dynamicmode":2,"dnsdynamicmode":2})"), s6 + ".prefixlength: 129 is out of range 1..128"},
        {V6(R"({"prefix":"2001:db8:1::/64","prefixlength":64,"ipv6dynamicmode":2,"dnsdynamicmode":2})"), s6 + ".prefix: \"2001:db8:1::/64\" is not an IPv6 address"},
        {V6(R"({"dhcpiprange":[{"ipv6begin":"2001:db8:1::200","ipv6end":"2001:db8:1::100"}],"prefixlength":64,"ipv6dynamicmode":1,"dnsdynamicmode":1})"),
         s6 + ".dhcpiprange[0]: ipv6end 2001:db8:1::100 lies before ipv6begin 2001:db8:1::200"},
        {V6(stateful6 + R"("ipv6dynamicmode":1,"dnsdynamicmode":1,"dns":["::"]})"), s6 + ".dns[0]: \"::\" is not usable here (the unspecified address)"},
        {V6(stateful6 + R"("ipv6dynamicmode":"stateful","dnsdynamicmode":1})"), s6 + ".ipv6dynamicmode: \"stateful\" is not a mode (use 1 \"dhcp\", 2 \"slaac\", 3 \"both\")"},
    };
    for (const auto &c : cases) {
        const auto parsed = ParseRequests(c.text);
        EXPECT_EQ(parsed.error, c.error) << c.text;
        EXPECT_TRUE(!parsed.Ok() && parsed.requests.empty()) << c.text;
    }
}

TEST(KqAgentChecks, RequestsOnTheirOwnNameRequestPathAndReason)
{
    fakehost::Reset();
    const std::string pools = R"("dhcpiprange":[{"begin":"192.0.2.100","len":50})";
    const std::string stateful = R"({"ipv6dynamicmode":"dhcp","dnsdynamicmode":"dhcp","prefixlength":64,"leasetime":3600,)";
    const std::string s4 = "request 0: item.ipv4dhcpitem.dhcpserver.", s6 = "request 0: item.ipv6dhcpitem.dhcpserver.";
    const std::string hex = "is made only of hexadecimal digits, which dnsmasq reads as an address in its dhcp-range= line, so its "
                            "dnsmasq would not start; give the interface another name";
    const struct { std::string requests; std::vector<std::string> errors; } cases[] = {
        {Add("lan1", ""), {"request 0: item: an add with neither ipv4dhcpitem nor ipv6dhcpitem would remove lan1's DHCP service; to "
                           "remove it, use {\"op\":\"delete\",\"item\":{\"ifname\":\"lan1\"}}"}},
        {Add("lan1", Server4(pools + R"(,{"begin":"192.0.2.149","len":2},{"begin":"192.0.2.10","len":5}])")),
         {s4 + "dhcpiprange[1]: pool 192.0.2.149-192.0.2.150 overlaps dhcpiprange[0] (192.0.2.100-192.0.2.149)"}},
        // The gateway is the interface's own address: the pool that leaves its subnet is named.
        {Add("lan1", Server4(pools + R"(,{"begin":"198.51.100.10","len":10}],"gateway":"192.0.2.1")")),
         {s4 + "dhcpiprange[1]: pool 198.51.100.10-198.51.100.19 lies outside 192.0.2.0/24, the subnet of the gateway 192.0.2.1 "
               "with netmask 255.255.255.0"}},
        {Add("lan1", Server4(pools + R"(],"gateway":"198.51.100.1")")),
         {s4 + "dhcpiprange[0]: pool 192.0.2.100-192.0.2.149 lies outside 198.51.100.0/24, the subnet of the gateway 198.51.100.1 "
               "with netmask 255.255.255.0"}},
        {Add("lan1", Server4(pools + R"(,{"begin":"192.0.2.250","len":10}])")),
         {s4 + "dhcpiprange[1]: pool 192.0.2.250-192.0.3.3 lies outside 192.0.2.0/24, the subnet of dhcpiprange[0] with netmask "
               "255.255.255.0"}},
        {Add("lan1", Server4(pools + R"(],"gateway":"192.0.2.1")")), {}},
        {Add("lan1", "", stateful + R"("dhcpiprange":[{"ipv6begin":"2001:db8:1::100","ipv6end":"2001:db8:1::1ff"},{"ipv6begin":"2001:db8:1::1f0","ipv6end":"2001:db8:1::2ff"}]})"),
         {s6 + "dhcpiprange[1]: pool 2001:db8:1::1f0-2001:db8:1::2ff overlaps dhcpiprange[0] (2001:db8:1::100-2001:db8:1::1ff)"}},
        {Add("cafe1", Server4(pools + "]")), {"request 0: item.ifname: \"cafe1\" " + hex}},
        {Add("ea0", "", stateful + R"("dhcpiprange":[{"ipv6begin":"2001:db8:1::100","ipv6end":"2001:db8:1::1ff"}]})"),
         {"request 0: item.ifname: \"ea0\" " + hex}},
        // A relay writes no dhcp-range line; a name with one letter beyond f is fine.
        {Add("cafe2", R"({"mode":"relay","dhcprelay":{"relayserver":["203.0.113.2"],"lanip":"198.51.100.1"}})"), {}},
        {Add("cafe1g", Server4(pools + "]")), {}},
    };
    for (const auto &c : cases)
        EXPECT_EQ(kqagent::CheckRequests(Parsed(File(c.requests))).errors, c.errors) << c.requests;
}

kqagent::DryStep Step(std::vector<kqagent::DryEffect> effects, bool serverBefore = false, bool serverAfter = true)
{
    kqagent::DryStep step;
    step.effects = std::move(effects);
    step.known = serverBefore;
    step.serverBefore = serverBefore;
    step.serverAfter = serverAfter;
    return step;
}

std::optional<kqagent::LinkFacts> Facts(bool exists, bool up, std::vector<std::string> ipv4, std::vector<std::string> ipv6 = {})
{
    ipv4.insert(ipv4.end(), ipv6.begin(), ipv6.end());
    return kqagent::LinkFacts{exists, up, std::move(ipv4)};
}

TEST(KqAgentChecks, TheDryRunAndTheMachineDecide)
{
    const auto requests = Parsed(File(
        Add("lan1", Server4(R"("dhcpiprange":[{"begin":"192.0.2.100","len":50}],"gateway":"192.0.2.1")"),
            R"({"ipv6dynamicmode":"dhcp","dnsdynamicmode":"dhcp","prefixlength":64,"leasetime":3600,"dhcpiprange":[{"ipv6begin":"2001:db8:1::100","ipv6end":"2001:db8:1::1ff"}]})")));
    const std::string at = "request 0: item.ipv4dhcpitem.dhcpserver: lan1 ";
    const std::string at6 = "request 0: item.ipv6dhcpitem.dhcpserver: lan1 ";
    kqagent::DryStep refused;
    refused.result = -EOVERFLOW;
    refused.errors = {"Set dynamic service conf failed(-75:Value too large for defined data type)"};
    kqagent::DryStep notLooked = Step({});
    notLooked.lookProblem = "cannot look into zone 7's namespace (needs root)";
    notLooked.zone = 7;
    kqagent::CheckLimits small;
    small.dhcpConf = 20;
    small.dnsmasqLine = 10;
    const struct { kqagent::DryStep step; std::optional<kqagent::LinkFacts> facts; kqagent::CheckLimits limits; std::vector<std::string> errors, warnings, notes; } cases[] = {
        {refused, {}, {}, {"request 0: item: the module refuses it: " + kqagent::DescribeRefusal(kqagent::RequestOp::Add, "lan1", -EOVERFLOW) +
                           "\n    module: Set dynamic service conf failed(-75:Value too large for defined data type)"}},
        {Step({{"write", "/etc/vyr_dhcpd_lan1.conf", "interface=lan1\ndhcp-range=lan1,192.0.2.100\n"}, {"write", "/dhcp.conf.bak", std::string(21, 'x')}}),
         Facts(true, true, {"192.0.2.1/24"}, {"2001:db8:1::1/64"}), small,
         {"request 0: item: makes a line of 27 characters in /etc/vyr_dhcpd_lan1.conf; dnsmasq reads at most 10 (give fewer entries)",
          "request 0: item: dhcp.conf would grow to 21 bytes, over the 20 its loader reads, so a program without the desired state could not restore it"}},
        {Step({}), Facts(true, true, {"192.0.2.1/24"}, {"fe80::1/64", "2001:db8:1::1/64"}), {}},
        {Step({}), Facts(false, false, {}), {}, {}, {"request 0: item.ifname: lan1 does not exist on this machine; its dnsmasq would serve no one"}},
        {Step({}), Facts(true, false, {"198.51.100.1/24", "192.0.3.9/23"}), {}, {},
         {"request 0: item.ifname: lan1 is down; clients get no answer until it is up",
          at + "holds no IPv4 address in 192.0.2.0/24 (its addresses: 198.51.100.1/24, 192.0.3.9/23): clients get no answer",
          at6 + "holds no IPv6 address in 2001:db8:1::/64 (its addresses: none): clients get no answer"}},
        {notLooked, {}, {}, {}, {}, {"request 0: did not look at lan1 (zone 7): cannot look into zone 7's namespace (needs root)"}},
    };
    for (const auto &c : cases) {
        kqagent::DryStep step = c.step;
        if (c.facts)
            step.link = c.facts;
        kqagent::CheckReport report;
        JudgeDryRun(requests, {step}, false, "/dhcp.conf.bak", report, c.limits);
        EXPECT_EQ(report.errors, c.errors);
        EXPECT_EQ(report.warnings, c.warnings);
        EXPECT_EQ(report.notes, c.notes);
        // --strict: the warnings are errors, after the others.
        kqagent::CheckReport strict;
        JudgeDryRun(requests, {step}, true, "/dhcp.conf.bak", strict, c.limits);
        std::vector<std::string> all = c.errors;
        all.insert(all.end(), c.warnings.begin(), c.warnings.end());
        std::sort(all.begin(), all.end());
        std::sort(strict.errors.begin(), strict.errors.end());
        EXPECT_EQ(strict.errors, all);
    }
}

TEST(KqAgentPlan, EachRequestSaysWhatTheModuleDidInTheDryRun)
{
    const std::string relay = R"({"mode":"relay","dhcprelay":{"relayserver":["203.0.113.2"],"lanip":"198.51.100.1"}})";
    const auto requests = Parsed(File(Add("lan1", kServer4) + "," + Add("lan2", kServer4) + "," + Add("lan3", kServer4) + "," +
                                      Add("lan4", relay) + "," + Add("lan5", "", R"({"ipv6dynamicmode":"slaac","dnsdynamicmode":"slaac","prefixlength":64,"prefix":"2001:db8:1::"})") +
                                      R"(,{"op":"delete","item":{"ifname":"lan4"}},{"op":"delete","item":{"ifname":"lan9"}},)" +
                                      Add("lan6", kServer4) + "," + Add("lan7", kServer4)));
    const kqagent::DryEffect start1{"exec", "/usr/sbin/dnsmasq -K --conf-file=/etc/vyr_dhcpd_lan1.conf --dhcp-leasefile=x -z", ""};
    const kqagent::DryEffect write1{"write", "/etc/vyr_dhcpd_lan1.conf", "interface=lan1\nport=0\n"};
    const kqagent::DryEffect start2{"exec", "ip netns exec vpn7 /usr/sbin/dnsmasq -K --conf-file=/etc/vyr_dhcpd_lan2.conf --x", ""};
    const kqagent::DryEffect startRelay{"exec", "/usr/sbin/dnsmasq -K --conf-file=/etc/vyr_dhcpd_relay.conf --port=0", ""};
    auto restart2 = Step({{"signal", "4242", "9"}, {"remove", "/var/run/vyr_dhcpd_lan2.pid", ""}, start2, startRelay}, true);
    restart2.serverChanges = {"ipv4 leasetime", "zone 0 -> 7"};
    restart2.relays = {"lan4"};
    auto unchanged3 = Step({}, true);
    auto newRelay4 = Step({startRelay}, false, false);
    newRelay4.relayAfter = true;
    newRelay4.relays = {"lan4"};
    auto start5 = Step({{"exec", "/usr/sbin/dnsmasq -K --conf-file=/etc/vyr_dhcpd_lan5.conf --y", ""}}, true);
    auto delete4 = Step({{"kill", "77", ""}}, false, false);
    delete4.known = delete4.relayBefore = true;
    auto delete9 = Step({}, false, false);
    auto stop6 = Step({{"remove", "/etc/vyr_dhcpd_lan6.conf", ""}}, true, false);
    kqagent::DryStep refused7;
    refused7.result = -EINVAL;
    refused7.errors = {"cmd:/usr/sbin/dnsmasq exec failed"};
    const std::vector<kqagent::DryStep> steps = {Step({write1, start1}), restart2, unchanged3, newRelay4, start5, delete4, delete9, stop6, refused7};
    const std::vector<std::string> lines = {
        "[0] add lan1: new server",
        "[1] add lan2: server restart (ipv4 leasetime, zone 0 -> 7 differ)", "    shared relay rebuilt and restarted (lan4)",
        "[2] add lan3: server unchanged",
        "[3] add lan4: new relay", "    shared relay rebuilt and restarted (lan4)",
        "[4] add lan5: server start (same settings; its dnsmasq did not run)",
        "[5] delete lan4: relay removed", "    shared relay stopped (no relay interface left)",
        "[6] delete lan9: not configured; nothing to stop",
        "[7] add lan6: server stop",
        "[8] add lan7: refused: " + kqagent::DescribeRefusal(kqagent::RequestOp::Add, "lan7", -EINVAL),
        "    module: cmd:/usr/sbin/dnsmasq exec failed"};
    EXPECT_EQ(kqagent::PlanLines(requests, steps, false), lines);
    // -v: the exact text of each dnsmasq file written, under its request.
    auto verbose = lines;
    verbose.insert(verbose.begin() + 1, {"    /etc/vyr_dhcpd_lan1.conf:", "      interface=lan1", "      port=0"});
    EXPECT_EQ(kqagent::PlanLines(requests, steps, true), verbose);
    // A refusal before the end: apply stops there.
    EXPECT_EQ(kqagent::PlanLines(requests, {refused7}, false).back(), "    apply stops here; request(s) 1..8 would not be applied");
}

}  // namespace

// A restart's reason names each registry field that differs, in the request file's words;
// the fields of a family are compared only while both records serve it.
TEST(KqAgentPlan, ARestartNamesEachFieldThatDiffers)
{
    KQ_CTRL_DYNAMIC_SERVER_CONF base{};
    base.NetAddrType = KQ_NET_ADDR_IPV46;
    base.SecurityZoneId = 7;
    base.ServerIpv4Conf.NetMask = 0xFFFFFF00;
    base.ServerIpv4Conf.LeaseTime = 3600;
    base.ServerIpv6Conf.DhcpConf.PrefixLength = 64;
    using Change = void (*)(KQ_CTRL_DYNAMIC_SERVER_CONF &);
    const struct { Change change; std::vector<std::string> words; } cases[] = {
        {[](KQ_CTRL_DYNAMIC_SERVER_CONF &) {}, {}},
        {[](KQ_CTRL_DYNAMIC_SERVER_CONF &c) { c.NetAddrType = KQ_NET_ADDR_IPV4; }, {"served families ipv4+ipv6 -> ipv4"}},
        {[](KQ_CTRL_DYNAMIC_SERVER_CONF &c) { c.NetAddrType = KQ_NET_ADDR_IPV6; }, {"served families ipv4+ipv6 -> ipv6"}},
        {[](KQ_CTRL_DYNAMIC_SERVER_CONF &c) { c.NetAddrType = KQ_NET_ADDR_TYPE{}; }, {"served families ipv4+ipv6 -> none"}},
        {[](KQ_CTRL_DYNAMIC_SERVER_CONF &c) { c.SecurityZoneId = 0; }, {"zone 7 -> 0"}},
        {[](KQ_CTRL_DYNAMIC_SERVER_CONF &c) { c.ServerIpv4Conf.NetMask = 0xFFFF0000; }, {"ipv4 netmask"}},
        {[](KQ_CTRL_DYNAMIC_SERVER_CONF &c) { c.ServerIpv4Conf.Gateway = 0xC0000201; }, {"ipv4 gateway"}},
        {[](KQ_CTRL_DYNAMIC_SERVER_CONF &c) { c.ServerIpv4Conf.LeaseTime = 60; c.ServerIpv4Conf.OfferTime = 30; },
         {"ipv4 leasetime", "ipv4 offertime"}},
        {[](KQ_CTRL_DYNAMIC_SERVER_CONF &c) { c.ServerIpv6Conf.DynamicMode = KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP; }, {"ipv6 mode"}},
        {[](KQ_CTRL_DYNAMIC_SERVER_CONF &c) { c.ServerIpv6Conf.DhcpConf.PrefixLength = 48; }, {"ipv6 prefixlength"}},
        {[](KQ_CTRL_DYNAMIC_SERVER_CONF &c) { c.NetAddrType = KQ_NET_ADDR_IPV4; c.ServerIpv6Conf.DynamicMode = KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP; },
         {"served families ipv4+ipv6 -> ipv4"}},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        KQ_CTRL_DYNAMIC_SERVER_CONF after = base;
        cases[i].change(after);
        EXPECT_EQ(kqagent::ServerChanges(base, after), cases[i].words) << "case " << i;
    }
    KQ_CTRL_DYNAMIC_SERVER_CONF ipv4 = base;
    ipv4.NetAddrType = KQ_NET_ADDR_IPV4;
    EXPECT_EQ(kqagent::ServerChanges(ipv4, base), std::vector<std::string>{"served families ipv4 -> ipv4+ipv6"});
}
