// The registry: one record per configured interface, in the order they were added,
// holding its server and relay halves.
#include <errno.h>
#include <stddef.h>
#include <string.h>

#include <json-c/json.h>
#include <json-c/linkhash.h>

#include <memory>

#include "kqCtrlDynamicInternal.h"
#include "kqCtrlDynamicLog.h"
#include "kqCtrlDynamicUtil.h"

namespace {

KQ_LIST_HEAD sg_KqCtrlDynamicHead = {&sg_KqCtrlDynamicHead, &sg_KqCtrlDynamicHead};

void KQ_InitListHead(KQ_LIST_HEAD *Head)
{
    Head->next = Head;
    Head->prev = Head;
}

void KQ_ListAddTail(KQ_LIST_HEAD *Entry, KQ_LIST_HEAD *Head)
{
    KQ_LIST_HEAD *last = Head->prev;
    Entry->next = Head;
    Entry->prev = last;
    last->next = Entry;
    Head->prev = Entry;
}

void KQ_ListDelInit(KQ_LIST_HEAD *Entry)
{
    Entry->prev->next = Entry->next;
    Entry->next->prev = Entry->prev;
    KQ_InitListHead(Entry);
}

KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *NodeOf(KQ_LIST_HEAD *Link)
{
    return reinterpret_cast<KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *>(reinterpret_cast<char *>(Link) -
                                                                 offsetof(KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE, List));
}

KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *ScanForNode(const char *IfName)
{
    for (KQ_LIST_HEAD *link = sg_KqCtrlDynamicHead.next; link != &sg_KqCtrlDynamicHead; link = link->next)
        if (strcmp(NodeOf(link)->DynamicConf.IfName, IfName) == 0)
            return NodeOf(link);
    return nullptr;
}

// A record's node with what the module keeps beside it. The node comes first, so a node's
// address is its wrapper's: every node of the list was allocated here.
struct KeptNode {
    KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE Node;
    json_object *ItemText;  // owned; see _KQCtrl_DynamicConfItemText
    bool Relay;             // its relay half was on at the last count
};
static_assert(offsetof(KeptNode, Node) == 0, "a node's address is its wrapper's");

KeptNode *KeptOf(const KQ_CTRL_DYNAMIC_SERVICE_CONF *Conf)
{
    return reinterpret_cast<KeptNode *>(const_cast<char *>(reinterpret_cast<const char *>(Conf)) -
                                        offsetof(KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE, DynamicConf));
}

struct LhTableFree {
    void operator()(lh_table *Table) const { lh_table_free(Table); }
};
using LhTable = std::unique_ptr<lh_table, LhTableFree>;

// Lookups by name without walking thousands of records: json-c's hash table from a node's
// own name to the first node of that name. It is derived from the list alone, so it is
// dropped whenever it cannot be kept exactly (no memory, a name inserted twice and then
// deleted) and built again at the next lookup; without it lookups walk the list.
LhTable s_ByName;
size_t s_SameNames = 0;  // inserts that found their name already there
size_t s_Count = 0;      // records in the list

bool IndexNode(lh_table *Index, KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *Node)
{
    if (lh_table_lookup_entry(Index, Node->DynamicConf.IfName) != nullptr) {
        ++s_SameNames;
        return true;
    }
    return lh_table_insert(Index, Node->DynamicConf.IfName, Node) == 0;
}

lh_table *Index()
{
    if (s_ByName)
        return s_ByName.get();
    LhTable index(lh_kchar_table_new(64, nullptr));
    s_SameNames = 0;
    for (KQ_LIST_HEAD *link = sg_KqCtrlDynamicHead.next; index && link != &sg_KqCtrlDynamicHead; link = link->next)
        if (!IndexNode(index.get(), NodeOf(link)))
            return nullptr;
    s_ByName = std::move(index);
    return s_ByName.get();
}

// Records the rendering of dhcp.conf must compare with what it printed last: those that a
// lookup or an insert handed out since (the registry's pointers are writable), by address.
// Without memory for that, every record counts as changed until the next rendering.
LhTable s_Handed;
bool s_AllHanded = true;

void Handed(const KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *Node)
{
    if (s_AllHanded)
        return;
    if (!s_Handed)
        s_Handed.reset(lh_kptr_table_new(16, nullptr));
    if (!s_Handed || (lh_table_lookup_entry(s_Handed.get(), Node) == nullptr &&
                      lh_table_insert(s_Handed.get(), Node, nullptr) != 0)) {
        s_AllHanded = true;
        s_Handed.reset();
    }
}

// How many records have their relay half on, so that a change with no relay interface
// anywhere does not walk every record to find none. Only records handed out since the last
// count can have changed; without that knowledge every record is counted again.
size_t s_RelayCount = 0;

bool RelayOn(const KQ_CTRL_DYNAMIC_SERVICE_CONF &Conf)
{
    return (Conf.DynamicRelayConf.NetAddrType & KQ_NET_ADDR_IPV4) != 0;
}

void RecountRelay(KeptNode *Node)
{
    const bool on = RelayOn(Node->Node.DynamicConf);
    if (on != Node->Relay)
        s_RelayCount += on ? 1 : static_cast<size_t>(-1);
    Node->Relay = on;
}

bool TrackingHanded()
{
    return !s_AllHanded && Index() != nullptr && s_SameNames == 0;
}

void CountRelays()
{
    if (!TrackingHanded()) {
        for (KQ_LIST_HEAD *link = sg_KqCtrlDynamicHead.next; link != &sg_KqCtrlDynamicHead; link = link->next)
            RecountRelay(reinterpret_cast<KeptNode *>(NodeOf(link)));
        return;
    }
    if (!s_Handed)
        return;
    lh_entry *entry = nullptr;
    lh_foreach(s_Handed.get(), entry)
        RecountRelay(static_cast<KeptNode *>(const_cast<void *>(lh_entry_k(entry))));
}

KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *FindNode(const char *IfName)
{
    lh_table *index = Index();
    KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *node = nullptr;
    if (index == nullptr) {
        node = ScanForNode(IfName);
    } else if (lh_entry *entry = lh_table_lookup_entry(index, IfName)) {
        node = static_cast<KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *>(lh_entry_v(entry));
    }
    if (node != nullptr)
        Handed(node);
    return node;
}

}  // namespace

KQ_LIST_HEAD *KQCtrl_GetDynamiclistHead(void)
{
    return &sg_KqCtrlDynamicHead;
}

KQ_ERR_T KQCtrl_InsertDynamicConfListNode(const KQ_CTRL_DYNAMIC_SERVICE_CONF *DynamicConf)
{
    kq::HostObject<KeptNode> kept;  // zeroed: no item text, not counted as relay
    if (!kept) {
        KQ_LOG(kq::log::Error, "Apply memory for dynamic conf node failed\n");
        return -ENOMEM;
    }
    KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *node = &kept.get()->Node;
    KQ_InitListHead(&node->List);
    memcpy(&node->DynamicConf, DynamicConf, sizeof(*DynamicConf));
    if (s_ByName && !IndexNode(s_ByName.get(), node))
        s_ByName.reset();
    Handed(node);
    KQ_ListAddTail(&kept.release()->Node.List, &sg_KqCtrlDynamicHead);
    ++s_Count;
    return 0;
}

KQ_CTRL_DYNAMIC_SERVICE_CONF *_KQCtrl_GetDynamicConfByName(const char *IfName)
{
    KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *node = FindNode(IfName);
    return node != nullptr ? &node->DynamicConf : nullptr;
}

void _KQCtrl_DeleteDynamicConfListNode(const char *IfName)
{
    KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *node = FindNode(IfName);
    if (node == nullptr)
        return;
    if (s_ByName && (s_SameNames > 0 || lh_table_delete(s_ByName.get(), node->DynamicConf.IfName) != 0))
        s_ByName.reset();  // another node of that name may take its place: built again
    if (s_Handed)
        lh_table_delete(s_Handed.get(), node);
    KQ_ListDelInit(&node->List);
    --s_Count;
    KeptNode *kept = reinterpret_cast<KeptNode *>(node);
    if (kept->Relay)
        --s_RelayCount;
    json_object_put(kept->ItemText);
    KQ_AgentMemFree(kept);
}

bool _KQCtrl_DynamicConfHandedOut(const KQ_CTRL_DYNAMIC_SERVICE_CONF *Conf)
{
    return !TrackingHanded() || (s_Handed && lh_table_lookup_entry(s_Handed.get(), KeptOf(Conf)) != nullptr);
}

json_object *_KQCtrl_DynamicConfItemText(const KQ_CTRL_DYNAMIC_SERVICE_CONF *Conf)
{
    return KeptOf(Conf)->ItemText;
}

void _KQCtrl_SetDynamicConfItemText(const KQ_CTRL_DYNAMIC_SERVICE_CONF *Conf, json_object *Text)
{
    KeptNode *kept = KeptOf(Conf);
    json_object_put(kept->ItemText);
    kept->ItemText = Text;
}

size_t _KQCtrl_DynamicRelayCount(void)
{
    CountRelays();
    return s_RelayCount;
}

size_t _KQCtrl_DynamicConfCount(void)
{
    return s_Count;
}

void _KQCtrl_ForgetDynamicConfHandedOut(void)
{
    CountRelays();  // the relay count must not lose what these records did
    s_Handed.reset();
    s_AllHanded = false;
}

KQ_CTRL_DYNAMIC_SERVER_CONF *_KQCtrl_GetDynamicServerConfByName(const char *IfName)
{
    KQ_CTRL_DYNAMIC_SERVICE_CONF *conf = _KQCtrl_GetDynamicConfByName(IfName);
    return conf != nullptr ? &conf->DynamicServerConf : nullptr;
}

KQ_CTRL_DYNAMIC_RELAY_CONF *_KQCtrl_GetDynamicRelayConfByName(const char *IfName)
{
    KQ_CTRL_DYNAMIC_SERVICE_CONF *conf = _KQCtrl_GetDynamicConfByName(IfName);
    return conf != nullptr ? &conf->DynamicRelayConf : nullptr;
}

KQ_ERR_T _KQCtrl_InsertDynamicServerConfListNode(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf)
{
    KQ_CTRL_DYNAMIC_SERVICE_CONF serviceConf;
    memset(&serviceConf, 0, sizeof(serviceConf));
    if (KQ_SafeStrCopy(serviceConf.IfName, sizeof(serviceConf.IfName), DynamicServerConf->IfName) >=
        sizeof(serviceConf.IfName)) {
        KQ_LOG(kq::log::Error, "IfName is overflow\n");
        return -EOVERFLOW;
    }
    memcpy(&serviceConf.DynamicServerConf, DynamicServerConf, sizeof(*DynamicServerConf));
    KQ_ERR_T ret = KQCtrl_InsertDynamicConfListNode(&serviceConf);
    if (ret < 0)
        KQ_LOG(kq::log::Error, "Insert dynamic conf node failed(%d:%s)\n", KQ_ERR_ARGS(ret));
    return ret;
}

KQ_ERR_T _KQCtrl_InsertDynamicRelayConfListNode(const KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf)
{
    KQ_CTRL_DYNAMIC_SERVICE_CONF serviceConf;
    memset(&serviceConf, 0, sizeof(serviceConf));
    if (KQ_SafeStrCopy(serviceConf.IfName, sizeof(serviceConf.IfName), DynamicRelayConf->IfName) >=
        sizeof(serviceConf.IfName)) {
        KQ_LOG(kq::log::Error, "IfName is overflow\n");
        return -EOVERFLOW;
    }
    memcpy(&serviceConf.DynamicRelayConf, DynamicRelayConf, sizeof(*DynamicRelayConf));
    KQ_ERR_T ret = KQCtrl_InsertDynamicConfListNode(&serviceConf);
    if (ret < 0)
        KQ_LOG(kq::log::Error, "Insert Dynamic conf node failed(%d:%s)\n", KQ_ERR_ARGS(ret));
    return ret;
}

void _KQCtrl_UpdateDynamicServerConfListNode(const KQ_CTRL_DYNAMIC_SERVER_CONF *NewConf,
                                             KQ_CTRL_DYNAMIC_SERVER_CONF *CurrentConf)
{
    memcpy(CurrentConf, NewConf, sizeof(*CurrentConf));
}

void _KQCtrl_UpdateDynamicRelayConfListNode(const KQ_CTRL_DYNAMIC_RELAY_CONF *NewConf,
                                            KQ_CTRL_DYNAMIC_RELAY_CONF *CurrentConf)
{
    memcpy(CurrentConf, NewConf, sizeof(*CurrentConf));
}

void _KQCtrl_DeleteDynamicRelayConfListNode(const KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf)
{
    KQ_CTRL_DYNAMIC_RELAY_CONF *current = _KQCtrl_GetDynamicRelayConfByName(DynamicRelayConf->IfName);
    if (current != nullptr)
        memset(current, 0, sizeof(*current));
}
