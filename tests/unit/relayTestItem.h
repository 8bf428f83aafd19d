// A DhcpItemV2 for the relay tests, owning everything its pointers reach.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "fakehost.h"
#include "kqCtrlDynamic.h"

namespace relaytest {

inline constexpr char kConfPath[] = "/etc/vyr_dhcpd_relay.conf";
inline constexpr char kPidPath[] = "/var/run/vyr_dhcpd_relay.pid";
inline constexpr char kStartCmd[] =
    "/usr/sbin/dnsmasq -K --conf-file=/etc/vyr_dhcpd_relay.conf --port=0 "
    "--pid-file=/var/run/vyr_dhcpd_relay.pid -z";

struct Item {
    std::string IfName;
    uint32_t Mode = KQ_DHCP_RELAY;
    uint32_t LanIp = 0;
    std::vector<uint32_t> Servers;
    bool HasIpv4 = true;
    bool HasRelay = true;

    DhcpItemV2 Msg = DHCP_ITEM_V2__INIT;
    Ipv4DhcpItem Ipv4 = IPV4_DHCP_ITEM__INIT;
    Ipv4DhcpRelay Relay = IPV4_DHCP_RELAY__INIT;

    // Wires the message to the fields above; call after changing them.
    const DhcpItemV2 *get()
    {
        Msg.ifname = IfName.data();
        Msg.ipv4dhcpitem = HasIpv4 ? &Ipv4 : nullptr;
        Ipv4.mode = Mode;
        Ipv4.dhcprelay = HasRelay ? &Relay : nullptr;
        Relay.lanip = LanIp;
        Relay.n_relayserver = Servers.size();
        Relay.relayserver = Servers.data();
        return &Msg;
    }
};

inline Item RelayItem(const char *IfName, const char *LanIp, std::vector<const char *> Servers)
{
    Item item;
    item.IfName = IfName;
    item.LanIp = fakehost::Ip4(LanIp);
    for (const char *s : Servers)
        item.Servers.push_back(fakehost::Ip4(s));
    return item;
}

inline Item ModeItem(const char *IfName, uint32_t Mode)
{
    Item item;
    item.IfName = IfName;
    item.Mode = Mode;
    item.HasRelay = false;
    return item;
}

// The messages without the flex-log dump lines that follow each error.
inline std::vector<std::string> Lines()
{
    std::vector<std::string> out;
    for (const auto &m : fakehost::Messages())
        if (m.rfind("dump flexlog:", 0) != 0)
            out.push_back(m);
    return out;
}

// Only the error lines (level 4), without their dumps.
inline std::vector<std::string> ErrorLines()
{
    std::vector<std::string> out;
    for (const auto &l : fakehost::Host().Logs) {
        size_t pos = l.Text.find("] ");
        std::string m = pos == std::string::npos ? l.Text : l.Text.substr(pos + 2);
        if (l.Level == 4 && m.rfind("dump flexlog:", 0) != 0)
            out.push_back(m);
    }
    return out;
}

inline void RemoveRelayFiles()
{
    std::remove(kConfPath);
    std::remove(kPidPath);
}

}  // namespace relaytest
