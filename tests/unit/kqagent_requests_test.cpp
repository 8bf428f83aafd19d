// kqagent's request files: what a valid file builds, how each fault is refused, what the
// checks and the plan tell the operator.
#include <gtest/gtest.h>

#include "fakehost.h"
#include "kqAgentChecks.h"
#include "kqAgentCommon.h"
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

TEST(KqAgentChecks, RefusalsAndWarningsNameRequestPathAndReason)
{
    fakehost::Reset();
    const std::string pools = R"("dhcpiprange":[{"begin":"192.0.2.100","len":50})";
    const std::string stateful = R"({"ipv6dynamicmode":"dhcp","dnsdynamicmode":"dhcp","prefixlength":64,"leasetime":3600,)";
    const std::string slaac = R"({"ipv6dynamicmode":"slaac","dnsdynamicmode":"slaac","prefixlength":64,"prefix":"2001:db8:1::")";
    const std::string longDns = "\"2001:db8:ffff:ffff:ffff:ffff:%04zx:%04zx\"";
    const std::string lost = "a restart would lose lan1's IPv6 service", s6 = "request 0: item.ipv6dhcpitem.dhcpserver.";
    const struct { std::string requests; std::vector<std::string> errors, warnings; } cases[] = {
        {Add("lan1", ""), {"request 0: item: an add with neither ipv4dhcpitem nor ipv6dhcpitem would remove lan1's DHCP service; to "
                           "remove it, use {\"op\":\"delete\",\"item\":{\"ifname\":\"lan1\"}}"}},
        {Add("lan1", Server4(pools + R"(,{"begin":"192.0.2.149","len":2},{"begin":"192.0.2.10","len":5}])")),
         {"request 0: item.ipv4dhcpitem.dhcpserver.dhcpiprange[1]: pool 192.0.2.149-192.0.2.150 overlaps dhcpiprange[0] (192.0.2.100-192.0.2.149)"}},
        {Add("lan1", Server4(pools + R"(,{"begin":"192.0.2.250","len":10}],"gateway":"198.51.100.1")")),
         {"request 0: item.ipv4dhcpitem.dhcpserver.gateway: gateway 198.51.100.1 lies outside the subnet 192.0.2.0/24 of the pools (netmask 255.255.255.0)",
          "request 0: item.ipv4dhcpitem.dhcpserver.dhcpiprange[1]: pool 192.0.2.250-192.0.3.3 lies outside the subnet 192.0.2.0/24 of netmask "
          "255.255.255.0 and dhcpiprange[0]"}},
        {Add("lan1", Server4(pools + R"(],"gateway":"192.0.2.1")")), {}},
        {Add("lan1", "", stateful + R"("dhcpiprange":[{"ipv6begin":"2001:db8:1::100","ipv6end":"2001:db8:1::1ff"},{"ipv6begin":"2001:db8:1::1f0","ipv6end":"2001:db8:1::2ff"}]})"),
         {s6 + "dhcpiprange[1]: pool 2001:db8:1::1f0-2001:db8:1::2ff overlaps dhcpiprange[0] (2001:db8:1::100-2001:db8:1::1ff)"}},
        {Add("lan1", "", stateful + R"("dhcpiprange":[{"ipv6begin":"2001:db8:1:222::100","ipv6end":"2001:db8:1:222::1ff"}]})"), {},
         {s6 + "dhcpiprange[0].ipv6begin: \"2001:db8:1:222::100\" is 19 characters; dhcp.conf keeps range addresses of at most 18 (write it "
               "shorter, e.g. with more zero groups), so " + lost}},
        {Add("lan1", "", R"({"ipv6dynamicmode":"dhcp","dnsdynamicmode":"dhcp","prefixlength":64,"leasetime":2147483647,"dhcpiprange":[{"ipv6begin":"2001:db8:1::100","ipv6end":"2001:db8:1::1ff"}]})"),
         {}, {s6 + "leasetime: 2147483647 is stored in dhcp.conf as a number its reader refuses, so " + lost}},
        {Add("lan1", "", R"({"ipv6dynamicmode":"slaac","dnsdynamicmode":"dhcp","prefixlength":64,"prefix":"2001:db8:1::"})"), {},
         {s6 + "dhcpiprange: without a range dhcp.conf holds an empty range list, which its reader refuses, so " + lost}},
        // SLAAC keeps no DHCPv6 keys in dhcp.conf: nothing to warn about.
        {Add("lan1", "", slaac + "}"), {}},
        // dnsmasq reads lines of up to 1024 characters: 24 DNS servers of 39 characters fit, 25 do not.
        {Add("lan1", "", slaac + R"(,"dns":[)" + Many(24, longDns.c_str(), 0x1000) + "]}"), {}},
        {Add("lan1", "", slaac + R"(,"dns":[)" + Many(25, longDns.c_str(), 0x1000) + "]}"),
         {s6 + "dns: makes a dnsmasq line of 1055 characters; dnsmasq reads at most 1024 (give fewer entries)"}},
        {Add("lan1", R"({"mode":3,"dhcpserver":{"netmask":"255.255.255.0","leasetime":4294967295,"dhcpiprange":[)" +
                         Many(64, R"({"begin":"192.0.2.%zu","len":1})") + R"(],"dns":[)" + Many(64, R"("198.51.100.%zu")") + "]}}",
             R"({"ipv6dynamicmode":"dhcp","dnsdynamicmode":"dhcp","prefixlength":128,"leasetime":4294967295,"dhcpiprange":[)" +
                 Many(64, R"({"ipv6begin":"2001:db8:ffff:ffff:ffff:ffff:%zx:0","ipv6end":"2001:db8:ffff:ffff:ffff:ffff:%zx:1"})", 0x1000) + "]}"),
         {"request 0: item: the dnsmasq file of lan1 would be 11835 bytes; the module writes at most 10239 (give fewer pools or DNS servers)"},
         {s6 + "dhcpiprange[0].ipv6begin: \"2001:db8:ffff:ffff:ffff:ffff:1000:0\" is 35 characters; dhcp.conf keeps range addresses of at "
               "most 18 (write it shorter, e.g. with more zero groups), so " + lost}},
    };
    for (const auto &c : cases) {
        const auto requests = Parsed(File(c.requests));
        const auto report = kqagent::CheckRequests(requests, {}, false);
        EXPECT_EQ(report.errors, c.errors) << c.requests;
        EXPECT_EQ(report.warnings, c.warnings) << c.requests;
        // --strict: the warnings are errors.
        std::vector<std::string> strict = c.errors;
        strict.insert(strict.end(), c.warnings.begin(), c.warnings.end());
        auto strictReport = kqagent::CheckRequests(requests, {}, true);
        std::sort(strict.begin(), strict.end());
        std::sort(strictReport.errors.begin(), strictReport.errors.end());
        EXPECT_EQ(strictReport.errors, strict) << c.requests;
        EXPECT_TRUE(strictReport.warnings.empty());
    }
}

TEST(KqAgentChecks, SizesAreTheModulesOwnAndDhcpConfStaysLoadable)
{
    fakehost::Reset();
    fakehost::ClearRegistry();
    // What the module writes for a full server must be what the checks measure, byte for byte.
    const auto requests = Parsed(File(
        Add("lan1", Server4(R"("dhcpiprange":[{"begin":"192.0.2.100","len":50},{"begin":"192.0.2.200","len":1}],"gateway":"192.0.2.1","dns":["192.0.2.1","198.51.100.53"])"),
            R"({"ipv6dynamicmode":"both","dnsdynamicmode":"slaac","prefixlength":64,"prefix":"2001:db8:1::","leasetime":600,)"
            R"("dns":["2001:db8:1::1","2001:db8::53"],"dhcpiprange":[{"ipv6begin":"2001:db8:1::100","ipv6end":"2001:db8:1::1ff"}]})") +
        "," + Add("lan2", R"({"mode":2,"dhcprelay":{"relayserver":["203.0.113.2"],"lanip":"198.51.100.1"}})")));
    for (const auto &request : requests)
        ASSERT_EQ(KQCtrl_ConfigDynamicAdd(&request.Item()), 0);
    EXPECT_EQ(fakehost::ReadFile("/etc/vyr_dhcpd_lan1.conf"), kqagent::DnsmasqFileText(requests[0].Item()));
    const auto conf = fakehost::ReadFile(fakehost::Host().DhcpConfPath);
    ASSERT_TRUE(conf);
    EXPECT_EQ(kqagent::DhcpConfSize({&requests[0].Item(), &requests[1].Item()}), conf->size());
    EXPECT_EQ(kqagent::DhcpConfSize({}), std::string(R"({ "dhcps": [ ] })").size());
    fakehost::ClearRegistry();

    // dhcp.conf over what the loader reads: refused at the add that crosses the line, counting
    // what is configured already and what the same file deletes (a limit of three items here).
    const auto configured = Parsed(File(Add("l1", kServer4) + "," + Add("l2", kServer4)));
    kqagent::CheckLimits limits;
    limits.dhcpConf = kqagent::DhcpConfSize({&configured[0].Item(), &configured[1].Item(), &configured[0].Item()});
    const auto more = Parsed(File(Add("l3", kServer4) + "," + R"({"op":"delete","item":{"ifname":"l1"}},)" + Add("l4", kServer4) + "," + Add("l5", kServer4)));
    const auto four = Parsed(File(Add("l2", kServer4) + "," + Add("l3", kServer4) + "," + Add("l4", kServer4) + "," + Add("l5", kServer4)));
    const size_t size = kqagent::DhcpConfSize({&four[0].Item(), &four[1].Item(), &four[2].Item(), &four[3].Item()});
    EXPECT_EQ(kqagent::CheckRequests(more, configured, false, limits).errors,
              std::vector<std::string>{"request 3: item: dhcp.conf would grow to " + std::to_string(size) + " bytes (4 interfaces), over the " +
                                       std::to_string(limits.dhcpConf) + " the loader reads at start-up, so nothing would be restored after a restart"});
}

TEST(KqAgentPlan, EachRequestSaysWhatTheModuleWouldDo)
{
    fakehost::Reset();
    const std::string server = Server4(R"("dhcpiprange":[{"begin":"192.0.2.100","len":50}],"dns":["192.0.2.1"])");
    const std::string relay = R"({"mode":"relay","dhcprelay":{"relayserver":["203.0.113.2"],"lanip":"198.51.100.1"}})";
    const std::string slaac = R"({"ipv6dynamicmode":"slaac","dnsdynamicmode":"slaac","prefixlength":64,"prefix":"2001:db8:1::"})";
    const auto current = Parsed(File(Add("lan1", server) + "," + Add("lan2", relay) + "," +
                                     Add("lan4", Server4(R"("dhcpiprange":[{"begin":"192.0.2.100","len":50}],"dns":["192.0.2.4"])"))));
    const auto requests = Parsed(File(
        Add("lan1", server) + "," + Add("lan1", Server4(R"("dhcpiprange":[{"begin":"192.0.2.100","len":50}],"dns":["192.0.2.1"],"gateway":"192.0.2.1")")) +
        "," + Add("lan2", relay) + "," + Add("lan3", "", slaac) + "," + Add("lan4", Server4(R"("dhcpiprange":[{"begin":"192.0.2.100","len":50}])")) + "," +
        R"({"op":"delete","item":{"ifname":"lan2"}},{"op":"delete","item":{"ifname":"lan9"}},)" + Add("lan1", relay)));
    kqagent::DefaultDns defaults;
    defaults.ipv4 = [](const std::string &ifname) { return ifname == "lan4" ? std::optional<uint32_t>(0xC0000204u) : std::nullopt; };
    const std::string restart = "    shared relay rebuilt and restarted (lan2)";
    EXPECT_EQ(kqagent::PlanLines(current, requests, defaults),
              (std::vector<std::string>{
                  "[0] add lan1: server unchanged", restart, "[1] add lan1: server restart (ipv4 gateway differs)", restart,
                  "[2] add lan2: relay unchanged", "[3] add lan3: new server", restart,
                  "[4] add lan4: server unchanged", restart,  // the module fills in lan4's own address as its DNS server
                  "[5] delete lan2: relay removed", "    shared relay stopped (no relay interface left)",
                  "[6] delete lan9: not configured; nothing to stop", "[7] add lan1: server stop, new relay",
                  "    shared relay rebuilt and restarted (lan1)"}));

    // The same adds again change nothing.
    const auto same = Parsed(File(
        Add("lan1", Server4(R"("dhcpiprange":[{"begin":"192.0.2.100","len":50}],"dns":["192.0.2.1"],"gateway":"192.0.2.1")"),
            R"({"ipv6dynamicmode":"dhcp","dnsdynamicmode":"dhcp","prefixlength":64,"leasetime":7200,"dns":["2001:db8:1::1"],)"
            R"("dhcpiprange":[{"ipv6begin":"2001:db8:1::100","ipv6end":"2001:db8:1::1ff"}]})") + "," +
        Add("lan2", R"({"mode":"relay","dhcprelay":{"relayserver":["203.0.113.2","203.0.113.3"],"lanip":"198.51.100.1"}})") + "," +
        Add("lan3", "", R"({"ipv6dynamicmode":"slaac","dnsdynamicmode":"slaac","prefixlength":64,"prefix":"2001:db8:3::","dns":["2001:db8::53"]})") + "," +
        Add("lan5", "", R"({"ipv6dynamicmode":"both","dnsdynamicmode":"slaac","prefixlength":64,"prefix":"2001:db8:5::","leasetime":600,)"
                        R"("dns":["2001:db8::53"],"dhcpiprange":[{"ipv6begin":"2001:db8:5::100","ipv6end":"2001:db8:5::1ff"}]})")));
    EXPECT_EQ(kqagent::PlanLines(same, same, {}),
              (std::vector<std::string>{"[0] add lan1: server unchanged", restart, "[1] add lan2: relay unchanged",
                                        "[2] add lan3: server unchanged", restart, "[3] add lan5: server unchanged", restart}));

    // Each difference by its name: a pool with another end, another relay server, a family more.
    const auto changed = Parsed(File(
        Add("lan1", Server4(R"("dhcpiprange":[{"begin":"192.0.2.100","len":51}],"dns":["192.0.2.1"],"gateway":"192.0.2.1")"),
            R"({"ipv6dynamicmode":"dhcp","dnsdynamicmode":"dhcp","prefixlength":64,"leasetime":7200,"dns":["2001:db8:1::1"],)"
            R"("dhcpiprange":[{"ipv6begin":"2001:db8:1::100","ipv6end":"2001:db8:1::1ff"}]})") + "," +
        Add("lan2", R"({"mode":"relay","dhcprelay":{"relayserver":["203.0.113.2","203.0.113.4"],"lanip":"198.51.100.1"}})") + "," +
        Add("lan3", server, R"({"ipv6dynamicmode":"slaac","dnsdynamicmode":"slaac","prefixlength":64,"prefix":"2001:db8:3::","dns":["2001:db8::53"]})")));
    const std::string rebuilt = "    shared relay rebuilt and restarted (lan2)";
    EXPECT_EQ(kqagent::PlanLines(same, changed, {}),
              (std::vector<std::string>{"[0] add lan1: server restart (ipv4 dhcpiprange differs)", rebuilt,
                                        "[1] add lan2: relay changed (relayserver differs)", rebuilt,
                                        "[2] add lan3: server restart (served families ipv6 -> ipv4+ipv6, ipv4 dhcpiprange, ipv4 netmask, "
                                        "ipv4 dns, ipv4 leasetime differ)", rebuilt}));
}

}  // namespace
