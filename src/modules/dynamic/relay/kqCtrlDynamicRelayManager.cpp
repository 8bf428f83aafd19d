// The one dnsmasq that relays DHCPv4 for every relay interface: its "dhcp-relay=" lines,
// and its start, stop and restart through a fixed conf file and pid file.
//
// The relay runs in the agent's own network namespace, whatever the interfaces' zones, so
// its command line never carries a namespace prefix.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "kqCtrlDynamicInternal.h"
#include "kqCtrlDynamicLog.h"
#include "kqCtrlDynamicUtil.h"

namespace {

using kq::kCmdSize;
using kq::kConfPathSize;
using kq::kPidPathSize;
using kq::kPidTextSize;

constexpr char kRelayConfPath[] = KQ_DYNAMIC_RELAY_CONF_PATH;
constexpr char kRelayPidPath[] = KQ_DYNAMIC_RELAY_PID_PATH;
#define KQ_RELAY_START_CMD_FMT \
    "/usr/sbin/dnsmasq -K --conf-file=%s --port=0 --pid-file=" KQ_DYNAMIC_RELAY_PID_PATH " -z"

// Returns -EINVAL when the pid file is empty or names no usable process; *StrictText tells
// whether the whole text is a pid the stop may go on to check.
KQ_ERR_T _KQCtrl_GetDynamicRelayPid(int *Pid, bool *StrictText)
{
    char pidPath[kPidPathSize] = {0};
    if (KQ_SafeStrCopy(pidPath, sizeof(pidPath), kRelayPidPath) >= sizeof(pidPath)) {
        KQ_LOG(kq::log::Error, "pid file name is overflow\n");
        return -EOVERFLOW;
    }

    kq::File pidFile(pidPath, "re");
    if (!pidFile) {
        KQ_ERR_T ret = -errno;
        // No pid file is the normal state of a relay that is not running: a trace only.
        KQ_LOG(kq::log::Trace, "Open pid file %s failed(%d:%s)\n", pidPath, KQ_ERR_ARGS(ret));
        return ret;
    }

    // One byte short of the buffer, so the text always ends in a NUL.
    char pidText[kPidTextSize] = {0};
    size_t len = fread(pidText, 1, sizeof(pidText) - 1, pidFile.get());
    if (len == 0)
        return -EINVAL;
    int pid = atoi(pidText);
    // kill() with 0 or a negative pid signals the agent's own process group (or every process).
    if (pid <= 0)
        return -EINVAL;
    *Pid = pid;
    *StrictText = kq::IsStrictPidText(pidText, len);
    return 0;
}

KQ_ERR_T _KQCtrl_RemoveDynamicRelayPidFile(void)
{
    char pidPath[kPidPathSize] = {0};
    if (KQ_SafeStrCopy(pidPath, sizeof(pidPath), kRelayPidPath) >= sizeof(pidPath)) {
        KQ_LOG(kq::log::Error, "pid file name is overflow\n");
        return -EOVERFLOW;
    }
    // dnsmasq may already have removed it on its way out.
    (void)remove(pidPath);
    return 0;
}

KQ_ERR_T _KQCtrl_RemoveDynamicRelayConfFile(void)
{
    static_assert(sizeof(kRelayConfPath) <= kConfPathSize);
    // A missing conf file is what a stop wants anyway.
    if (access(kRelayConfPath, F_OK) == 0 && remove(kRelayConfPath) != 0) {
        KQ_ERR_T ret = -errno;
        KQ_LOG(kq::log::Error, "Remove conf file %s failed(%d:%s)\n", kRelayConfPath, KQ_ERR_ARGS(ret));
        return ret;
    }
    return 0;
}

KQ_ERR_T _KQCtrl_DynamicRelayStart(const char *Content)
{
    KQ_ERR_T ret = KQ_WriteSyncWithFilePath(kRelayConfPath, Content, strlen(Content));
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Write conf file %s failed(%d:%s)\n", kRelayConfPath, KQ_ERR_ARGS(ret));
        return ret;
    }

    char command[kCmdSize] = {0};
    if (KQ_SNPrintf(command, sizeof(command), KQ_RELAY_START_CMD_FMT, kRelayConfPath) >= sizeof(command)) {
        KQ_LOG(kq::log::Error, "Start dynamic relay cmd is overflow\n");
        return -EOVERFLOW;
    }

    ret = KQ_CmdExec(command);
    if (ret < 0) {
        // The executor's own code is replaced on purpose: callers only learn that it failed.
        KQ_LOG(kq::log::Error, "cmd:%s exec failed\n", command);
        return -EINVAL;
    }
    return ret;
}

}  // namespace

KQ_ERR_T KQCtrl_DynamicRelayConfAppend(KQ_FLEXIBLE_MSG *Content, KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf)
{
    const KQ_CTRL_IPV4_DYNAMIC_RELAY_CONF *relayConf = &DynamicRelayConf->RelayConf;
    // A count beyond the array is written as far as it fits: never a read past the array,
    // and never one record that stops the relay of every other interface.
    const uint32_t serverNum = kq::EntriesThatFit(__func__, DynamicRelayConf->IfName, "Relay servers",
                                                  relayConf->RelayServerNum, KQ_DYNAMIC_MAX_RELAY_SERVER);

    // Only the last append decides the result: earlier failures are overwritten on purpose.
    KQ_ERR_T ret = 0;
    for (uint32_t i = 0; i < serverNum; ++i)
        ret = KQ_FlexMsgSetFormatData(Content, "dhcp-relay=%u.%u.%u.%u,%u.%u.%u.%u\n",
                                      KQ_IPV4_OCTETS(relayConf->LanIp), KQ_IPV4_OCTETS(relayConf->RelayServer[i]));
    if (ret < 0)
        KQ_LOG(kq::log::Error, "Append dhcp relay conf failed(%d:%s)\n", KQ_ERR_ARGS(ret));
    return ret;
}

KQ_ERR_T KQCtrl_DynamicRelayStop(void)
{
    int pid = 0;
    bool strictText = false;
    if (_KQCtrl_GetDynamicRelayPid(&pid, &strictText) < 0) {
        // Nothing runs, so nothing is removed: the conf file stays as it is.
        KQ_LOG(kq::log::Trace, "Dynamic Relay is not exist\n");
        return 0;
    }

    // A stale pid file gets no signal and goes the way of a process that is already gone.
    KQ_ERR_T ret = 0;
    if (kq::PidFileNamesItsProcess(__func__, kRelayPidPath, pid, strictText, "dnsmasq")) {
        KQ_LOG(kq::log::Trace, "Pid is %d\n", pid);
        ret = KQ_KillPid(pid);
    }
    if (ret == -ESRCH)  // the process is already gone
        ret = 0;
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Kill pid %d failed(%d:%s)\n", pid, KQ_ERR_ARGS(ret));
        return ret;
    }

    ret = _KQCtrl_RemoveDynamicRelayPidFile();
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Remove dynamic relay pid file failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    ret = _KQCtrl_RemoveDynamicRelayConfFile();
    if (ret < 0)
        KQ_LOG(kq::log::Error, "Remove dynamic relay conf file failed(%d:%s)\n", KQ_ERR_ARGS(ret));
    return ret;
}

KQ_ERR_T KQCtrl_DynamicRelayRestart(const char *Content)
{
    KQ_ERR_T ret = KQCtrl_DynamicRelayStop();
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Stop dynamic relay failed\n");
        return ret;
    }
    ret = _KQCtrl_DynamicRelayStart(Content);
    if (ret < 0)
        KQ_LOG(kq::log::Error, "Start dynamic relay failed(%d:%s)\n", KQ_ERR_ARGS(ret));
    return ret;
}
