#include "kqAgentMessages.h"

#include <json-c/json.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "kqAgentChecks.h"
#include "kqAgentCommon.h"
#include "kqAgentProcess.h"
#include "kqCtrlDynamic.h"

namespace kqagent {

bool IsDhcpConfDocument(const std::string &text)
{
    json_object *root = json_tokener_parse(text.c_str());
    json_object *items = nullptr;
    const bool ok = root != nullptr && json_object_object_get_ex(root, "dhcps", &items) &&
                    json_object_is_type(items, json_type_array);
    json_object_put(root);
    return ok;
}

std::string BackupOf(const std::string &path)
{
    return path == KQ_AgentPathDhcpConf() ? std::string(KQ_AgentPathDhcpConfbak()) : path + ".bak";
}

LoadOutcome DescribeLoadFailure(const std::string &path, const std::string &backup, int result)
{
    const std::string at = "dhcp.conf at " + path;
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
        if (errno == ENOENT)
            return {true, at + " is missing; nothing to restore"};
        return {true, at + " cannot be read: " + strerror(errno)};
    }
    if (result == -ENOENT)
        return {false, at + " holds no interfaces; nothing to restore"};

    // The loader refuses a file it cannot read whole or parse; the backup may still be good.
    std::string problem;
    const auto text = ReadTextFile(path);
    if (static_cast<uint64_t>(st.st_size) > kDhcpConfMax)
        problem = "is " + std::to_string(st.st_size) + " bytes, more than the " + std::to_string(kDhcpConfMax) +
                  " the loader reads";
    else if (!text)
        problem = std::string("cannot be read: ") + strerror(errno);
    else if (!IsDhcpConfDocument(*text))
        problem = "is not a document";
    if (problem.empty())
        return {true, "loading " + at + " failed: " + ErrnoName(result) + " " + strerror(-result)};

    struct stat bst {};
    const auto backupText = ReadTextFile(backup);
    const bool backupGood = backupText && stat(backup.c_str(), &bst) == 0 &&
                            static_cast<uint64_t>(bst.st_size) <= kDhcpConfMax && IsDhcpConfDocument(*backupText);
    if (backupGood)
        return {true, at + " " + problem + "; its backup " + backup + " is intact: kqagent load " + backup};
    return {true, at + " " + problem + "; its backup " + backup + (backupText ? " is not usable either" : " is missing") +
                      "; nothing restored"};
}

std::string DescribeRefusal(RequestOp op, const std::string &ifname, int result)
{
    const std::string what = ErrnoName(result) + " " + strerror(-result);
    if (op == RequestOp::Delete)
        return "delete of " + ifname + " failed (" + what + "): its dnsmasq or the shared relay could not be stopped, "
               "or dhcp.conf could not be written";
    switch (-result) {
    case EINVAL:
        return "add of " + ifname + " refused (" + what + "): the module refused the request or the dnsmasq of " +
               ifname + " did not start (does " + ifname + " exist in its zone's namespace?)";
    case EOVERFLOW:
        return "add of " + ifname + " refused (" + what + "): a name, command or file does not fit the module's buffers";
    case ENOMEM:
        return "add of " + ifname + " refused (" + what + "): out of memory";
    default:
        return "add of " + ifname + " failed (" + what + ")";
    }
}

std::string RemoveLeftoverServerFile(const std::string &ifname)
{
    const KQ_CTRL_DYNAMIC_SERVICE_CONF *conf = _KQCtrl_GetDynamicConfByName(ifname.c_str());
    if (conf != nullptr && conf->DynamicServerConf.NetAddrType != 0)
        return "";  // the interface's last good server stays configured
    if (ProcessOf(ServerPidFile(ifname), "dnsmasq").running)
        return "";
    const std::string path = ServerConfFile(ifname);
    return unlink(path.c_str()) == 0 ? path : "";
}

}  // namespace kqagent
