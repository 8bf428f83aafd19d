// kqagent's pure parts: each command line against the verb table (what it parses into, or
// the exact usage problem), the lease files status reads, and the DRIFT lines it judges from
// what runs.
#include <gtest/gtest.h>

#include <json-c/json.h>

#include <sstream>

#include "kqAgentDrift.h"
#include "kqAgentLeases.h"
#include "kqAgentVerbs.h"

namespace kqagent {
// A cause as a failing expectation shows it.
void PrintTo(const Cause &cause, std::ostream *out) { *out << cause.code << ": " << cause.text; }
}  // namespace kqagent

namespace {

using namespace kqagent;
using Args = std::vector<std::string>;

TEST(AgentVerbs, EveryVerbParsesItsArgumentsAndOptions)
{
    const struct {
        Args Argv;
        Args Positional;
        std::set<std::string> Flags;
        std::map<std::string, std::string> Values;
    } cases[] = {
        {{"serve"}, {}, {}, {}},
        {{"apply", "r.json"}, {"r.json"}, {}, {}},
        {{"apply", "--dry-run", "r.json", "--strict"}, {"r.json"}, {"--dry-run", "--strict"}, {}},
        {{"check", "--strict", "r.json"}, {"r.json"}, {"--strict"}, {}},
        {{"plan", "r.json", "--strict"}, {"r.json"}, {"--strict"}, {}},
        {{"load"}, {}, {}, {}},
        {{"load", "--dhcp.conf.bak"}, {"--dhcp.conf.bak"}, {}, {}},  // a path as it is
        {{"client", "enable", "ipv6", "lan1", "--zone", "7", "--type", "stateless", "--rs"},
         {"enable", "ipv6", "lan1"}, {"--rs"}, {{"--zone", "7"}, {"--type", "stateless"}}},
        {{"client", "--zone", "1", "disable", "--zone", "2", "ipv4", "lan1"}, {"disable", "ipv4", "lan1"}, {}, {{"--zone", "2"}}},
        {{"client", "enable", "ipv4", "lan1", "--zone", "--rs"}, {"enable", "ipv4", "lan1"}, {}, {{"--zone", "--rs"}}},
        {{"rs", "lan1", "--zone", "0"}, {"lan1"}, {}, {{"--zone", "0"}}},
        {{"status"}, {}, {}, {}},
        {{"status", "lan1", "--json", "lan2"}, {"lan1", "lan2"}, {"--json"}, {}},
        {{"help", "apply", "--help"}, {"apply", "--help"}, {}, {}},
    };
    for (const auto &c : cases) {
        Invocation invocation;
        std::ostringstream err;
        ASSERT_EQ(ParseInvocation(c.Argv, invocation, err), kExitOk) << c.Argv[0] << ": " << err.str();
        EXPECT_EQ(invocation, (Invocation{FindVerb(c.Argv[0]), c.Positional, c.Flags, c.Values})) << c.Argv.back();
        EXPECT_EQ(err.str(), "");
    }
}

TEST(AgentVerbs, AWrongCommandLineIsToldWhereItsHelpIs)
{
    const struct { Args Argv; const char *Problem, *Try; } cases[] = {
        {{}, "no command", ""},
        {{"nope"}, "no such command: nope", ""},
        {{"serve", "--x"}, "serve takes no arguments", "serve"},
        {{"apply"}, "apply needs a request file", "apply"},
        {{"apply", "--strict"}, "apply needs a request file", "apply"},
        {{"apply", "a.json", "b.json"}, "apply takes one request file", "apply"},
        {{"apply", "a.json", "b.json", "--bogus"}, "apply: unknown option --bogus", "apply"},
        {{"apply", "--json", "a.json"}, "apply: unknown option --json", "apply"},
        {{"check", "--dry-run", "a.json"}, "check: unknown option --dry-run", "check"},
        {{"plan", "a.json", "b.json"}, "plan takes one request file", "plan"},
        {{"load", "a", "b"}, "load takes at most one path", "load"},
        {{"client", "enable", "ipv4"}, "client needs: enable|disable ipv4|ipv6 IFNAME", "client"},
        {{"client", "enable", "ipv4", "lan1", "lan2"}, "client needs: enable|disable ipv4|ipv6 IFNAME", "client"},
        {{"client", "enable", "ipv4", "lan1", "--type"}, "client: --type needs a value", "client"},
        {{"client", "-x"}, "client: unknown option -x", "client"},
        {{"rs"}, "rs needs an interface", "rs"},
        {{"rs", "lan1", "lan2"}, "rs takes one interface", "rs"},
        {{"rs", "lan1", "--zone"}, "rs: --zone needs a value", "rs"},
        {{"status", "-"}, "status: unknown option -", "status"},
    };
    for (const auto &c : cases) {
        Invocation invocation;
        std::ostringstream err;
        EXPECT_EQ(ParseInvocation(c.Argv, invocation, err), kExitUsage);
        EXPECT_EQ(err.str(), "kqagent: " + std::string(c.Problem) + "\ntry 'kqagent help" + (*c.Try ? " " : "") + c.Try + "'\n");
    }
}

TEST(AgentVerbs, HelpComesFromTheTable)
{
    const std::string usage = UsageText();
    EXPECT_EQ(usage.rfind("usage: kqagent [--config FILE] [-v|-q] COMMAND [ARGS]\n", 0), 0u);
    // A synopsis that fits leaves the summary in its column; a longer one puts it below.
    EXPECT_NE(usage.find("\n  plan FILE               what apply would do"), std::string::npos);
    EXPECT_NE(usage.find("\n  status [--json] [IFNAME...]\n                          configuration, processes"), std::string::npos);
    for (const char *name : {"serve", "apply", "check", "plan", "load", "client", "rs", "status", "help"}) {
        const Verb *verb = FindVerb(name);
        ASSERT_NE(verb, nullptr) << name;
        EXPECT_EQ(std::string(verb->help).rfind("usage: kqagent " + std::string(name) + (verb->maxArgs ? " " : "\n"), 0), 0u);
        EXPECT_NE(usage.find("\n  " + std::string(verb->synopsis)), std::string::npos) << name;
    }

    const struct { Args Argv; int Exit; std::string Out, Err; } cases[] = {
        {{"help"}, kExitOk, usage, ""},
        {{"help", "rs"}, kExitOk, FindVerb("rs")->help, ""},
        {{"help", "help"}, kExitOk, FindVerb("help")->help, ""},
        {{"help", "--help"}, kExitUsage, "", "kqagent: no such command: --help\ntry 'kqagent help'\n"},
    };
    for (const auto &c : cases) {
        Invocation invocation;
        std::ostringstream out, err;
        ASSERT_EQ(ParseInvocation(c.Argv, invocation, err), kExitOk);
        EXPECT_EQ(RunHelp(VerbCall{invocation, "", out, err, nullptr}), c.Exit);
        EXPECT_EQ(out.str(), c.Out);
        EXPECT_EQ(err.str(), c.Err);
    }
}

std::string Plain(json_object *object)
{
    const std::string text = json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    json_object_put(object);
    return text;
}

TEST(AgentLeases, DnsmasqLinesBecomeLeasesAndTheRestIsSkipped)
{
    EXPECT_EQ(Plain(ParseDnsmasqLeases("1999999999 52:54:00:00:00:01 192.0.2.101 host1 01:52:54:00:00:00:01\n"
                                       "0 52:54:00:00:00:02 192.0.2.102 * *\n"
                                       "duid 00:01:00:01:2c:5b:a1:00:52:54:00:00:00:01\n"
                                       "1999999999 1234 2001:db8:1::1001 * 00:01:00:01\n"
                                       "garbage\n"
                                       "17 52:54:00:00:00:03\n")),
              R"([{"address":"192.0.2.101","expires":1999999999,"hwaddr":"52:54:00:00:00:01","hostname":"host1",)"
              R"("clientId":"01:52:54:00:00:00:01"},{"address":"192.0.2.102","expires":0,"hwaddr":"52:54:00:00:00:02"},)"
              R"({"address":"2001:db8:1::1001","expires":1999999999,"iaid":"1234","clientId":"00:01:00:01"}])");
    EXPECT_EQ(Plain(ParseDnsmasqLeases("")), "[]");
}

TEST(AgentLeases, DhclientShowsItsNewestLease)
{
    const char *v4 = "lease {\n  interface \"lan1\";\n  fixed-address 192.0.2.50;\n  expire 4 2030/01/01 00:00:00;\n}\n"
                     "lease {\n  interface \"lan1\";\n  fixed-address 192.0.2.51;\n  option subnet-mask 255.255.255.0;\n"
                     "  expire 5 2030/01/02 00:00:00;\n}\n";
    const char *v6 = "default-duid \"\\000\\001\";\n"
                     "lease6 {\n  ia-na 1a2b3c4d {\n    iaaddr 2001:db8:1::40 {\n      starts 1600000000;\n    }\n  }\n}\n"
                     "lease6 {\n  interface \"lan1\";\n  ia-na 1a2b3c4d {\n    starts 1700000000;\n    renew 1800;\n"
                     "    iaaddr 2001:db8:1::50 {\n      starts 1700000001;\n      preferred-life 2700;\n      max-life 3600;\n    }\n"
                     "    iaaddr 2001:db8:1::51 {\n      max-life 7200;\n    }\n  }\n}\n";
    const struct { const char *Text; bool Ipv6; const char *Leases; } cases[] = {
        {v4, false, R"([{"address":"192.0.2.51","expire":"5 2030/01/02 00:00:00"}])"},
        {"lease {\n  interface \"lan1\";\n}\n", false, "[]"},
        {v6, false, "[]"},
        {v6, true, R"([{"address":"2001:db8:1::50","starts":1700000001,"maxLife":3600},{"address":"2001:db8:1::51","maxLife":7200}])"},
        {v4, true, "[]"},
        {"", true, "[]"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(Plain(ParseDhclientLeases(c.Text, c.Ipv6)), c.Leases) << c.Text;
}

// The desired entry of one item as the desired state holds it ("" : an entry that cannot be used).
DesiredEntry Entry(const std::string &item)
{
    if (item.empty())
        return DesiredEntry{"lan1", "", std::nullopt, "interfaces[0].ipv4dhcpitem.mode: missing (required)"};
    const ParsedRequests parsed = ParseRequests(R"({"requests":[{"op":"add","item":)" + item + "}]}");
    EXPECT_TRUE(parsed.Ok()) << parsed.error;
    return DesiredEntry{"lan1", item, parsed.requests.at(0), ""};
}

std::string Replace(std::string text, const std::string &from, const std::string &to)
{
    return text.replace(text.find(from), from.size(), to);
}

std::vector<std::string> Texts(const std::vector<Cause> &causes)
{
    std::vector<std::string> texts;
    for (const auto &cause : causes)
        texts.push_back(cause.text);
    return texts;
}

const char kPool4[] = R"("ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.100","len":20}],"netmask":"255.255.255.0","leasetime":3600}})";
const char kStateful6[] = R"("ipv6dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"ipv6begin":"2001:db8:1::1000","ipv6end":"2001:db8:1::1fff"}],)"
                          R"("prefixlength":64,"leasetime":3600,"ipv6dynamicmode":"dhcp","dnsdynamicmode":"dhcp"}})";
const char kSlaac6[] = R"("ipv6dhcpitem":{"mode":"server","dhcpserver":{"prefix":"2001:db8:1::","prefixlength":64,)"
                       R"("ipv6dynamicmode":"slaac","dnsdynamicmode":"slaac"}})";
const char kRelay4[] = R"("ipv4dhcpitem":{"mode":"relay","dhcprelay":{"relayserver":["198.51.100.2"],"lanip":"198.51.100.12"}})";

std::string Item(const std::string &parts) { return R"({"ifname":"lan1",)" + parts + "}"; }

// The module's dnsmasq lines of lan1, by what they serve.
const char kConf4[] = "dhcp-range=lan1,192.0.2.100,192.0.2.119,255.255.255.0,3600\n";
const char kConfStateful[] = "dhcp-range=2001:db8:1::1000, 2001:db8:1::1fff, 64, 3600\n";
const char kConfRaOnly[] = "dhcp-range=2001:db8:1::, ra-only\n";
const char kConfStateless[] = "dhcp-range=2001:db8:1::, ra-stateless\n";

TEST(AgentDrift, EachDifferenceFromTheDesiredStateIsOneLine)
{
    const DesiredEntry server = Entry(Item(std::string(kPool4) + "," + kStateful6)), slaac = Entry(Item(kSlaac6)),
                       relay = Entry(Item(kRelay4)), unusable = Entry("");
    const DesiredClient client4{"lan1", false, 0, "", false}, stateful6{"lan1", true, 0, "stateful", false},
        slaac6{"lan1", true, 0, "slaac", false};
    auto running = [](const std::string &conf, std::optional<bool> inZone = true) {
        return InterfaceFacts{"lan1", 7, true, true, inZone, conf};
    };
    const InterfaceFacts stopped{"lan1", 7, true}, notConfigured{"lan1", 7, false};
    const RelayFacts relayHolds{true, "dhcp-relay=198.51.100.12,198.51.100.2\n"},
        relayOther{true, "dhcp-relay=198.51.100.129,198.51.100.2\n"}, relayStopped{false, relayHolds.conf};
    const std::string both = std::string(kConf4) + kConfStateful;
    const struct {
        Wanted Want;
        InterfaceFacts Facts;
        RelayFacts Relay;
        std::vector<std::string> Drift;
    } cases[] = {
        {{}, running(both), {}, {"in dhcp.conf but not in the desired state"}},
        {{}, notConfigured, {}, {}},
        {{&unusable}, running(both), {}, {"desired entry cannot be used: interfaces[0].ipv4dhcpitem.mode: missing (required)"}},
        {{&server}, running(both), {}, {}},
        {{&server}, running(both, std::nullopt), {}, {}},
        {{&server}, running(both, false), {}, {"dnsmasq runs outside the namespace of zone 7"}},
        {{&server}, stopped, {}, {"dnsmasq is not running"}},
        {{&server}, notConfigured, {}, {"not in dhcp.conf", "dnsmasq is not running"}},
        {{&server}, running(kConfStateful), {}, {"IPv4 not served, desired server"}},
        {{&server}, running(std::string(kConf4) + kConfRaOnly), {}, {"IPv6 serves SLAAC, desired stateful DHCPv6"}},
        {{&server}, running(kConfStateless), {}, {"IPv4 not served, desired server", "IPv6 serves stateless DHCPv6, desired stateful DHCPv6"}},
        {{&slaac}, running(std::string(kConf4) + kConfRaOnly, false),
         {}, {"dnsmasq runs outside the namespace of zone 7", "IPv4 served, desired off"}},
        {{&slaac}, running(kConf4), {}, {"IPv4 served, desired off", "IPv6 serves none, desired SLAAC"}},
        {{&relay}, stopped, relayHolds, {}},
        {{&relay}, stopped, relayOther, {"not in the shared relay"}},
        {{&relay}, notConfigured, relayStopped, {"not in dhcp.conf", "relay dnsmasq is not running"}},
        // Clients after the server; a SLAAC client has no dhclient to miss.
        {{nullptr, {&client4, &stateful6}}, notConfigured, {}, {"dhclient is not running", "dhclient6 is not running"}},
        {{nullptr, {nullptr, &slaac6}}, notConfigured, {}, {}},
        {{&unusable, {&client4}}, stopped, {}, {"desired entry cannot be used: interfaces[0].ipv4dhcpitem.mode: missing (required)",
                                                "dhclient is not running"}},
    };
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(Texts(Drift(cases[i].Want, cases[i].Facts, cases[i].Relay)), cases[i].Drift) << "case " << i;
    InterfaceFacts clientsRun = notConfigured;
    clientsRun.dhclientRunning[0] = clientsRun.dhclientRunning[1] = true;
    EXPECT_EQ(Texts(Drift({nullptr, {&client4, &stateful6}}, clientsRun, {})), std::vector<std::string>{});
}

// Whether a client on the LAN can be served: the interface where its dnsmasq runs, the
// addresses it holds for the pools and prefixes, the sockets its dnsmasq holds, the relay's
// LAN address. Each cause is one code and one line that says what a client sees.
TEST(AgentDrift, ALanThatCannotServeItsClientsSaysWhy)
{
    const std::string twoPools = R"("ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.10","len":10},)"
                                 R"({"begin":"192.0.2.200","len":20}],"netmask":"255.255.255.0","leasetime":3600}})";
    const DesiredEntry server = Entry(Item(std::string(kPool4) + "," + kStateful6)), slaac = Entry(Item(kSlaac6)),
                       pools = Entry(Item(twoPools)), relay = Entry(Item(kRelay4));
    const std::string both = std::string(kConf4) + kConfStateful + "enable-ra\nra-param=lan1,10\n";
    const std::string slaacConf = std::string(kConfRaOnly) + "enable-ra\nra-param=lan1,10\n";
    const DnsmasqSockets all{true, true, true};
    const LinkFacts served{true, true, {"192.0.2.1/24", "2001:db8:1::1/64"}};
    auto lan = [](std::string conf, std::optional<LinkFacts> link, std::optional<DnsmasqSockets> sockets) {
        InterfaceFacts facts{"lan1", 7, true, !conf.empty(), true, std::move(conf)};
        facts.link = facts.relayLink = std::move(link);
        facts.sockets = sockets;
        return facts;
    };
    const RelayFacts relayRuns{true, "dhcp-relay=198.51.100.12,198.51.100.2\n", all};
    const std::string noAnswer = ": clients get no answer";
    const struct {
        const DesiredEntry *Want;
        InterfaceFacts Facts;
        RelayFacts Relay;
        std::vector<Cause> Drift;
    } cases[] = {
        {&server, lan(both, served, all), {}, {}},
        // Nothing can be told: no drift is made up.
        {&server, lan(both, std::nullopt, std::nullopt), {}, {}},
        {&server, lan(both, LinkFacts{}, all), {}, {{"no-interface", "lan1 does not exist in the namespace of zone 7" + noAnswer}}},
        {&server, lan(both, LinkFacts{true, false, served.addresses}, all), {}, {{"interface-down", "lan1 is down" + noAnswer}}},
        {&server, lan(both, LinkFacts{true, true, {}}, all), {},
         {{"no-ipv4-address", "lan1 holds no IPv4 address in 192.0.2.0/24" + noAnswer},
          {"no-ipv6-address", "lan1 holds no IPv6 address in 2001:db8:1::/64: clients get no IPv6 address"}}},
        {&server, lan(both, LinkFacts{true, true, {"198.51.100.1/24", "2001:db8:1::1/64", "2001:db8:9::1/64"}}, all), {},
         {{"no-ipv4-address", "lan1 holds no IPv4 address in 192.0.2.0/24 (it holds 198.51.100.1/24)" + noAnswer}}},
        {&server, lan(both, LinkFacts{true, true, {"192.0.2.1/24", "2001:db8:9::1/64", "2001:db8:1::1/48"}}, all), {}, {}},
        {&server, lan(both, LinkFacts{true, true, {"192.0.2.1/24", "2001:db8:9::1/64"}}, all), {},
         {{"no-ipv6-address", "lan1 holds no IPv6 address in 2001:db8:1::/64 (it holds 2001:db8:9::1/64): clients get no IPv6 address"}}},
        // The interface's own subnet must hold the whole pool, as dnsmasq asks.
        {&server, lan(both, LinkFacts{true, true, {"192.0.2.129/25", "2001:db8:1::1/64"}}, all), {},
         {{"pool-outside-subnet", "pool 192.0.2.100-192.0.2.119 lies outside the subnets of lan1 (192.0.2.128/25)" + noAnswer}}},
        {&pools, lan(kConf4, LinkFacts{true, true, {"192.0.2.1/25", "192.0.2.129/26"}}, all), {},
         {{"pool-outside-subnet", "pool 192.0.2.200-192.0.2.219 lies outside the subnets of lan1 (192.0.2.0/25, 192.0.2.128/26): "
                                  "clients get no address from it"}}},
        {&pools, lan(kConf4, LinkFacts{true, true, {"192.0.2.100/30"}}, all), {},
         {{"pool-outside-subnet", "pool 192.0.2.10-192.0.2.19 lies outside the subnets of lan1 (192.0.2.100/30)" + noAnswer},
          {"pool-outside-subnet", "pool 192.0.2.200-192.0.2.219 lies outside the subnets of lan1 (192.0.2.100/30)" + noAnswer}}},
        // Sockets: only those its file asks for; a family it does not serve is told once.
        {&server, lan(both, served, DnsmasqSockets{}), {},
         {{"no-dhcpv4-socket", "lan1's dnsmasq holds no DHCPv4 socket (UDP 67)" + noAnswer},
          {"no-dhcpv6-socket", "lan1's dnsmasq holds no DHCPv6 socket (UDP 547): clients get no DHCPv6 answer"},
          {"no-icmpv6-socket", "lan1's dnsmasq holds no ICMPv6 socket: clients get no router advertisement"}}},
        {&server, lan(std::string(kConf4) + kConfStateful, served, DnsmasqSockets{true, true, false}), {}, {}},
        {&server, lan(kConfStateful, served, DnsmasqSockets{false, true, true}), {},
         {{"ipv4-differs", "IPv4 not served, desired server"}}},
        {&slaac, lan(slaacConf, served, DnsmasqSockets{false, false, true}), {}, {}},
        {&slaac, lan(slaacConf, served, DnsmasqSockets{true, true, false}), {},
         {{"no-icmpv6-socket", "lan1's dnsmasq holds no ICMPv6 socket: clients get no router advertisement"}}},
        {&slaac, lan(kConfStateless, LinkFacts{true, true, {"2001:db8:1::1/64"}}, all), {},
         {{"ipv6-differs", "IPv6 serves stateless DHCPv6, desired SLAAC"}}},
        {&server, lan("", LinkFacts{}, std::nullopt), {},
         {{"dnsmasq-not-running", "dnsmasq is not running"},
          {"no-interface", "lan1 does not exist in the namespace of zone 7" + noAnswer}}},
        // The relay LAN is looked for where the relay runs, and must hold its LAN address.
        {&relay, lan("", LinkFacts{true, true, {"198.51.100.12/25"}}, std::nullopt), relayRuns, {}},
        {&relay, lan("", LinkFacts{true, true, {"198.51.100.1/25", "198.51.100.120/25"}}, std::nullopt), relayRuns,
         {{"no-relay-address", "lan1 does not hold its relay address 198.51.100.12" + noAnswer}}},
        {&relay, lan("", LinkFacts{}, std::nullopt), relayRuns,
         {{"no-interface", "lan1 does not exist in the namespace of zone 0" + noAnswer}}},
        {&relay, lan("", LinkFacts{true, false, {"198.51.100.12/25"}}, std::nullopt), {false, relayRuns.conf},
         {{"relay-not-running", "relay dnsmasq is not running"}, {"interface-down", "lan1 is down" + noAnswer}}},
        {&relay, lan("", LinkFacts{true, true, {"198.51.100.12/25"}}, std::nullopt), {true, relayRuns.conf, DnsmasqSockets{}},
         {{"no-relay-socket", "the relay dnsmasq holds no DHCPv4 socket (UDP 67)" + noAnswer}}},
    };
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(Drift({cases[i].Want}, cases[i].Facts, cases[i].Relay), cases[i].Drift) << "case " << i;
}

TEST(AgentDrift, SummariesSayWhatIsWantedAndWhatIsServed)
{
    EXPECT_EQ(DesiredSummary(Entry(Item(std::string(kPool4) + "," + kStateful6)), 7), "ipv4 server, ipv6 stateful DHCPv6, zone 7");
    EXPECT_EQ(DesiredSummary(Entry(Item(kRelay4)), 0), "ipv4 relay, zone 0");
    EXPECT_EQ(DesiredSummary(Entry(Item(R"("ipv4dhcpitem":{"mode":"off"})")), 0), "ipv4 off, zone 0");
    EXPECT_EQ(DesiredSummary(Entry(Item(R"("ipv6dhcpitem":{"mode":"relay"})")), 3), "nothing served, zone 3");
    EXPECT_EQ(DesiredSummary(Entry(""), 0), "unusable entry");
    // Each pair of dynamic modes names its service; an IPv6 item turned off serves nothing,
    // whatever server settings it keeps.
    const std::string stateless = R"("ipv6dhcpitem":{"mode":"server","dhcpserver":{"prefix":"2001:db8:1::","prefixlength":64,)"
                                  R"("ipv6dynamicmode":"slaac","dnsdynamicmode":"dhcp"}})";
    EXPECT_EQ(DesiredSummary(Entry(Item(stateless)), 0), "ipv6 stateless DHCPv6, zone 0");
    EXPECT_EQ(DesiredSummary(Entry(Item(std::string(kPool4) + "," + Replace(kStateful6, "\"server\"", "\"off\""))), 0),
              "ipv4 server, zone 0");

    const struct { InterfaceFacts Facts; const char *Served; } cases[] = {
        {{"lan1", 7, true}, "no dnsmasq of its own"},
        {{"lan1", 7, true, true, true, std::string(kConf4) + kConfStateful}, "ipv4 server, ipv6 stateful DHCPv6, in the namespace of zone 7"},
        {{"lan1", 7, true, true, false, kConfStateless}, "ipv6 stateless DHCPv6, outside the namespace of zone 7"},
        {{"lan10", 0, true, true, std::nullopt, kConf4}, "namespace unknown"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(ServedSummary(c.Facts), c.Served);
}

}  // namespace
