#include "kqCtrlDynamicUtil.h"

#include <errno.h>
#include <stdlib.h>

#include "kqCtrlDynamicIfName.h"
#include "kqCtrlDynamicLog.h"

namespace kq {

namespace {

// The kernel's ceiling for pid_max on 64-bit machines, used when the setting cannot be read.
constexpr long kPidMaxLimit = 4194304;
// Our own dnsmasq and dhclient command lines are well under this; a longer one is not ours.
constexpr size_t kCmdlineSize = 4096;

long PidMax()
{
    File file("/proc/sys/kernel/pid_max", "re");
    char text[24] = {0};
    if (!file || fread(text, 1, sizeof(text) - 1, file.get()) == 0)
        return kPidMaxLimit;
    char *end = nullptr;
    long value = strtol(text, &end, 10);
    return value > 0 && end != text ? value : kPidMaxLimit;
}

// The text after the last '/' of Path.
const char *BaseName(const char *Path)
{
    const char *slash = strrchr(Path, '/');
    return slash != nullptr ? slash + 1 : Path;
}

bool IsProcessStartedWith(pid_t Pid, const char *Program, const char *PidFilePath)
{
    char path[40] = {0};
    (void)snprintf(path, sizeof(path), "/proc/%d/cmdline", static_cast<int>(Pid));
    File file(path, "re");
    if (!file)
        return false;  // gone (or never there)
    char cmdline[kCmdlineSize + 1] = {0};
    size_t len = fread(cmdline, 1, kCmdlineSize, file.get());
    if (len == 0 || len == kCmdlineSize)
        return false;  // a zombie has no command line; a huge one is not ours
    if (strcmp(BaseName(cmdline), Program) != 0)
        return false;
    for (size_t at = strlen(cmdline) + 1; at < len; at += strlen(cmdline + at) + 1) {
        const char *arg = cmdline + at;
        const char *equals = strchr(arg, '=');
        if (strcmp(arg, PidFilePath) == 0 || (equals != nullptr && strcmp(equals + 1, PidFilePath) == 0))
            return true;
    }
    return false;
}

}  // namespace

bool IsUsableIfName(const char *IfName)
{
    return KQCtrl_DynamicIfNameUsable(IfName) == TRUE;
}

bool IsStrictPidText(const char *Text, size_t Len)
{
    if (Len > 0 && Text[Len - 1] == '\n')
        --Len;
    if (Len == 0 || Len > 10 || Text[0] == '0')
        return false;
    long value = 0;
    for (size_t i = 0; i < Len; ++i) {
        if (Text[i] < '0' || Text[i] > '9')
            return false;
        value = value * 10 + (Text[i] - '0');
    }
    return value >= 2 && value <= PidMax();
}

bool PidFileNamesItsProcess(const char *Caller, const char *PidFilePath, pid_t Pid, bool StrictText,
                            const char *Program)
{
    if (StrictText && IsProcessStartedWith(Pid, Program, PidFilePath))
        return true;
    KQ_LOG_AS(Caller, log::Warning, "Pid file %s is stale: it names no %s started with it, nothing is signalled\n",
              PidFilePath, Program);
    return false;
}

uint32_t EntriesThatFit(const char *Caller, const char *IfName, const char *What, uint32_t Count,
                        uint32_t Capacity)
{
    if (Count <= Capacity)
        return Count;
    KQ_LOG_AS(Caller, log::Warning, "%s of %s: %u entries, only the first %u written, %u dropped\n", What, IfName,
              Count, Capacity, Count - Capacity);
    return Capacity;
}

}  // namespace kq
