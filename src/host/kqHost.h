/*
 * Host agent interface of the dynamic module.
 *
 * Everything that touches the system goes through these KQ_ operations, which the host
 * agent exports and the module leaves undefined until it is loaded: a host agent defines
 * every one of them (libkqhost, pkg-config kqhost, is a complete one for a plain Linux
 * machine). Each comment says what the module relies on.
 *
 * Threading: the module calls these from the thread that called it, one call at a time;
 * only the flex-log text must be kept per thread (or the host serialises its callers).
 *
 * Results: KQ_ERR_T operations return 0 (or a length where said) on success and a negative
 * errno value on failure; the module passes such a value up unchanged.
 *
 * Logging levels: 1 trace of decisions, 2 notices of state, 3 failures that do not change
 * a result, 4 errors (followed by a dump of the flex-log text).
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
/* Every module line is one call of Log(KQ_AgentLogGetTag(), Level, "<%s%s>%s[%s:%d] " + text,
 * LogLevel2Str(Level), KQ_LogGetModuleName(62), thread text, function, line, ...). */

/* TRUE when a line of Level from Module (always 62, KQ_DYNAMIC_LOG_MODULE) is to be
 * written. Normal is TRUE for the line itself, FALSE for the flex-log dump after an error. */
BOOL KQ_LogTest(unsigned int Module, unsigned int Level, BOOL Normal, const char *Function);
/* The logger record, fetched for every line; never NULL. A NULL Log suppresses the line, a
 * NULL LogLevel2Str leaves the level text out. The module calls Log and LogLevel2Str only. */
KQ_LOG_IMPL_S *KQ_LogGetImplItem(uint32_t Module);
/* The module's name in the line prefix ("dynamic" for 62); a static text, never NULL. */
char *KQ_LogGetModuleName(int Module);
/* The tag passed as Log's first argument; a static text, never NULL. */
const char *KQ_AgentLogGetTag(void);
/* The calling thread's name into Buf (Size 16, NUL-terminated): 0, or a negative errno and
 * the name is left out of the line. */
KQ_ERR_T KQ_ThreadGetName(char *Buf, int Size);
/* Stores the formatted text of the current line for the flex-log dump (per thread); 0, or a
 * negative errno and no dump follows. */
KQ_ERR_T KQ_FlexLogSetFormatData(const char *Format, ...) KQ_PRINTF_LIKE(1, 2);
/* The stored text, valid until the next set or reset on this thread; never NULL. */
const char *KQ_FlexLogGetFormatBuff(void);
/* Forgets the stored text; called after every error line. */
void KQ_FlexLogDataReset(void);
/* Kernel thread id and process id for the line prefix; 0 leaves them out. */
long KQ_PlatformGetCurrentThreadId(void);
long KQ_PlatformGetCurrentProcessId(void);

/* ---- Memory and the flexible text buffer ----------------------------------------- */

/* Size bytes of zero-filled memory, or NULL (the module fails with -ENOMEM). */
void *KQ_AgentMemZeroAlloc(const size_t Size);
/* Releases memory from KQ_AgentMemZeroAlloc; NULL is allowed. */
void KQ_AgentMemFree(void *Ptr);
/* An empty growable text (FlexBuf "", Pos 0), or NULL (-ENOMEM at the caller). */
KQ_FLEXIBLE_MSG *KQ_FlexMsgAlloc(void);
/* Appends the formatted text at Pos, growing the buffer, and keeps FlexBuf NUL-terminated:
 * 0, or a negative errno with the text as it was. */
KQ_ERR_T KQ_FlexMsgSetFormatData(KQ_FLEXIBLE_MSG *Msg, const char *Format, ...) KQ_PRINTF_LIKE(2, 3);
/* Releases the buffer and the record; NULL is allowed. */
void KQ_FlexMsgFree(KQ_FLEXIBLE_MSG *Msg);

/* ---- Strings and addresses ----------------------------------------------------- */

/* snprintf: writes at most Size bytes, always NUL-terminated when Size > 0, and returns
 * the length the whole text needs (as C's snprintf). A result >= Size means the text was
 * cut; the module treats that as -EOVERFLOW. */
size_t KQ_SNPrintf(char *Buf, size_t Size, const char *Format, ...) KQ_PRINTF_LIKE(3, 4);
/* Copies Src into Dst, always NUL-terminated when Size > 0, and returns strlen(Src); a
 * result >= Size means it was cut (-EOVERFLOW at the caller). */
size_t KQ_SafeStrCopy(char *Dst, size_t Size, const char *Src);
/* Parses dotted IPv4 text (at most Size bytes of Text) into *Out in host order, the first
 * octet most significant. Returns Text on success, NULL when it is not an address. */
char *KQ_SafeStrGetIp4Addr(const char *Text, size_t Size, uint32_t *Out);
/* Parses IPv6 text into *Out (network order); Text on success, NULL on failure. */
char *KQ_SafeStrGetIp6Addr(const char *Text, size_t Size, KQ_IN6_ADDR *Out);
/* Formats *Addr as IPv6 text (inet_ntop's form) into Buf and returns its length; a result
 * >= Size means it did not fit (the module passes 50). */
size_t KQ_SafeStrFormatIp6Addr(char *Buf, size_t Size, const KQ_IN6_ADDR *Addr);

/* ---- Files --------------------------------------------------------------------- */

/* Replaces the file at Path with Len bytes of Data, durably: 0 once the whole file is on
 * disk, or a negative errno with the old file still whole (write a temporary file, fsync,
 * rename). The module writes dhcp.conf's backup and the dnsmasq configuration files with it. */
int32_t KQ_WriteSyncWithFilePath(const char *Path, const char *Data, size_t Len);
/* Replaces the file To with a copy of From, with the same guarantee; 0 or a negative errno. */
KQ_ERR_T KQ_FileCopy(const char *From, const char *To);
/* The paths of dhcp.conf and of its backup: stable texts, never NULL. An update writes the
 * backup first and copies it over dhcp.conf. */
const char *KQ_AgentPathDhcpConf(void);
const char *KQ_AgentPathDhcpConfbak(void);
/* The whole file at Path in a new buffer with a NUL appended (the module reads it as a C
 * string), or NULL when it is missing or cannot be read. Released with KQ_FreeConf. */
void *KQ_AllocAndGetConf(const char *Path);
/* Releases a buffer from KQ_AllocAndGetConf; NULL is allowed. */
void KQ_FreeConf(void *Conf);

/* ---- Processes ----------------------------------------------------------------- */

/* Run a command line and wait for it: the module's lines are a program path and arguments
 * separated by single spaces, without quoting (an interface name never holds a blank), and
 * may start with the prefix of KQ_RtcGetNetNsExecCmdPrefix. dnsmasq and "dhclient -nw" put
 * themselves in the background, so the call returns once the program has started them.
 * KQ_CmdExec (dnsmasq): 0 or more on success, negative on failure. KQ_RTCSystem (dhclient):
 * 0 or more on success, negative on failure (the module retries once). Command is not
 * changed. */
int32_t KQ_CmdExec(char *Command);
int KQ_RTCSystem(const char *Command);
/* Ends the process Pid (SIGTERM, then SIGKILL if it stays) and returns once it is gone: 0,
 * -3 (-ESRCH) when there is no such process (the module counts that as done), or another
 * negative errno. */
KQ_ERR_T KQ_KillPid(const pid_t Pid);
/* TRUE when Pid, read from a dhclient pid file, is still that dhclient: IfName is the
 * interface, DynamicStr "dhclient" (IPv4) or "dhclient6" (IPv6). FALSE: do not signal it. */
BOOL KQ_IsPIDCorrectInPIDFile(pid_t Pid, const char *IfName, const char *DynamicStr);

/* ---- Namespaces, LANs and interfaces ------------------------------------------- */

/* A VPN id is a security zone; 0 is the namespace the agent runs in. */

/* Writes into Buf (Size 512) the command prefix that runs the rest of a line inside the
 * VPN's network namespace ("ip netns exec <name> ", "" for 0) and returns its length, or a
 * negative errno (-EOVERFLOW when it does not fit). */
KQ_ERR_T KQ_RtcGetNetNsExecCmdPrefix(uint32_t VpnId, char *Buf, size_t Size);
/* Moves the calling thread into the VPN's namespace, keeping the one it was in in *SavedFd
 * (-1 on entry): 0 or a negative errno. Called for a non-zero VpnId only. */
KQ_ERR_T KQ_RtcNetNsSaveAndSwitch(uint32_t VpnId, int *SavedFd);
/* Back into the namespace kept in *SavedFd and *SavedFd to -1; nothing for -1. Called on
 * every path after a save, a failed one included; the result is not used. */
KQ_ERR_T KQ_RtcNetNsSwitchToDefault(int *SavedFd);
/* The host's LAN record of IfName into *Lan (zeroed by the caller): 0, or a negative errno
 * for an interface that is not a LAN (the module then uses zone 0). Only CommConf.VpnId is
 * read. */
KQ_ERR_T KQ_RtcNetioLanGetByName(const char *IfName, KQ_CONF_LAN *Lan);
/* The interface's first IPv4 address (host order) and mask length, read in its zone; the
 * result is not used: an address left 0 means none (no default DNS server then). */
KQ_ERR_T KQ_RtcNetioInterfaceGetFirstIpv4(const char *IfName, uint32_t *Ip, uint8_t *MaskLen);
/* The same for IPv6; an all-zero address means none. */
KQ_ERR_T KQ_RtcNetioInterfaceGetFirstIpv6(const char *IfName, KQ_IN6_ADDR *Ip, uint8_t *PrefixLen);
/* How many interfaces the host still counts as DHCPv6 clients; at 0 an IPv6 client disable
 * removes the DHCPv6 policy rule. */
uint32_t KQCtrl_IfmInterfaceGetDhcpv6Count(void);

/* ---- Rules --------------------------------------------------------------------- */

/* The one rule the module adds, the DHCPv6 client rule: in the policy table, for any VPN,
 * UDP to port 546 or 547 that comes in on a WAN interface goes to the appliance itself
 * (output LOCAL), so that DHCPv6 replies reach its dhclient. */

/* Inserts *Rule into the host's policy table (a rule with the same Zone and Id is
 * replaced). The module calls it as (Rule, 0, FALSE, TRUE): Arg1 a priority, Arg2 and Arg3
 * flags the host may define; 0 or a negative errno (logged, not returned, by the module). */
KQ_ERR_T KQ_RtcRuleConfAdd(KQ_CONF_RULE *Rule, uint16_t Arg1, BOOL Arg2, BOOL Arg3);
/* Removes the rule of Zone and Id (the pair the module's rule was added with; Arg3..Arg5
 * are the host's). 0 or a negative errno (-ENOENT: none); logged, not returned, by the
 * module. */
KQ_ERR_T KQ_RtcRuleConfDel(uint8_t Zone, uint32_t Id, uint32_t Arg3, uint16_t Arg4, BOOL Arg5);

/* ---- Sockets ------------------------------------------------------------------- */

/* socket(2) into *Sock: 0 or a negative errno. The module opens one raw IPv6 socket
 * (AF_INET6, SOCK_RAW, IPPROTO_RAW) for a router solicitation. */
KQ_ERR_T KQ_Socket(int32_t Family, int32_t Type, int32_t Protocol, KQ_SOCKET *Sock);
/* sendto(2): the bytes sent, or negative on failure. */
KQ_LEN_ERR_T KQ_SendTo(KQ_SOCKET Sock, const void *Data, size_t Len, int32_t Flags,
                       const struct sockaddr *To, int32_t ToLen);
/* TRUE for an invalid handle (KQ_INVALID_SOCKET). */
BOOL KQ_SocketIsErr(KQ_SOCKET Sock);
/* close(2); called only for a valid handle. */
KQ_ERR_T KQ_SocketClose(KQ_SOCKET Sock);

/* ---- Protobuf field helpers ---------------------------------------------------- */

/* One IPv4 pool of a request: StartIp = begin, EndIp = begin + len - 1 (host order; the
 * module has checked len against the address space). */
void KQ_PbToConfIpRange(const Range *RangePb, KQ_AGENT_IP_RANGE *IpRange);
/* Copies a request's 16 address bytes into *Addr: 0, or -EINVAL for a field of another
 * length. */
KQ_ERR_T KQ_GetIpv6AddrFromIpv6Pb(const ProtobufCBinaryData *Pb, KQ_IN6_ADDR *Addr);

#ifdef __cplusplus
}
#endif

#endif /* KQ_HOST_H */
