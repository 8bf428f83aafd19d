#include "kqAgentProcess.h"

#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

#include "kqAgentCommon.h"

namespace kqagent {

namespace {

std::string Basename(const std::string &path) { return path.substr(path.rfind('/') + 1); }

std::vector<std::string> SplitNul(const std::string &text)
{
    std::vector<std::string> parts;
    std::string current;
    for (char c : text) {
        if (c == '\0') {
            parts.push_back(current);
            current.clear();
        } else {
            current += c;
        }
    }
    if (!current.empty())
        parts.push_back(current);
    return parts;
}

// Field 22 of /proc/<pid>/stat; the command name (field 2) may hold blanks and ')'.
uint64_t StartTime(pid_t pid)
{
    const auto stat = ReadTextFile("/proc/" + std::to_string(pid) + "/stat");
    if (!stat)
        return 0;
    const size_t close = stat->rfind(')');
    if (close == std::string::npos)
        return 0;
    size_t at = close + 1;
    // `at` is the blank before field 3; each step moves it to the blank before the next field.
    for (int field = 3; field < 22 && at != std::string::npos; ++field)
        at = stat->find(' ', at + 1);
    return at == std::string::npos ? 0 : std::strtoull(stat->c_str() + at + 1, nullptr, 10);
}

uint64_t Inode(const std::string &path)
{
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? static_cast<uint64_t>(info.st_ino) : 0;
}

}  // namespace

std::string Process::CommandLine() const
{
    std::string line;
    for (const auto &arg : args)
        line += (line.empty() ? "" : " ") + arg;
    return line;
}

long PidMax()
{
    // Read once: it is asked for every pid file, thousands of them at a start.
    static const long pidMax = [] {
        const auto text = ReadTextFile("/proc/sys/kernel/pid_max");
        const long value = text ? std::strtol(text->c_str(), nullptr, 10) : 0;
        return value > 0 ? value : 4194304;  // the kernel's own ceiling
    }();
    return pidMax;
}

std::optional<pid_t> StrictPid(std::string_view text, long pidMax)
{
    if (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    if (text.empty() || text.size() > 10 || text[0] == '0')
        return std::nullopt;
    long long value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + (c - '0');
    }
    if (value < 2 || value > pidMax)
        return std::nullopt;
    return static_cast<pid_t>(value);
}

bool StartedWith(const std::vector<std::string> &args, const std::string &program, const std::string &pidFile)
{
    if (args.empty() || Basename(args[0]) != program)
        return false;
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string &arg = args[i];
        if (arg == pidFile)
            return true;
        const size_t equals = arg.find('=');
        if (equals != std::string::npos && arg.compare(equals + 1, std::string::npos, pidFile) == 0)
            return true;
    }
    return false;
}

std::optional<Process> ProcessAt(pid_t pid, Facts facts)
{
    const std::string proc = "/proc/" + std::to_string(pid);
    const auto cmdline = ReadTextFile(proc + "/cmdline");
    // A zombie has an empty command line: it has gone.
    if (!cmdline || cmdline->empty())
        return std::nullopt;
    Process process;
    process.pid = pid;
    process.args = SplitNul(*cmdline);
    if (facts == Facts::All) {
        process.startTime = StartTime(pid);
        process.netns = Inode(proc + "/ns/net");
    }
    return process;
}

Process ProcessOf(const std::string &pidFile, const std::string &program, Facts facts)
{
    Process process;
    const auto text = ReadTextFile(pidFile);
    if (!text)
        return process;
    process.pidFileExists = true;
    const auto pid = StrictPid(*text, PidMax());
    if (!pid)
        return process;
    process.pid = *pid;
    auto found = ProcessAt(*pid, facts);
    if (!found || !StartedWith(found->args, program, pidFile))
        return process;
    found->pidFileExists = true;
    found->running = true;
    return *found;
}

std::string ExitText(int code, int status)
{
    if (code == CLD_EXITED)
        return "exit status " + std::to_string(status);
    const char *name = sigabbrev_np(status);
    const std::string signal = std::to_string(status) + (name != nullptr ? std::string(" (") + name + ")" : "");
    return (code == CLD_DUMPED ? "dumped core on signal " : "killed by signal ") + signal;
}

std::string Fingerprint(std::string_view text)
{
    uint64_t hash = 14695981039346656037ull;
    for (unsigned char c : text) {
        hash ^= c;
        hash *= 1099511628211ull;
    }
    char hex[17];
    snprintf(hex, sizeof(hex), "%016llx", static_cast<unsigned long long>(hash));
    return hex;
}

}  // namespace kqagent
