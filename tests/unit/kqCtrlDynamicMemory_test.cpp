// Long-lived agents add and delete interfaces for months: every node, text buffer, flex
// message and conf text the module takes from the host must come back, on every path.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "fakehost.h"
#include "kqCtrlDynamicInternal.h"
#include "relayTestItem.h"
#include "serverMsg.h"

namespace {

// KQ_MEMORY_CYCLES lowers the count where each cycle is slow (scripts/valgrind-unit): there
// the point is memcheck's verdict on every path, not the length of the run.
int Cycles()
{
    const char *text = getenv("KQ_MEMORY_CYCLES");
    int cycles = text != nullptr ? atoi(text) : 0;
    return cycles > 0 ? cycles : 10000;
}

const char *const kFiles[] = {
    "/etc/vyr_dhcpd_eth1.conf", "/etc/vyr_dhcpd_eth3.conf", "/etc/vyr_dhcpd_relay.conf",
    "/etc/kqagent/dhcp.conf",   "/etc/kqagent/dhcp.conf.bak",
};

class MemoryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fakehost::Reset();
        fakehost::ClearRegistry();
    }
    void TearDown() override
    {
        fakehost::ClearRegistry();
        for (const char *path : kFiles)
            std::remove(path);
    }
};

size_t RegistrySize()
{
    size_t n = 0;
    KQ_LIST_HEAD *head = KQCtrl_GetDynamiclistHead();
    for (KQ_LIST_HEAD *link = head->next; link != head; link = link->next)
        ++n;
    return n;
}

// One cycle touches each kind of node and each path that allocates: a dual-stack server
// added, changed and re-added unchanged, an IPv6-only server, a relay (flex message), a
// failed add that stops half-way, and the deletes that remove every node again.
void Cycle(int Round)
{
    // The fake host records every call; a fresh record per cycle keeps it small.
    fakehost::Reset();

    ServerMsg dual = ServerMsg::Ipv6(KQ_IPV6_BOTH, KQ_IPV6_SLAAC);
    ServerMsg v4 = ServerMsg::Ipv4();
    dual.V4Mode = KQ_DHCP_SERVER;
    dual.Pools = v4.Pools;
    dual.Netmask = v4.Netmask;
    dual.Lease = 3600 + Round % 2;  // every cycle a change against the last one
    dual.Dns = {servermsg::Ip4("192.0.2.53")};
    ServerMsg v6 = ServerMsg::Ipv6(KQ_IPV6_DHCP, KQ_IPV6_DHCP);
    v6.IfName = "eth3";
    relaytest::Item relay = relaytest::RelayItem("eth2", "198.51.100.1", {"203.0.113.10", "203.0.113.11"});

    ASSERT_EQ(0, KQCtrl_ConfigDynamicAdd(dual.Build()));
    ASSERT_EQ(0, KQCtrl_ConfigDynamicAdd(dual.Build()));
    dual.Lease += 10;
    ASSERT_EQ(0, KQCtrl_ConfigDynamicAdd(dual.Build()));
    ASSERT_EQ(0, KQCtrl_ConfigDynamicAdd(v6.Build()));
    ASSERT_EQ(0, KQCtrl_ConfigDynamicAdd(relay.get()));
    fakehost::Host().Fail["KQ_FileCopy"] = -EIO;
    ASSERT_EQ(-EIO, KQCtrl_ConfigDynamicAdd(relay.get()));
    fakehost::Host().Fail.clear();
    ASSERT_EQ(3u, RegistrySize());

    ASSERT_EQ(0, KQCtrl_ConfigDynamicDel(dual.Build()));
    ASSERT_EQ(0, KQCtrl_ConfigDynamicDel(v6.Build()));
    ASSERT_EQ(0, KQCtrl_ConfigDynamicDel(relay.get()));
    ASSERT_EQ(0u, RegistrySize());
}

TEST_F(MemoryTest, AddDeleteCyclesGiveEveryHostAllocationBack)
{
    const long before = fakehost::Host().LiveAllocations;
    long afterFirst = 0;
    for (int round = 0, cycles = Cycles(); round < cycles; ++round) {
        ASSERT_NO_FATAL_FAILURE(Cycle(round)) << "cycle " << round;
        if (round == 0)
            afterFirst = fakehost::Host().LiveAllocations;
        ASSERT_EQ(before, fakehost::Host().LiveAllocations) << "cycle " << round;
    }
    EXPECT_EQ(before, afterFirst);
    EXPECT_EQ("{ \"dhcps\": [ ] }", fakehost::ReadFile("/etc/kqagent/dhcp.conf").value_or("<missing>"));
}

TEST_F(MemoryTest, LoadAndClearGiveEveryHostAllocationBack)
{
    const long before = fakehost::Host().LiveAllocations;
    ServerMsg dual = ServerMsg::Ipv6(KQ_IPV6_DHCP, KQ_IPV6_DHCP);
    dual.V4Mode = KQ_DHCP_SERVER;
    dual.Pools = {{"192.0.2.100", 50}};
    dual.Netmask = servermsg::Ip4("255.255.255.0");
    dual.Lease = 600;
    dual.Dns = {servermsg::Ip4("192.0.2.53")};
    relaytest::Item relay = relaytest::RelayItem("eth2", "198.51.100.1", {"203.0.113.10"});
    ASSERT_EQ(0, KQCtrl_ConfigDynamicAdd(dual.Build()));
    ASSERT_EQ(0, KQCtrl_ConfigDynamicAdd(relay.get()));
    fakehost::ClearRegistry();
    ASSERT_EQ(before, fakehost::Host().LiveAllocations);

    for (int round = 0, rounds = Cycles() / 10; round < rounds; ++round) {
        fakehost::Reset();
        ASSERT_EQ(0, KQCtrl_LoadDynamicServiceConf("/etc/kqagent/dhcp.conf")) << "round " << round;
        ASSERT_EQ(2u, RegistrySize());
        fakehost::ClearRegistry();
        ASSERT_EQ(before, fakehost::Host().LiveAllocations) << "round " << round;
    }
}

}  // namespace
