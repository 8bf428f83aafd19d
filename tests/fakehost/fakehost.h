// The fake host for unit tests: implements every KQ_ host operation, records each call
// and what it was given, and can be told to fail any of them.
//
// Files are real: KQ_WriteSyncWithFilePath, KQ_FileCopy and KQ_AllocAndGetConf use the
// file system (tests run in a private mount namespace), so what the module later reads,
// removes or tests with access() behaves as on a real host. Commands are only recorded:
// KQ_CmdExec and KQ_RTCSystem never spawn anything.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "kqtest.h"

namespace fakehost {

struct LogLine {
    uint32_t Level;
    std::string Text;  // the whole line as the host logger received it, formatted
};

struct RuleAdd {
    KQ_CONF_RULE Rule;
    uint16_t Arg1;
    BOOL Arg2, Arg3;
};

struct RuleDel {
    uint8_t Zone;
    uint32_t Id, Arg3;
    uint16_t Arg4;
    BOOL Arg5;
};

struct Packet {
    std::vector<uint8_t> Data;
    int32_t Flags;
    std::vector<uint8_t> Addr;  // the socket address bytes as passed
    int32_t AddrLen;
};

struct State {
    // ---- What the host answers (set by the test) ----
    std::map<std::string, uint32_t> LanVpnId;   // KQ_RtcNetioLanGetByName; unknown -> -ENODEV
    std::map<std::string, uint32_t> FirstIpv4;  // KQ_RtcNetioInterfaceGetFirstIpv4
    std::map<std::string, KQ_IN6_ADDR> FirstIpv6;
    uint32_t Dhcpv6Count = 0;
    std::string DhcpConfPath = "/etc/kqagent/dhcp.conf", DhcpConfBakPath = "/etc/kqagent/dhcp.conf.bak";
    std::set<pid_t> CorrectPids;                // KQ_IsPIDCorrectInPIDFile says TRUE for these
    std::map<std::string, std::string> NetNsPrefix;  // by VPN id as text; default "ip netns exec vpn<id> " (empty for 0)

    // Logging set-up.
    // KQ_LogTest: level >= threshold; its answer for the flex-log dump (Normal = 0); whether
    // the impl record has its Log and LogLevel2Str pointers.
    unsigned LogThreshold = 1;
    bool LogTestDump = true, HasLog = true, HasLevel2Str = true;
    long ThreadId = 200, ProcessId = 100;
    std::optional<std::string> ThreadName = "main";  // nullopt: KQ_ThreadGetName fails

    // ---- Failures on demand ----
    // Fail[op] = result: every call of op returns that result (for the operations that
    // return a pointer, any value makes them return null). FailOnCall[op] = n fails only
    // the n-th call (1-based) with Fail[op]'s result, or -EIO when none is set.
    std::map<std::string, long> Fail;
    std::map<std::string, int> FailOnCall;

    // ---- What the module did ----
    std::vector<std::string> Calls;       // every host operation, by name, in order
    std::vector<LogLine> Logs;
    std::vector<std::string> Commands;    // KQ_CmdExec and KQ_RTCSystem lines, in order
    std::vector<std::pair<std::string, std::string>> Writes, Copies;  // (path, data), (from, to)
    std::vector<pid_t> Killed;            // KQ_KillPid arguments
    long KillResult = 0;                  // what KQ_KillPid returns when not failed
    std::vector<RuleAdd> RulesAdded;
    std::vector<RuleDel> RulesDeleted;
    std::vector<Packet> Packets;
    std::vector<std::tuple<int32_t, int32_t, int32_t>> SocketsOpened;
    int SocketsClosed = 0;
    std::vector<std::string> NsSwitches;  // "switch <vpnId>" and "back <savedFd>", in order
    int NextNsFd = 40;                    // the saved handle KQ_RtcNetNsSaveAndSwitch hands out
    std::string FlexLog;                  // the flex-log text as the module left it
    long LiveAllocations = 0;             // KQ_AgentMemZeroAlloc minus KQ_AgentMemFree, plus flex msgs and conf texts
};

State &Host();

// Clears every recording and every setting back to the defaults above.
void Reset();

// Counts calls of one operation.
int CallCount(const std::string &Op);

// The log lines' texts; their message parts (after the "] " of the prefix); the messages
// without the flex-log dump lines that follow each error; only the error lines (level 4).
std::vector<std::string> LogTexts(), Messages(), Lines(), ErrorLines();
bool HasMessage(const std::string &Message);  // exact match on the message part
std::string Message(size_t Index);

// The module's registry helpers for tests: empties the registry (frees every node).
void ClearRegistry();

using kqtest::Ip4;
using kqtest::Ip6;

// Removes dhcp.conf, its backup and every conf, lease and pid file of the test interfaces
// (eth1-eth9, lan0-lan1) and of the relay.
void RemoveModuleFiles();

// A real, idle process whose /proc/<pid>/cmdline reads Program followed by Args (and a
// shell's own few words), the way a dnsmasq or dhclient the module started looks: what
// the module's pid-file checks want to see. Killed and reaped when the object goes.
class Lookalike {
public:
    Lookalike(const std::string &Program, const std::vector<std::string> &Args);
    ~Lookalike();
    Lookalike(const Lookalike &) = delete;
    Lookalike &operator=(const Lookalike &) = delete;
    pid_t Pid() const { return Child; }
    std::string PidText() const { return std::to_string(Child) + "\n"; }
    bool Alive() const;  // not yet killed (a zombie counts as gone)

private:
    pid_t Child = -1;
    int Feed = -1;  // the write end of the shell's stdin, held open so that it waits
};

// Reads a whole file; nullopt when missing.
std::optional<std::string> ReadFile(const std::string &Path);
void WriteFile(const std::string &Path, const std::string &Data);

// The usual unit-test fixture: a fresh fake host, an empty registry, no files left by
// another test, and every host allocation given back once the registry is cleared.
class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        Reset();
        ClearRegistry();
        RemoveModuleFiles();
        Live = Host().LiveAllocations;
    }
    void TearDown() override
    {
        ClearRegistry();
        RemoveModuleFiles();
        EXPECT_EQ(Host().LiveAllocations, Live) << "host allocations not given back";
    }
    long Live = 0;
};

}  // namespace fakehost
