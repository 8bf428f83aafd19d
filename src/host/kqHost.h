/*
 * Host agent interface of the dynamic module.
 *
 * Everything that touches the system goes through these KQ_ operations, which the
 * host agent exports and the module leaves undefined until it is loaded.
 */
#ifndef KQ_HOST_H
#define KQ_HOST_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "kqDhcp.pb-c.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define KQ_PRINTF_LIKE(fmtIndex, argIndex) __attribute__((format(printf, fmtIndex, argIndex)))
#else
#define KQ_PRINTF_LIKE(fmtIndex, argIndex)
#endif

/* ---- Shared host types ---------------------------------------------------------- */

typedef int32_t KQ_ERR_T;
typedef ssize_t KQ_LEN_ERR_T;
typedef int32_t BOOL;
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif
typedef uint16_t KQ_BE16;
typedef uint32_t KQ_BE32;
typedef int KQ_SOCKET;
#define KQ_INVALID_SOCKET (-1)

typedef struct KQ_LOG_IMPL_S {
    void (*Log)(const char *Tag, uint32_t Level, const char *Format, ...) KQ_PRINTF_LIKE(3, 4);
    void (*LogValist)(const char *Tag, uint32_t Level, const char *Format, va_list Args);
    const char *(*LogLevel2Str)(uint32_t Level);
} KQ_LOG_IMPL_S;

typedef struct KQ_LIST_HEAD {
    struct KQ_LIST_HEAD *next, *prev;
} KQ_LIST_HEAD;

typedef struct KQ_FLEXIBLE_MSG {
    size_t Size;
    KQ_LIST_HEAD List;
    size_t Pos;
    char *FlexBuf;
} KQ_FLEXIBLE_MSG;

typedef struct KQ_IN6_ADDR {
    union {
        uint8_t U6Addr8[16];
        KQ_BE16 U6Addr16[8];
        KQ_BE32 U6Addr32[4];
    } In6;
} KQ_IN6_ADDR;

typedef struct KQ_AGENT_IP_RANGE {
    uint32_t StartIp;
    uint32_t EndIp;
} KQ_AGENT_IP_RANGE;

typedef struct KQ_CONF_LAN_COMM {
    uint32_t VpnId;
    uint32_t Mtu;
} KQ_CONF_LAN_COMM;

typedef struct KQ_CONF_LAN {
    char IfName[16];
    KQ_CONF_LAN_COMM CommConf;
} KQ_CONF_LAN;

#define KQ_CONF_RULE_OP_TYPE_INSERT 0
#define KQ_CONF_RULE_TBL_TYPE_POLICY 0
#define KQ_CONF_DP_IF_TYPE_WAN 2
#define KQ_CONF_DP_IF_TYPE_LOCAL 6
#define KQ_CONF_RULE_MAX_ITEMS 8

typedef struct KQ_CONF_RULE_PORT_RANGE {
    uint16_t LowerPort;
    uint16_t UpperPort;
} KQ_CONF_RULE_PORT_RANGE;

typedef struct KQ_CONF_RULE_IF {
    uint8_t Type;
    uint32_t Id;
} KQ_CONF_RULE_IF;

typedef struct KQ_CONF_RULE_OUTPUT {
    uint32_t Id;
    uint8_t Type;
} KQ_CONF_RULE_OUTPUT;

typedef struct KQ_CONF_RULE_MATCH {
    uint8_t DstPortNum;
    KQ_CONF_RULE_PORT_RANGE DstPort[KQ_CONF_RULE_MAX_ITEMS];
    uint8_t ProtoNum;
    uint8_t Proto[KQ_CONF_RULE_MAX_ITEMS];
    uint8_t InPortNum;
    KQ_CONF_RULE_IF InPort[KQ_CONF_RULE_MAX_ITEMS];
    uint8_t OutPortNum;
    KQ_CONF_RULE_IF OutPort[KQ_CONF_RULE_MAX_ITEMS];
} KQ_CONF_RULE_MATCH;

typedef struct KQ_CONF_RULE_ACTIONS {
    uint8_t OutputNum;
    KQ_CONF_RULE_OUTPUT OutputArray[KQ_CONF_RULE_MAX_ITEMS];
} KQ_CONF_RULE_ACTIONS;

typedef struct KQ_CONF_RULE {
    uint8_t OpType;
    uint8_t Table;
    uint8_t Zone;
    uint32_t VpnId;
    uint32_t Id;
    uint64_t TimeStamp;
    KQ_CONF_RULE_MATCH Match;
    KQ_CONF_RULE_ACTIONS Actions;
} KQ_CONF_RULE;

/* ---- Logging ------------------------------------------------------------------- */

BOOL KQ_LogTest(unsigned int Module, unsigned int Level, BOOL Normal, const char *Function);
KQ_LOG_IMPL_S *KQ_LogGetImplItem(uint32_t Module);
char *KQ_LogGetModuleName(int Module);
const char *KQ_AgentLogGetTag(void);
KQ_ERR_T KQ_ThreadGetName(char *Buf, int Size);
KQ_ERR_T KQ_FlexLogSetFormatData(const char *Format, ...) KQ_PRINTF_LIKE(1, 2);
const char *KQ_FlexLogGetFormatBuff(void);
void KQ_FlexLogDataReset(void);
long KQ_PlatformGetCurrentThreadId(void);
long KQ_PlatformGetCurrentProcessId(void);

/* ---- Memory and the flexible text buffer ----------------------------------------- */

void *KQ_AgentMemZeroAlloc(const size_t Size);
void KQ_AgentMemFree(void *Ptr);
KQ_FLEXIBLE_MSG *KQ_FlexMsgAlloc(void);
KQ_ERR_T KQ_FlexMsgSetFormatData(KQ_FLEXIBLE_MSG *Msg, const char *Format, ...) KQ_PRINTF_LIKE(2, 3);
void KQ_FlexMsgFree(KQ_FLEXIBLE_MSG *Msg);

/* ---- Strings and addresses ----------------------------------------------------- */

size_t KQ_SNPrintf(char *Buf, size_t Size, const char *Format, ...) KQ_PRINTF_LIKE(3, 4);
size_t KQ_SafeStrCopy(char *Dst, size_t Size, const char *Src);
char *KQ_SafeStrGetIp4Addr(const char *Text, size_t Size, uint32_t *Out);
char *KQ_SafeStrGetIp6Addr(const char *Text, size_t Size, KQ_IN6_ADDR *Out);
size_t KQ_SafeStrFormatIp6Addr(char *Buf, size_t Size, const KQ_IN6_ADDR *Addr);

/* ---- Files --------------------------------------------------------------------- */

int32_t KQ_WriteSyncWithFilePath(const char *Path, const char *Data, size_t Len);
KQ_ERR_T KQ_FileCopy(const char *From, const char *To);
const char *KQ_AgentPathDhcpConf(void);
const char *KQ_AgentPathDhcpConfbak(void);
void *KQ_AllocAndGetConf(const char *Path);
void KQ_FreeConf(void *Conf);

/* ---- Processes ----------------------------------------------------------------- */

int32_t KQ_CmdExec(char *Command);
int KQ_RTCSystem(const char *Command);
KQ_ERR_T KQ_KillPid(const pid_t Pid);
BOOL KQ_IsPIDCorrectInPIDFile(pid_t Pid, const char *IfName, const char *DynamicStr);

/* ---- Namespaces, LANs and interfaces ------------------------------------------- */

KQ_ERR_T KQ_RtcGetNetNsExecCmdPrefix(uint32_t VpnId, char *Buf, size_t Size);
KQ_ERR_T KQ_RtcNetNsSaveAndSwitch(uint32_t VpnId, int *SavedFd);
KQ_ERR_T KQ_RtcNetNsSwitchToDefault(int *SavedFd);
KQ_ERR_T KQ_RtcNetioLanGetByName(const char *IfName, KQ_CONF_LAN *Lan);
KQ_ERR_T KQ_RtcNetioInterfaceGetFirstIpv4(const char *IfName, uint32_t *Ip, uint8_t *MaskLen);
KQ_ERR_T KQ_RtcNetioInterfaceGetFirstIpv6(const char *IfName, KQ_IN6_ADDR *Ip, uint8_t *PrefixLen);
uint32_t KQCtrl_IfmInterfaceGetDhcpv6Count(void);

/* ---- Rules --------------------------------------------------------------------- */

KQ_ERR_T KQ_RtcRuleConfAdd(KQ_CONF_RULE *Rule, uint16_t Arg1, BOOL Arg2, BOOL Arg3);
KQ_ERR_T KQ_RtcRuleConfDel(uint8_t Zone, uint32_t Id, uint32_t Arg3, uint16_t Arg4, BOOL Arg5);

/* ---- Sockets ------------------------------------------------------------------- */

KQ_ERR_T KQ_Socket(int32_t Family, int32_t Type, int32_t Protocol, KQ_SOCKET *Sock);
KQ_LEN_ERR_T KQ_SendTo(KQ_SOCKET Sock, const void *Data, size_t Len, int32_t Flags,
                       const struct sockaddr *To, int32_t ToLen);
BOOL KQ_SocketIsErr(KQ_SOCKET Sock);
KQ_ERR_T KQ_SocketClose(KQ_SOCKET Sock);

/* ---- Protobuf field helpers ---------------------------------------------------- */

void KQ_PbToConfIpRange(const Range *RangePb, KQ_AGENT_IP_RANGE *IpRange);
KQ_ERR_T KQ_GetIpv6AddrFromIpv6Pb(const ProtobufCBinaryData *Pb, KQ_IN6_ADDR *Addr);

#ifdef __cplusplus
}
#endif

#endif /* KQ_HOST_H */
