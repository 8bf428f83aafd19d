// The registry: one record per configured interface, in the order they were added,
// holding its server and relay halves.
#include <errno.h>
#include <stddef.h>
#include <string.h>

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
    kq::HostObject<KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE> node;
    if (!node) {
        KQ_LOG(kq::log::Error, "Apply memory for dynamic conf node failed\n");
        return -ENOMEM;
    }
    KQ_InitListHead(&node.get()->List);
    memcpy(&node.get()->DynamicConf, DynamicConf, sizeof(*DynamicConf));
    if (s_ByName && !IndexNode(s_ByName.get(), node.get()))
        s_ByName.reset();
    Handed(node.get());
    KQ_ListAddTail(&node.release()->List, &sg_KqCtrlDynamicHead);
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
    KQ_AgentMemFree(node);
}

bool _KQCtrl_DynamicConfHandedOut(const KQ_CTRL_DYNAMIC_SERVICE_CONF *Conf)
{
    if (s_AllHanded || Index() == nullptr || s_SameNames > 0)
        return true;
    const auto *node = reinterpret_cast<const KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *>(
        reinterpret_cast<const char *>(Conf) - offsetof(KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE, DynamicConf));
    return s_Handed && lh_table_lookup_entry(s_Handed.get(), node) != nullptr;
}

size_t _KQCtrl_DynamicConfCount(void)
{
    return s_Count;
}

void _KQCtrl_ForgetDynamicConfHandedOut(void)
{
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
