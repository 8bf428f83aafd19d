// The registry: one record per configured interface, in the order they were added,
// holding its server and relay halves.
#include <errno.h>
#include <stddef.h>
#include <string.h>

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

KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *FindNode(const char *IfName)
{
    for (KQ_LIST_HEAD *link = sg_KqCtrlDynamicHead.next; link != &sg_KqCtrlDynamicHead; link = link->next) {
        KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *node = reinterpret_cast<KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *>(
            reinterpret_cast<char *>(link) - offsetof(KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE, List));
        if (strcmp(node->DynamicConf.IfName, IfName) == 0)
            return node;
    }
    return nullptr;
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
    KQ_ListAddTail(&node.release()->List, &sg_KqCtrlDynamicHead);
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
    KQ_ListDelInit(&node->List);
    KQ_AgentMemFree(node);
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
