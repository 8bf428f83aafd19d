#include "fakehost.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fakehost {

State &Host()
{
    static State state;
    return state;
}

void Reset()
{
    // Allocations outlive a reset (the registry keeps its nodes): the count stays honest.
    long live = Host().LiveAllocations;
    Host() = State{};
    Host().LiveAllocations = live;
}

int CallCount(const std::string &Op) { return static_cast<int>(std::count(Host().Calls.begin(), Host().Calls.end(), Op)); }

std::vector<std::string> LogTexts()
{
    std::vector<std::string> out;
    for (const auto &l : Host().Logs)
        out.push_back(l.Text);
    return out;
}

// The message part of a log line, after the "] " that ends the prefix.
static std::string MessageOf(const std::string &Text)
{
    size_t pos = Text.find("] ");
    return pos == std::string::npos ? Text : Text.substr(pos + 2);
}

// The messages of the log lines at MinLevel or above, without the flex-log dumps when asked.
static std::vector<std::string> Select(uint32_t MinLevel, bool Dumps)
{
    std::vector<std::string> out;
    for (const auto &l : Host().Logs) {
        std::string m = MessageOf(l.Text);
        if (l.Level >= MinLevel && (Dumps || m.rfind("dump flexlog:", 0) != 0))
            out.push_back(m);
    }
    return out;
}

std::vector<std::string> Messages() { return Select(0, true); }
std::vector<std::string> Lines() { return Select(0, false); }
std::vector<std::string> ErrorLines() { return Select(4, false); }

bool HasMessage(const std::string &Message)
{
    auto all = Messages();
    return std::find(all.begin(), all.end(), Message) != all.end();
}

std::string Message(size_t Index)
{
    auto all = Messages();
    return Index < all.size() ? all[Index] : "<no line " + std::to_string(Index) + ">";
}

void ClearRegistry()
{
    // Each delete removes the first node of that name, so a repeated name is named again.
    for (const std::string &name : kqtest::RegistryNames())
        _KQCtrl_DeleteDynamicConfListNode(name.c_str());
}

void RemoveModuleFiles()
{
    for (const std::string &path : {Host().DhcpConfPath, Host().DhcpConfBakPath, std::string(kqtest::kRelayConfPath),
                                    std::string(kqtest::kRelayPidPath)})
        std::remove(path.c_str());
    for (std::string name : {"eth1", "eth2", "eth3", "eth4", "eth5", "eth9", "lan0", "lan1"})
        for (const std::string &path : {"/etc/vyr_dhcpd_" + name + ".conf", "/etc/vyr_dhcpd_" + name + ".leases",
                                        "/var/run/vyr_dhcpd_" + name + ".pid"})
            std::remove(path.c_str());
}

std::optional<std::string> ReadFile(const std::string &Path)
{
    std::ifstream in(Path, std::ios::binary);
    if (!in)
        return std::nullopt;
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void WriteFile(const std::string &Path, const std::string &Data)
{
    for (size_t pos = Path.find('/', 1); pos != std::string::npos; pos = Path.find('/', pos + 1))
        mkdir(Path.substr(0, pos).c_str(), 0755);
    std::ofstream(Path, std::ios::binary | std::ios::trunc) << Data;
}

Lookalike::Lookalike(const std::string &Program, const std::vector<std::string> &Args)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return;
    // A shell that waits for a line that never comes, under the program's name; its
    // arguments after "$0" are the program's, so the command line reads as the program's.
    std::vector<std::string> words = {Program, "-c", "read line", "sh"};
    words.insert(words.end(), Args.begin(), Args.end());
    std::vector<char *> argv;
    for (std::string &w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);
    Child = fork();
    if (Child == 0) {
        dup2(fds[0], STDIN_FILENO);
        execv("/bin/sh", argv.data());
        _exit(127);
    }
    close(fds[0]);
    Feed = fds[1];
    // Until the exec the command line is still ours: wait for it to change.
    for (int i = 0; i < 500 && Child > 0; ++i) {
        auto cmdline = ReadFile("/proc/" + std::to_string(Child) + "/cmdline");
        if (cmdline && cmdline->compare(0, Program.size() + 1, Program + std::string(1, '\0')) == 0)
            break;
        usleep(2000);
    }
}

Lookalike::~Lookalike()
{
    if (Child > 0) {
        kill(Child, SIGKILL);
        waitpid(Child, nullptr, 0);
    }
    if (Feed >= 0)
        close(Feed);
}

bool Lookalike::Alive() const
{
    auto stat = ReadFile("/proc/" + std::to_string(Child) + "/stat");
    size_t paren = stat ? stat->rfind(')') : std::string::npos;
    return paren != std::string::npos && stat->compare(paren, 3, ") Z") != 0;
}

}  // namespace fakehost

using fakehost::Host;

namespace {

// Records the call and tells whether this call is to fail, with which result.
bool Failing(const char *Op, long *Result)
{
    auto &h = Host();
    h.Calls.push_back(Op);
    auto at = h.FailOnCall.find(Op);
    auto fail = h.Fail.find(Op);
    if (at != h.FailOnCall.end() && at->second != fakehost::CallCount(Op))
        return false;
    if (at == h.FailOnCall.end() && fail == h.Fail.end())
        return false;
    *Result = fail != h.Fail.end() ? fail->second : -EIO;
    return true;
}

// In a host operation: records it, and returns the failure the test asked for, if any.
#define FAIL_AS(Type)                                   \
    do {                                                \
        long failure_;                                  \
        if (Failing(__func__, &failure_))               \
            return static_cast<Type>(failure_);         \
    } while (0)
#define FAIL_NULL()                                     \
    do {                                                \
        long failure_;                                  \
        if (Failing(__func__, &failure_))               \
            return nullptr;                             \
    } while (0)

// The result of a host operation that only records: the failure asked for, or Ok.
long Outcome(const char *Op, long Ok = 0)
{
    long failure;
    return Failing(Op, &failure) ? failure : Ok;
}

std::string VFormat(const char *Format, va_list Args)
{
    va_list copy;
    va_copy(copy, Args);
    int n = vsnprintf(nullptr, 0, Format, copy);
    va_end(copy);
    std::string out(n > 0 ? n : 0, '\0');
    if (n > 0)
        vsnprintf(out.data(), n + 1, Format, Args);
    return out;
}

void FakeLogValist(const char *, uint32_t Level, const char *Format, va_list Args)
{
    Host().Logs.push_back({Level, VFormat(Format, Args)});
}

void FakeLog(const char *Tag, uint32_t Level, const char *Format, ...)
{
    va_list args;
    va_start(args, Format);
    FakeLogValist(Tag, Level, Format, args);
    va_end(args);
}

const char *FakeLevel2Str(uint32_t Level)
{
    static const char *names[] = {"", "TRACE", "NOTICE", "WARN", "ERROR"};
    return Level < 5 ? names[Level] : "?";
}

KQ_LOG_IMPL_S g_logImpl;

struct FakeFlexMsg {
    KQ_FLEXIBLE_MSG Msg;
    std::string Text;
};

// Copies Text into Buf the way the host's safe copy does: the whole length is returned.
size_t CopyOut(char *Buf, size_t Size, const std::string &Text)
{
    if (Size > 0)
        snprintf(Buf, Size, "%s", Text.c_str());
    return Text.size();
}

}  // namespace

extern "C" {

BOOL KQ_LogTest(unsigned int, unsigned int Level, BOOL Normal, const char *)
{
    Host().Calls.push_back("KQ_LogTest");
    return (Normal ? Level >= Host().LogThreshold : Host().LogTestDump) ? TRUE : FALSE;
}

KQ_LOG_IMPL_S *KQ_LogGetImplItem(uint32_t)
{
    g_logImpl.Log = Host().HasLog ? FakeLog : nullptr;
    g_logImpl.LogValist = FakeLogValist;
    g_logImpl.LogLevel2Str = Host().HasLevel2Str ? FakeLevel2Str : nullptr;
    return &g_logImpl;
}

char *KQ_LogGetModuleName(int Module)
{
    static char name[] = "dynamic";
    return Module == KQ_DYNAMIC_LOG_MODULE ? name : nullptr;
}

const char *KQ_AgentLogGetTag(void) { return "fake"; }

KQ_ERR_T KQ_ThreadGetName(char *Buf, int Size)
{
    if (!Host().ThreadName)
        return -ENOENT;
    CopyOut(Buf, Size, *Host().ThreadName);
    return 0;
}

KQ_ERR_T KQ_FlexLogSetFormatData(const char *Format, ...)
{
    FAIL_AS(KQ_ERR_T);
    va_list args;
    va_start(args, Format);
    Host().FlexLog = VFormat(Format, args);
    va_end(args);
    return 0;
}

const char *KQ_FlexLogGetFormatBuff(void) { return Host().FlexLog.c_str(); }

void KQ_FlexLogDataReset(void)
{
    Host().Calls.push_back("KQ_FlexLogDataReset");
    Host().FlexLog.clear();
}

long KQ_PlatformGetCurrentThreadId(void) { return Host().ThreadId; }
long KQ_PlatformGetCurrentProcessId(void) { return Host().ProcessId; }

void *KQ_AgentMemZeroAlloc(const size_t Size)
{
    FAIL_NULL();
    void *p = calloc(1, Size);
    Host().LiveAllocations += p != nullptr;
    return p;
}

void KQ_AgentMemFree(void *Ptr)
{
    Host().LiveAllocations -= Ptr != nullptr;
    free(Ptr);
}

KQ_FLEXIBLE_MSG *KQ_FlexMsgAlloc(void)
{
    FAIL_NULL();
    auto *m = new FakeFlexMsg;
    m->Msg.FlexBuf = m->Text.data();
    ++Host().LiveAllocations;
    return &m->Msg;
}

KQ_ERR_T KQ_FlexMsgSetFormatData(KQ_FLEXIBLE_MSG *Msg, const char *Format, ...)
{
    FAIL_AS(KQ_ERR_T);
    auto *m = reinterpret_cast<FakeFlexMsg *>(Msg);
    va_list args;
    va_start(args, Format);
    m->Text += VFormat(Format, args);
    va_end(args);
    m->Msg.FlexBuf = m->Text.data();
    m->Msg.Pos = m->Text.size();
    m->Msg.Size = m->Text.capacity();
    return 0;
}

void KQ_FlexMsgFree(KQ_FLEXIBLE_MSG *Msg)
{
    Host().LiveAllocations -= Msg != nullptr;
    delete reinterpret_cast<FakeFlexMsg *>(Msg);
}

size_t KQ_SNPrintf(char *Buf, size_t Size, const char *Format, ...)
{
    va_list args;
    va_start(args, Format);
    int n = vsnprintf(Buf, Size, Format, args);
    va_end(args);
    return n < 0 ? Size : static_cast<size_t>(n);
}

size_t KQ_SafeStrCopy(char *Dst, size_t Size, const char *Src) { return CopyOut(Dst, Size, Src); }

char *KQ_SafeStrGetIp4Addr(const char *Text, size_t Size, uint32_t *Out)
{
    std::string text(Text, strnlen(Text, Size));
    unsigned a, b, c, d;
    char tail;
    if (text.size() >= 32 || sscanf(text.c_str(), "%3u.%3u.%3u.%3u%c", &a, &b, &c, &d, &tail) != 4 || a > 255 ||
        b > 255 || c > 255 || d > 255 || text[0] < '0' || text[0] > '9')
        return nullptr;
    *Out = (a << 24) | (b << 16) | (c << 8) | d;
    return const_cast<char *>(Text);
}

char *KQ_SafeStrGetIp6Addr(const char *Text, size_t Size, KQ_IN6_ADDR *Out)
{
    std::string text(Text, strnlen(Text, Size));
    if (text.size() >= 64 || inet_pton(AF_INET6, text.c_str(), Out->In6.U6Addr8) != 1)
        return nullptr;
    return const_cast<char *>(Text);
}

size_t KQ_SafeStrFormatIp6Addr(char *Buf, size_t Size, const KQ_IN6_ADDR *Addr)
{
    FAIL_AS(size_t);
    char text[INET6_ADDRSTRLEN] = {0};
    inet_ntop(AF_INET6, Addr->In6.U6Addr8, text, sizeof(text));
    return CopyOut(Buf, Size, text);
}

int32_t KQ_WriteSyncWithFilePath(const char *Path, const char *Data, size_t Len)
{
    Host().Writes.emplace_back(Path, std::string(Data, Len));
    FAIL_AS(int32_t);
    fakehost::WriteFile(Path, std::string(Data, Len));
    return 0;
}

// The reference host's write for the agent's own files, recorded like the module's.
KQ_ERR_T KQ_HostWriteFile(const char *Path, const char *Data, size_t Len, int)
{
    return KQ_WriteSyncWithFilePath(Path, Data, Len);
}

KQ_ERR_T KQ_HostAppendFile(const char *Path, const char *Data, size_t Len, int)
{
    FAIL_AS(KQ_ERR_T);
    auto data = fakehost::ReadFile(Path);
    if (!data)
        return -ENOENT;
    fakehost::WriteFile(Path, *data + std::string(Data, Len));
    return 0;
}

KQ_ERR_T KQ_FileCopy(const char *From, const char *To)
{
    Host().Copies.emplace_back(From, To);
    FAIL_AS(KQ_ERR_T);
    auto data = fakehost::ReadFile(From);
    if (!data)
        return -ENOENT;
    fakehost::WriteFile(To, *data);
    return 0;
}

const char *KQ_AgentPathDhcpConf(void) { return Host().DhcpConfPath.c_str(); }
const char *KQ_AgentPathDhcpConfbak(void) { return Host().DhcpConfBakPath.c_str(); }

void *KQ_AllocAndGetConf(const char *Path)
{
    FAIL_NULL();
    auto data = fakehost::ReadFile(Path);
    if (!data)
        return nullptr;
    ++Host().LiveAllocations;
    return strdup(data->c_str());
}

void KQ_FreeConf(void *Conf)
{
    Host().Calls.push_back("KQ_FreeConf");
    Host().LiveAllocations -= Conf != nullptr;
    free(Conf);
}

int32_t KQ_CmdExec(char *Command) { return (Host().Commands.push_back(Command), Outcome(__func__)); }
int KQ_RTCSystem(const char *Command) { return (Host().Commands.push_back(Command), Outcome(__func__)); }
KQ_ERR_T KQ_KillPid(const pid_t Pid) { return (Host().Killed.push_back(Pid), Outcome(__func__, Host().KillResult)); }

BOOL KQ_IsPIDCorrectInPIDFile(pid_t Pid, const char *, const char *)
{
    return (Host().Calls.push_back(__func__), Host().CorrectPids.count(Pid) ? TRUE : FALSE);
}

KQ_ERR_T KQ_RtcGetNetNsExecCmdPrefix(uint32_t VpnId, char *Buf, size_t Size)
{
    FAIL_AS(KQ_ERR_T);
    auto it = Host().NetNsPrefix.find(std::to_string(VpnId));
    std::string prefix = it != Host().NetNsPrefix.end() ? it->second
                         : VpnId != 0                   ? "ip netns exec vpn" + std::to_string(VpnId) + " "
                                                        : "";
    if (prefix.size() >= Size)
        return -EOVERFLOW;
    return static_cast<KQ_ERR_T>(CopyOut(Buf, Size, prefix));
}

KQ_ERR_T KQ_RtcNetNsSaveAndSwitch(uint32_t VpnId, int *SavedFd)
{
    Host().NsSwitches.push_back("switch " + std::to_string(VpnId));
    FAIL_AS(KQ_ERR_T);
    *SavedFd = Host().NextNsFd;
    return 0;
}

KQ_ERR_T KQ_RtcNetNsSwitchToDefault(int *SavedFd)
{
    Host().Calls.push_back("KQ_RtcNetNsSwitchToDefault");
    Host().NsSwitches.push_back("back " + std::to_string(*SavedFd));
    *SavedFd = -1;
    return 0;
}

KQ_ERR_T KQ_RtcNetioLanGetByName(const char *IfName, KQ_CONF_LAN *Lan)
{
    FAIL_AS(KQ_ERR_T);
    auto it = Host().LanVpnId.find(IfName);
    if (it == Host().LanVpnId.end())
        return -ENODEV;
    Lan->CommConf.VpnId = it->second;
    return 0;
}

KQ_ERR_T KQ_RtcNetioInterfaceGetFirstIpv4(const char *IfName, uint32_t *Ip, uint8_t *MaskLen)
{
    Host().Calls.push_back(__func__);
    auto it = Host().FirstIpv4.find(IfName);
    if (it == Host().FirstIpv4.end())
        return -EADDRNOTAVAIL;
    *Ip = it->second;
    *MaskLen = 24;
    return 0;
}

KQ_ERR_T KQ_RtcNetioInterfaceGetFirstIpv6(const char *IfName, KQ_IN6_ADDR *Ip, uint8_t *PrefixLen)
{
    Host().Calls.push_back(__func__);
    auto it = Host().FirstIpv6.find(IfName);
    if (it == Host().FirstIpv6.end())
        return -EADDRNOTAVAIL;
    *Ip = it->second;
    *PrefixLen = 64;
    return 0;
}

uint32_t KQCtrl_IfmInterfaceGetDhcpv6Count(void) { return (Host().Calls.push_back(__func__), Host().Dhcpv6Count); }

KQ_ERR_T KQ_RtcRuleConfAdd(KQ_CONF_RULE *Rule, uint16_t Arg1, BOOL Arg2, BOOL Arg3)
{
    return (Host().RulesAdded.push_back({*Rule, Arg1, Arg2, Arg3}), Outcome(__func__));
}

KQ_ERR_T KQ_RtcRuleConfDel(uint8_t Zone, uint32_t Id, uint32_t Arg3, uint16_t Arg4, BOOL Arg5)
{
    return (Host().RulesDeleted.push_back({Zone, Id, Arg3, Arg4, Arg5}), Outcome(__func__));
}

KQ_ERR_T KQ_Socket(int32_t Family, int32_t Type, int32_t Protocol, KQ_SOCKET *Sock)
{
    Host().SocketsOpened.emplace_back(Family, Type, Protocol);
    FAIL_AS(KQ_ERR_T);
    *Sock = 77;
    return 0;
}

KQ_LEN_ERR_T KQ_SendTo(KQ_SOCKET, const void *Data, size_t Len, int32_t Flags, const struct sockaddr *To, int32_t ToLen)
{
    const auto *bytes = static_cast<const uint8_t *>(Data);
    const auto *addr = reinterpret_cast<const uint8_t *>(To);
    Host().Packets.push_back({{bytes, bytes + Len}, Flags, {addr, addr + ToLen}, ToLen});
    return Outcome(__func__, static_cast<long>(Len));
}

BOOL KQ_SocketIsErr(KQ_SOCKET Sock) { return Sock < 0 ? TRUE : FALSE; }

KQ_ERR_T KQ_SocketClose(KQ_SOCKET) { return (++Host().SocketsClosed, 0); }

void KQ_PbToConfIpRange(const Range *RangePb, KQ_AGENT_IP_RANGE *IpRange)
{
    Host().Calls.push_back(__func__);
    IpRange->StartIp = RangePb->begin;
    uint64_t end = RangePb->has_len && RangePb->len > 0 ? uint64_t(RangePb->begin) + RangePb->len - 1 : RangePb->begin;
    IpRange->EndIp = end > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(end);
}

KQ_ERR_T KQ_GetIpv6AddrFromIpv6Pb(const ProtobufCBinaryData *Pb, KQ_IN6_ADDR *Addr)
{
    FAIL_AS(KQ_ERR_T);
    if (Pb->data == nullptr || Pb->len != 16)
        return -EINVAL;
    memcpy(Addr->In6.U6Addr8, Pb->data, 16);
    return 0;
}

}  // extern "C"
