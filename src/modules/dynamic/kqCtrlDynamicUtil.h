/*
 * Small helpers shared by the module's source files: IPv6 address tests, the dotted-quad
 * byte order, the interface-name check, and the guards that release what a function
 * acquired on every path out of it.
 */
#ifndef KQ_CTRL_DYNAMIC_UTIL_H
#define KQ_CTRL_DYNAMIC_UTIL_H

#include <stdio.h>
#include <string.h>
#include <sys/types.h>

#include <json-c/json.h>
#include <json-c/printbuf.h>

#include "kqCtrlDynamic.h"

namespace kq {

// Buffers the server and relay sides share: address texts (the longest IPv4 text with room
// to spare; an IPv6 text as the host formats it), file paths, command lines and the text of
// a dnsmasq pid file.
constexpr size_t kIpv4TextSize = 19;
constexpr size_t kIpv6TextSize = 50;
constexpr size_t kConfPathSize = 256;
constexpr size_t kPidPathSize = 128;
constexpr size_t kCmdSize = 512;
constexpr size_t kPidTextSize = 16;

}  // namespace kq

static inline BOOL KQ_Ipv6AddrEqual(const KQ_IN6_ADDR *A, const KQ_IN6_ADDR *B)
{
    return memcmp(A->In6.U6Addr8, B->In6.U6Addr8, sizeof(A->In6.U6Addr8)) == 0 ? TRUE : FALSE;
}

static inline BOOL KQ_Ipv6AddrZero(const KQ_IN6_ADDR *Ip6Addr)
{
    for (uint8_t byte : Ip6Addr->In6.U6Addr8)
        if (byte != 0)
            return FALSE;
    return TRUE;
}

static inline void KQ_Ipv6AddrCopy(KQ_IN6_ADDR *To, const KQ_IN6_ADDR *From)
{
    memcpy(To->In6.U6Addr8, From->In6.U6Addr8, sizeof(To->In6.U6Addr8));
}

// The four octets of a host-order IPv4 number, most significant first, for "%u.%u.%u.%u".
#define KQ_IPV4_OCTETS(Ip)                                                                 \
    (unsigned)(((Ip) >> 24) & 0xFFu), (unsigned)(((Ip) >> 16) & 0xFFu),                 \
        (unsigned)(((Ip) >> 8) & 0xFFu), (unsigned)((Ip)&0xFFu)

namespace kq {

// The interface-name rule (kqCtrlDynamicIfName.h): a name that no Linux interface can have,
// or that dnsmasq or dhclient would read as something else, never reaches a file name, a
// dnsmasq configuration or a command line. The length limit is checked separately, where
// the name is copied.
bool IsUsableIfName(const char *IfName);

// Pid files. The stop paths send a signal only to the process a pid file belongs to: the
// text must be a whole decimal pid from 2 to the kernel's pid_max with nothing but a
// trailing newline after it (IsStrictPidText), and /proc/<pid>/cmdline must show Program
// as the base name of its first argument and PidFilePath among its arguments, alone or
// after an "=" ("--pid-file=<path>"). Anything else is a stale pid file: the process it
// names is gone or is someone else's. PidFileNamesItsProcess logs one warning, under
// Caller's name, for a stale file.
bool IsStrictPidText(const char *Text, size_t Len);
bool PidFileNamesItsProcess(const char *Caller, const char *PidFilePath, pid_t Pid, bool StrictText,
                            const char *Program);

// Of Count entries, how many fit an array of Capacity; when not all do, one warning under
// Caller's name names the interface, What, and how many are dropped.
uint32_t EntriesThatFit(const char *Caller, const char *IfName, const char *What, uint32_t Count,
                        uint32_t Capacity);

// Releases a KQ_AgentMemZeroAlloc buffer.
class HostBuffer {
public:
    explicit HostBuffer(size_t Size) : Ptr(static_cast<char *>(KQ_AgentMemZeroAlloc(Size))) {}
    ~HostBuffer() { if (Ptr != nullptr) KQ_AgentMemFree(Ptr); }
    HostBuffer(const HostBuffer &) = delete;
    HostBuffer &operator=(const HostBuffer &) = delete;
    char *get() const { return Ptr; }
    explicit operator bool() const { return Ptr != nullptr; }

private:
    char *Ptr;
};

// Releases a node-sized host allocation unless it was handed over.
template <typename T>
class HostObject {
public:
    HostObject() : Ptr(static_cast<T *>(KQ_AgentMemZeroAlloc(sizeof(T)))) {}
    ~HostObject() { if (Ptr != nullptr) KQ_AgentMemFree(Ptr); }
    HostObject(const HostObject &) = delete;
    HostObject &operator=(const HostObject &) = delete;
    T *get() const { return Ptr; }
    T *release() { T *p = Ptr; Ptr = nullptr; return p; }
    explicit operator bool() const { return Ptr != nullptr; }

private:
    T *Ptr;
};

// Releases a KQ_FlexMsgAlloc message.
class FlexMsg {
public:
    FlexMsg() : Msg(KQ_FlexMsgAlloc()) {}
    ~FlexMsg() { if (Msg != nullptr) KQ_FlexMsgFree(Msg); }
    FlexMsg(const FlexMsg &) = delete;
    FlexMsg &operator=(const FlexMsg &) = delete;
    KQ_FLEXIBLE_MSG *get() const { return Msg; }
    explicit operator bool() const { return Msg != nullptr; }

private:
    KQ_FLEXIBLE_MSG *Msg;
};

// Releases a KQ_AllocAndGetConf text (KQ_FreeConf accepts null).
class ConfText {
public:
    explicit ConfText(const char *Path) : Text(static_cast<char *>(KQ_AllocAndGetConf(Path))) {}
    ~ConfText() { KQ_FreeConf(Text); }
    ConfText(const ConfText &) = delete;
    ConfText &operator=(const ConfText &) = delete;
    const char *get() const { return Text; }

private:
    char *Text;
};

// Releases a json-c document with json_object_put.
class JsonDoc {
public:
    explicit JsonDoc(json_object *Obj = nullptr) : Obj(Obj) {}
    ~JsonDoc() { if (Obj != nullptr) json_object_put(Obj); }
    JsonDoc(const JsonDoc &) = delete;
    JsonDoc &operator=(const JsonDoc &) = delete;
    json_object *get() const { return Obj; }
    explicit operator bool() const { return Obj != nullptr; }
    void swap(JsonDoc &Other) { json_object *o = Obj; Obj = Other.Obj; Other.Obj = o; }

private:
    json_object *Obj;
};

// Releases a json-c print buffer.
class PrintBuf {
public:
    PrintBuf() : Buf(printbuf_new()) {}
    ~PrintBuf() { if (Buf != nullptr) printbuf_free(Buf); }
    PrintBuf(const PrintBuf &) = delete;
    PrintBuf &operator=(const PrintBuf &) = delete;
    printbuf *get() const { return Buf; }
    explicit operator bool() const { return Buf != nullptr; }

private:
    printbuf *Buf;
};

// Closes a host socket unless the handle is invalid.
class HostSocket {
public:
    HostSocket() = default;
    ~HostSocket() { if (!KQ_SocketIsErr(Sock)) KQ_SocketClose(Sock); }
    HostSocket(const HostSocket &) = delete;
    HostSocket &operator=(const HostSocket &) = delete;
    KQ_SOCKET *out() { return &Sock; }
    KQ_SOCKET get() const { return Sock; }

private:
    KQ_SOCKET Sock = KQ_INVALID_SOCKET;
};

// Switches the thread back to the saved namespace on every path, also when no switch
// was made (the host then receives -1 and does nothing).
class SavedNamespace {
public:
    SavedNamespace() = default;
    ~SavedNamespace() { (void)KQ_RtcNetNsSwitchToDefault(&SavedFd); }
    SavedNamespace(const SavedNamespace &) = delete;
    SavedNamespace &operator=(const SavedNamespace &) = delete;
    int *out() { return &SavedFd; }

private:
    int SavedFd = -1;
};

// Closes a stdio file.
class File {
public:
    File(const char *Path, const char *Mode) : Fp(fopen(Path, Mode)) {}
    ~File() { if (Fp != nullptr) fclose(Fp); }
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    FILE *get() const { return Fp; }
    explicit operator bool() const { return Fp != nullptr; }

private:
    FILE *Fp;
};

}  // namespace kq

#endif /* KQ_CTRL_DYNAMIC_UTIL_H */
