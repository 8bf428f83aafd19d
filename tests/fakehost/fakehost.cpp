#include "fakehost.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kqCtrlDynamicInternal.h"

namespace fakehost {

State &Host()
{
    static State state;
    return state;
}

void Reset()
{
    long live = Host().LiveAllocations;
    Host() = State{};
    // Allocations outlive a reset (the registry keeps its nodes); the count stays honest.
    Host().LiveAllocations = live;
}

int CallCount(const std::string &Op)
{
    int n = 0;
    for (const auto &c : Host().Calls)
        n += c == Op;
    return n;
}

std::vector<std::string> LogTexts()
{
    std::vector<std::string> out;
    for (const auto &l : Host().Logs)
        out.push_back(l.Text);
    return out;
}

std::vector<std::string> Messages()
{
    std::vector<std::string> out;
    for (const auto &l : Host().Logs) {
        size_t pos = l.Text.find("] ");
        out.push_back(pos == std::string::npos ? l.Text : l.Text.substr(pos + 2));
    }
    return out;
}

bool HasMessage(const std::string &Message)
{
    for (const auto &m : Messages())
        if (m == Message)
            return true;
    return false;
}

std::string Message(size_t Index)
{
    auto all = Messages();
    return Index < all.size() ? all[Index] : std::string("<no line ") + std::to_string(Index) + ">";
}

void ClearRegistry()
{
    // Each delete removes the first node of that name, so a repeated name is named again.
    for (const std::string &name : kqtest::RegistryNames())
        _KQCtrl_DeleteDynamicConfListNode(name.c_str());
}

std::vector<std::string> Lines()
{
    std::vector<std::string> out;
    for (const auto &m : Messages())
        if (m.rfind("dump flexlog:", 0) != 0)
            out.push_back(m);
    return out;
}

std::vector<std::string> ErrorLines()
{
    std::vector<std::string> out;
    for (const auto &l : Host().Logs) {
        size_t pos = l.Text.find("] ");
        std::string m = pos == std::string::npos ? l.Text : l.Text.substr(pos + 2);
        if (l.Level == 4 && m.rfind("dump flexlog:", 0) != 0)
            out.push_back(m);
    }
    return out;
}

void RemoveModuleFiles()
{
    std::remove(Host().DhcpConfPath.c_str());
    std::remove(Host().DhcpConfBakPath.c_str());
    std::remove(kqtest::kRelayConfPath);
    std::remove(kqtest::kRelayPidPath);
    for (const char *name : {"eth1", "eth2", "eth3", "eth4", "eth5", "eth9", "lan0", "lan1"})
        for (const char *kind : {"/etc/vyr_dhcpd_%s.conf", "/etc/vyr_dhcpd_%s.leases", "/var/run/vyr_dhcpd_%s.pid"}) {
            char path[64];
            snprintf(path, sizeof(path), kind, name);
            std::remove(path);
        }
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

static void MakeParents(const std::string &Path)
{
    for (size_t pos = Path.find('/', 1); pos != std::string::npos; pos = Path.find('/', pos + 1))
        mkdir(Path.substr(0, pos).c_str(), 0755);
}

void WriteFile(const std::string &Path, const std::string &Data)
{
    MakeParents(Path);
    std::ofstream out(Path, std::ios::binary | std::ios::trunc);
    out << Data;
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
    if (!stat)
        return false;
    size_t paren = stat->rfind(')');
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
    int n = 0;
    for (const auto &c : h.Calls)
        n += c == Op;
    auto at = h.FailOnCall.find(Op);
    auto fail = h.Fail.find(Op);
    if (at != h.FailOnCall.end()) {
        if (at->second != n)
            return false;
        *Result = fail != h.Fail.end() ? fail->second : -EIO;
        return true;
    }
    if (fail != h.Fail.end()) {
        *Result = fail->second;
        return true;
    }
    return false;
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

void FakeLog(const char *Tag, uint32_t Level, const char *Format, ...)
{
    (void)Tag;
    va_list args;
    va_start(args, Format);
    Host().Logs.push_back({Level, VFormat(Format, args)});
    va_end(args);
}

void FakeLogValist(const char *Tag, uint32_t Level, const char *Format, va_list Args)
{
    (void)Tag;
    Host().Logs.push_back({Level, VFormat(Format, Args)});
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

}  // namespace

extern "C" {

BOOL KQ_LogTest(unsigned int Module, unsigned int Level, BOOL Normal, const char *Function)
{
    (void)Module;
    (void)Function;
    Host().Calls.push_back("KQ_LogTest");
    if (!Normal)
        return Host().LogTestDump ? TRUE : FALSE;
    return Level >= Host().LogThreshold ? TRUE : FALSE;
}

KQ_LOG_IMPL_S *KQ_LogGetImplItem(uint32_t Module)
{
    (void)Module;
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
    snprintf(Buf, Size, "%s", Host().ThreadName->c_str());
    return 0;
}

KQ_ERR_T KQ_FlexLogSetFormatData(const char *Format, ...)
{
    long r;
    if (Failing("KQ_FlexLogSetFormatData", &r))
        return static_cast<KQ_ERR_T>(r);
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
    long r;
    if (Failing("KQ_AgentMemZeroAlloc", &r))
        return nullptr;
    void *p = calloc(1, Size);
    if (p != nullptr)
        ++Host().LiveAllocations;
    return p;
}

void KQ_AgentMemFree(void *Ptr)
{
    if (Ptr != nullptr)
        --Host().LiveAllocations;
    free(Ptr);
}

KQ_FLEXIBLE_MSG *KQ_FlexMsgAlloc(void)
{
    long r;
    if (Failing("KQ_FlexMsgAlloc", &r))
        return nullptr;
    auto *m = new FakeFlexMsg;
    m->Msg.FlexBuf = m->Text.data();
    ++Host().LiveAllocations;
    return &m->Msg;
}

KQ_ERR_T KQ_FlexMsgSetFormatData(KQ_FLEXIBLE_MSG *Msg, const char *Format, ...)
{
    long r;
    if (Failing("KQ_FlexMsgSetFormatData", &r))
        return static_cast<KQ_ERR_T>(r);
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
    if (Msg == nullptr)
        return;
    --Host().LiveAllocations;
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

size_t KQ_SafeStrCopy(char *Dst, size_t Size, const char *Src)
{
    size_t len = strlen(Src);
    if (Size > 0) {
        size_t n = len < Size - 1 ? len : Size - 1;
        memcpy(Dst, Src, n);
        Dst[n] = '\0';
    }
    return len;
}

char *KQ_SafeStrGetIp4Addr(const char *Text, size_t Size, uint32_t *Out)
{
    char buf[32] = {0};
    size_t len = strnlen(Text, Size);
    if (len >= sizeof(buf))
        return nullptr;
    memcpy(buf, Text, len);
    unsigned a, b, c, d;
    char tail;
    if (sscanf(buf, "%3u.%3u.%3u.%3u%c", &a, &b, &c, &d, &tail) != 4 || a > 255 || b > 255 ||
        c > 255 || d > 255 || buf[0] < '0' || buf[0] > '9')
        return nullptr;
    *Out = (a << 24) | (b << 16) | (c << 8) | d;
    return const_cast<char *>(Text);
}

char *KQ_SafeStrGetIp6Addr(const char *Text, size_t Size, KQ_IN6_ADDR *Out)
{
    char buf[64] = {0};
    size_t len = strnlen(Text, Size);
    if (len >= sizeof(buf))
        return nullptr;
    memcpy(buf, Text, len);
    if (inet_pton(AF_INET6, buf, Out->In6.U6Addr8) != 1)
        return nullptr;
    return const_cast<char *>(Text);
}

size_t KQ_SafeStrFormatIp6Addr(char *Buf, size_t Size, const KQ_IN6_ADDR *Addr)
{
    long r;
    if (Failing("KQ_SafeStrFormatIp6Addr", &r))
        return static_cast<size_t>(r);
    char text[INET6_ADDRSTRLEN] = {0};
    inet_ntop(AF_INET6, Addr->In6.U6Addr8, text, sizeof(text));
    return KQ_SafeStrCopy(Buf, Size, text);
}

int32_t KQ_WriteSyncWithFilePath(const char *Path, const char *Data, size_t Len)
{
    long r;
    Host().Writes.emplace_back(Path, std::string(Data, Len));
    if (Failing("KQ_WriteSyncWithFilePath", &r))
        return static_cast<int32_t>(r);
    fakehost::WriteFile(Path, std::string(Data, Len));
    return 0;
}

KQ_ERR_T KQ_FileCopy(const char *From, const char *To)
{
    long r;
    Host().Copies.emplace_back(From, To);
    if (Failing("KQ_FileCopy", &r))
        return static_cast<KQ_ERR_T>(r);
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
    long r;
    if (Failing("KQ_AllocAndGetConf", &r))
        return nullptr;
    auto data = fakehost::ReadFile(Path);
    if (!data)
        return nullptr;
    char *text = static_cast<char *>(calloc(1, data->size() + 1));
    memcpy(text, data->data(), data->size());
    ++Host().LiveAllocations;
    return text;
}

void KQ_FreeConf(void *Conf)
{
    Host().Calls.push_back("KQ_FreeConf");
    if (Conf != nullptr)
        --Host().LiveAllocations;
    free(Conf);
}

int32_t KQ_CmdExec(char *Command)
{
    long r;
    Host().Commands.push_back(Command);
    if (Failing("KQ_CmdExec", &r))
        return static_cast<int32_t>(r);
    return 0;
}

int KQ_RTCSystem(const char *Command)
{
    long r;
    Host().Commands.push_back(Command);
    if (Failing("KQ_RTCSystem", &r))
        return static_cast<int>(r);
    return 0;
}

KQ_ERR_T KQ_KillPid(const pid_t Pid)
{
    long r;
    Host().Killed.push_back(Pid);
    if (Failing("KQ_KillPid", &r))
        return static_cast<KQ_ERR_T>(r);
    return static_cast<KQ_ERR_T>(Host().KillResult);
}

BOOL KQ_IsPIDCorrectInPIDFile(pid_t Pid, const char *IfName, const char *DynamicStr)
{
    (void)IfName;
    (void)DynamicStr;
    Host().Calls.push_back("KQ_IsPIDCorrectInPIDFile");
    return Host().CorrectPids.count(Pid) ? TRUE : FALSE;
}

KQ_ERR_T KQ_RtcGetNetNsExecCmdPrefix(uint32_t VpnId, char *Buf, size_t Size)
{
    long r;
    if (Failing("KQ_RtcGetNetNsExecCmdPrefix", &r))
        return static_cast<KQ_ERR_T>(r);
    std::string prefix;
    auto it = Host().NetNsPrefix.find(std::to_string(VpnId));
    if (it != Host().NetNsPrefix.end())
        prefix = it->second;
    else if (VpnId != 0)
        prefix = "ip netns exec vpn" + std::to_string(VpnId) + " ";
    if (prefix.size() >= Size)
        return -EOVERFLOW;
    memcpy(Buf, prefix.c_str(), prefix.size() + 1);
    return static_cast<KQ_ERR_T>(prefix.size());
}

KQ_ERR_T KQ_RtcNetNsSaveAndSwitch(uint32_t VpnId, int *SavedFd)
{
    long r;
    Host().NsSwitches.push_back("switch " + std::to_string(VpnId));
    if (Failing("KQ_RtcNetNsSaveAndSwitch", &r))
        return static_cast<KQ_ERR_T>(r);
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
    long r;
    if (Failing("KQ_RtcNetioLanGetByName", &r))
        return static_cast<KQ_ERR_T>(r);
    auto it = Host().LanVpnId.find(IfName);
    if (it == Host().LanVpnId.end())
        return -ENODEV;
    Lan->CommConf.VpnId = it->second;
    return 0;
}

KQ_ERR_T KQ_RtcNetioInterfaceGetFirstIpv4(const char *IfName, uint32_t *Ip, uint8_t *MaskLen)
{
    Host().Calls.push_back("KQ_RtcNetioInterfaceGetFirstIpv4");
    auto it = Host().FirstIpv4.find(IfName);
    if (it == Host().FirstIpv4.end())
        return -EADDRNOTAVAIL;
    *Ip = it->second;
    *MaskLen = 24;
    return 0;
}

KQ_ERR_T KQ_RtcNetioInterfaceGetFirstIpv6(const char *IfName, KQ_IN6_ADDR *Ip, uint8_t *PrefixLen)
{
    Host().Calls.push_back("KQ_RtcNetioInterfaceGetFirstIpv6");
    auto it = Host().FirstIpv6.find(IfName);
    if (it == Host().FirstIpv6.end())
        return -EADDRNOTAVAIL;
    *Ip = it->second;
    *PrefixLen = 64;
    return 0;
}

uint32_t KQCtrl_IfmInterfaceGetDhcpv6Count(void)
{
    Host().Calls.push_back("KQCtrl_IfmInterfaceGetDhcpv6Count");
    return Host().Dhcpv6Count;
}

KQ_ERR_T KQ_RtcRuleConfAdd(KQ_CONF_RULE *Rule, uint16_t Arg1, BOOL Arg2, BOOL Arg3)
{
    long r;
    Host().RulesAdded.push_back({*Rule, Arg1, Arg2, Arg3});
    if (Failing("KQ_RtcRuleConfAdd", &r))
        return static_cast<KQ_ERR_T>(r);
    return 0;
}

KQ_ERR_T KQ_RtcRuleConfDel(uint8_t Zone, uint32_t Id, uint32_t Arg3, uint16_t Arg4, BOOL Arg5)
{
    long r;
    Host().RulesDeleted.push_back({Zone, Id, Arg3, Arg4, Arg5});
    if (Failing("KQ_RtcRuleConfDel", &r))
        return static_cast<KQ_ERR_T>(r);
    return 0;
}

KQ_ERR_T KQ_Socket(int32_t Family, int32_t Type, int32_t Protocol, KQ_SOCKET *Sock)
{
    long r;
    Host().SocketsOpened.emplace_back(Family, Type, Protocol);
    if (Failing("KQ_Socket", &r))
        return static_cast<KQ_ERR_T>(r);
    *Sock = 77;
    return 0;
}

KQ_LEN_ERR_T KQ_SendTo(KQ_SOCKET Sock, const void *Data, size_t Len, int32_t Flags,
                       const struct sockaddr *To, int32_t ToLen)
{
    (void)Sock;
    long r;
    const auto *bytes = static_cast<const uint8_t *>(Data);
    const auto *addr = reinterpret_cast<const uint8_t *>(To);
    Host().Packets.push_back({std::vector<uint8_t>(bytes, bytes + Len), Flags,
                              std::vector<uint8_t>(addr, addr + ToLen), ToLen});
    if (Failing("KQ_SendTo", &r))
        return r;
    return static_cast<KQ_LEN_ERR_T>(Len);
}

BOOL KQ_SocketIsErr(KQ_SOCKET Sock) { return Sock < 0 ? TRUE : FALSE; }

KQ_ERR_T KQ_SocketClose(KQ_SOCKET Sock)
{
    (void)Sock;
    ++Host().SocketsClosed;
    return 0;
}

void KQ_PbToConfIpRange(const Range *RangePb, KQ_AGENT_IP_RANGE *IpRange)
{
    Host().Calls.push_back("KQ_PbToConfIpRange");
    IpRange->StartIp = RangePb->begin;
    uint64_t end = RangePb->has_len && RangePb->len > 0 ? uint64_t(RangePb->begin) + RangePb->len - 1
                                                        : RangePb->begin;
    IpRange->EndIp = end > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(end);
}

KQ_ERR_T KQ_GetIpv6AddrFromIpv6Pb(const ProtobufCBinaryData *Pb, KQ_IN6_ADDR *Addr)
{
    long r;
    if (Failing("KQ_GetIpv6AddrFromIpv6Pb", &r))
        return static_cast<KQ_ERR_T>(r);
    if (Pb->data == nullptr || Pb->len != 16)
        return -EINVAL;
    memcpy(Addr->In6.U6Addr8, Pb->data, 16);
    return 0;
}

}  // extern "C"
