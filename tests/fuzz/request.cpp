// Any bytes as a request: unpacked with protobuf-c into a DhcpItemV2, converted by both
// protobuf converters, then added twice (a change, then the unchanged path), switched
// through the IPv4 modes, and deleted through the entry points, against the fake host
// (commands recorded, files real).
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include <json-c/json.h>

#include "fuzzcommon.h"

namespace {

struct MessageFree {
    void operator()(DhcpItemV2 *Msg) const { dhcp_item_v2__free_unpacked(Msg, nullptr); }
};

// After a successful add or delete the live dhcp.conf must be a document with a "dhcps" array.
void CheckDocument()
{
    auto text = fakehost::ReadFile(fakehost::Host().DhcpConfPath);
    json_object *root = text ? json_tokener_parse(text->c_str()) : nullptr;
    json_object *dhcps = nullptr;
    bool good = root != nullptr && json_object_object_get_ex(root, "dhcps", &dhcps) &&
                json_object_get_type(dhcps) == json_type_array;
    json_object_put(root);
    if (!good) {
        fprintf(stderr, "dhcp.conf is not a dhcps document after a successful change\n");
        abort();
    }
}

void Add(const DhcpItemV2 *Msg)
{
    KQ_ERR_T ret = KQCtrl_ConfigDynamicAdd(Msg);
    kqfuzz::CheckResult("KQCtrl_ConfigDynamicAdd", ret);
    if (ret == 0)
        CheckDocument();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    std::unique_ptr<DhcpItemV2, MessageFree> msg(dhcp_item_v2__unpack(nullptr, Size, Data));
    if (!msg)
        return 0;

    kqfuzz::BeginInput();
    // Some names belong to a LAN of a non-zero zone, so the namespace prefix is taken too.
    if (msg->ifname != nullptr && (Size & 1) != 0)
        fakehost::Host().LanVpnId[msg->ifname] = 7;

    KQ_CTRL_DYNAMIC_SERVER_CONF server;
    memset(&server, 0, sizeof(server));
    kqfuzz::CheckResult("KQCtrl_PbToConfDynamicServer", KQCtrl_PbToConfDynamicServer(msg.get(), &server));
    KQ_CTRL_DYNAMIC_RELAY_CONF relay;
    memset(&relay, 0, sizeof(relay));
    kqfuzz::CheckResult("KQCtrl_PbToConfDynamicRelay", KQCtrl_PbToConfDynamicRelay(msg.get(), &relay));

    for (int round = 0; round < 2; ++round)
        Add(msg.get());
    // The same interface switched between off, relay and server: the transitions of an
    // existing node, with whatever the message carries for the other modes.
    if (msg->ipv4dhcpitem != nullptr) {
        const uint32_t mode = msg->ipv4dhcpitem->mode;
        for (uint32_t next : {KQ_DHCP_RELAY, KQ_DHCP_OFF, KQ_DHCP_SERVER}) {
            msg->ipv4dhcpitem->mode = next;
            Add(msg.get());
        }
        msg->ipv4dhcpitem->mode = mode;
        Add(msg.get());
    }
    KQ_ERR_T ret = KQCtrl_ConfigDynamicDel(msg.get());
    kqfuzz::CheckResult("KQCtrl_ConfigDynamicDel", ret);
    if (ret == 0) {
        CheckDocument();
        if (_KQCtrl_GetDynamicConfByName(msg->ifname) != nullptr) {
            fprintf(stderr, "interface %s still registered after a successful delete\n", msg->ifname);
            abort();
        }
    }
    kqfuzz::EndInput();
    return 0;
}
