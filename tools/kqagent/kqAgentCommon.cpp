#include "kqAgentCommon.h"

#include "kqCtrlDynamic.h"
#include "kqCtrlDynamicIfName.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace kqagent {

std::string ErrnoName(int result)
{
    const char *name = result < 0 ? strerrorname_np(-result) : nullptr;
    if (name == nullptr)
        return "error " + std::to_string(result);
    return std::string(name) + " (" + std::to_string(result) + ")";
}

bool IsUsableIfName(const std::string &name)
{
    // The module's own rule; an embedded NUL would hide the rest of the name from it.
    return name.size() <= 15 && name.find('\0') == std::string::npos &&
           KQCtrl_DynamicIfNameUsable(name.c_str()) == TRUE;
}

namespace {

std::string Format(const char *format, const std::string &first, const char *second = "")
{
    char path[256];
    const int len = snprintf(path, sizeof(path), format, first.c_str(), second);
    return len > 0 && static_cast<size_t>(len) < sizeof(path) ? path : "";
}

}  // namespace

std::string ServerConfFile(const std::string &ifname) { return Format(KQ_DYNAMIC_SERVER_CONF_FMT, ifname); }
std::string ServerLeaseFile(const std::string &ifname) { return Format(KQ_DYNAMIC_SERVER_LEASE_FMT, ifname); }
std::string ServerPidFile(const std::string &ifname) { return Format(KQ_DYNAMIC_SERVER_PID_FMT, ifname); }
std::string ClientPidFile(const std::string &ifname, bool v6)
{
    return Format(KQ_DYNAMIC_CLIENT_PID_FMT, ifname, v6 ? "dhclient6" : "dhclient");
}
std::string ClientLeaseFile(const std::string &ifname, bool v6)
{
    return Format(v6 ? KQ_DYNAMIC_CLIENT6_LEASE_FMT : KQ_DYNAMIC_CLIENT4_LEASE_FMT, ifname);
}

std::optional<uint32_t> ParseIpv4(const std::string &text)
{
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1)
        return std::nullopt;
    return ntohl(address.s_addr);
}

std::string FormatIpv4(uint32_t address)
{
    return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 0xff) + "." +
           std::to_string((address >> 8) & 0xff) + "." + std::to_string(address & 0xff);
}

std::optional<std::vector<uint8_t>> ParseIpv6(const std::string &text)
{
    std::vector<uint8_t> bytes(16);
    if (inet_pton(AF_INET6, text.c_str(), bytes.data()) != 1)
        return std::nullopt;
    return bytes;
}

std::string FormatIpv6(const uint8_t *bytes)
{
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, bytes, text, sizeof(text));
    return text;
}

std::string EscapeForLog(const std::string &text)
{
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\') {
            escaped += "\\\\";
        } else if (c == '\n') {
            escaped += "\\n";
        } else if (c == '\r') {
            escaped += "\\r";
        } else if (c == '\t') {
            escaped += "\\t";
        } else if (byte < 0x20 || byte == 0x7f) {
            static constexpr char kHex[] = "0123456789abcdef";
            escaped += "\\x";
            escaped += kHex[byte >> 4];
            escaped += kHex[byte & 0xf];
        } else {
            escaped += c;
        }
    }
    return escaped;
}

std::optional<std::string> ReadTextFile(const std::string &path)
{
    // Plain reads: the agent reads thousands of pid files and /proc entries at a start.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            const int error = errno;
            close(fd);
            errno = error;
            return std::nullopt;
        }
        if (n == 0)
            break;
        text.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return text;
}

int InZone(uint32_t zone, std::ostream &err, const std::function<int()> &fn)
{
    int saved = -1;
    if (zone != 0) {
        const KQ_ERR_T result = KQ_RtcNetNsSaveAndSwitch(zone, &saved);
        if (result < 0) {
            err << "kqagent: cannot enter the namespace of zone " << zone << ": " << ErrnoName(result) << "\n";
            KQ_RtcNetNsSwitchToDefault(&saved);
            return result;
        }
    }
    const int result = fn();
    KQ_RtcNetNsSwitchToDefault(&saved);
    return result;
}

}  // namespace kqagent
