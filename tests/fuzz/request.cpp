// Any bytes as a request: unpacked with protobuf-c into a DhcpItemV2, converted by both
// protobuf converters, then added twice (a change, then the unchanged path), switched
// through the IPv4 modes, and deleted through the entry points, against the fake host
// (commands recorded, files real).
#include <cstring>
#include <memory>

#include <json-c/json.h>

#include "fuzzcommon.h"

namespace {

// After a successful add or delete the live dhcp.conf must be a document with a "dhcps" array.
void Change(const char *Operation, KQ_ERR_T (*Apply)(const DhcpItemV2 *), const DhcpItemV2 *Msg)
{
    if (kqfuzz::CheckResult(Operation, Apply(Msg)) != 0)
        return;
    auto text = fakehost::ReadFile(fakehost::Host().DhcpConfPath);
    json_object *root = text ? json_tokener_parse(text->c_str()) : nullptr, *dhcps = nullptr;
    bool good = json_object_object_get_ex(root, "dhcps", &dhcps) && json_object_is_type(dhcps, json_type_array);
    json_object_put(root);
    if (!good)
        kqfuzz::Fail("dhcp.conf is no dhcps document after a successful change", 0);
    if (Apply == KQCtrl_ConfigDynamicDel && _KQCtrl_GetDynamicConfByName(Msg->ifname) != nullptr)
        kqfuzz::Fail("interface still registered after a successful delete", 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    std::unique_ptr<DhcpItemV2, void (*)(DhcpItemV2 *)> msg(
        dhcp_item_v2__unpack(nullptr, Size, Data), [](DhcpItemV2 *m) { dhcp_item_v2__free_unpacked(m, nullptr); });
    if (!msg)
        return 0;
    kqfuzz::BeginInput();
    // Some names belong to a LAN of a non-zero zone, so the namespace prefix is taken too.
    if (msg->ifname != nullptr && (Size & 1) != 0)
        fakehost::Host().LanVpnId[msg->ifname] = 7;
    KQ_CTRL_DYNAMIC_SERVER_CONF server;
    KQ_CTRL_DYNAMIC_RELAY_CONF relay;
    memset(&server, 0, sizeof(server));
    memset(&relay, 0, sizeof(relay));
    kqfuzz::CheckResult("KQCtrl_PbToConfDynamicServer", KQCtrl_PbToConfDynamicServer(msg.get(), &server));
    kqfuzz::CheckResult("KQCtrl_PbToConfDynamicRelay", KQCtrl_PbToConfDynamicRelay(msg.get(), &relay));
    Change("KQCtrl_ConfigDynamicAdd", KQCtrl_ConfigDynamicAdd, msg.get());
    Change("KQCtrl_ConfigDynamicAdd", KQCtrl_ConfigDynamicAdd, msg.get());
    // The same interface switched between off, relay and server: the transitions of an
    // existing node, with whatever the message carries for the other modes.
    if (msg->ipv4dhcpitem != nullptr) {
        const uint32_t mode = msg->ipv4dhcpitem->mode;
        for (uint32_t next : {uint32_t(KQ_DHCP_RELAY), uint32_t(KQ_DHCP_OFF), uint32_t(KQ_DHCP_SERVER), mode}) {
            msg->ipv4dhcpitem->mode = next;
            Change("KQCtrl_ConfigDynamicAdd", KQCtrl_ConfigDynamicAdd, msg.get());
        }
    }
    Change("KQCtrl_ConfigDynamicDel", KQCtrl_ConfigDynamicDel, msg.get());
    kqfuzz::EndInput();
    return 0;
}
