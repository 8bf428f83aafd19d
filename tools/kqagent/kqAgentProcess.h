// A service process as the agent knows it: only through its pid file, as the module does.
//
// A pid file names a running service when its text is a whole decimal pid from 2 to the
// kernel's pid_max with nothing but a trailing newline, and /proc/<pid>/cmdline shows the
// program as the base name of its first argument and the pid file's path among its
// arguments (alone or after an "=", as in "--pid-file=<path>"). Anything else is stale: the
// process is gone, or the pid now belongs to someone else.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kqagent {

struct Process {
    bool pidFileExists = false;
    pid_t pid = 0;              // the pid the file names when its text is a strict pid, else 0
    bool running = false;       // that pid is the program started with this pid file
    uint64_t startTime = 0;     // clock ticks after boot (/proc/<pid>/stat), tells a pid's reuse apart
    uint64_t netns = 0;         // inode of its network namespace
    std::vector<std::string> args;  // its command line when running

    bool Stale() const { return pidFileExists && !running; }
    std::string CommandLine() const;
};

// The pid of a pid file's text under the rule above, or nullopt.
std::optional<pid_t> StrictPid(std::string_view text, long pidMax);
long PidMax();

// True when args (a /proc cmdline split at NULs) is `program` started with `pidFile`.
bool StartedWith(const std::vector<std::string> &args, const std::string &program, const std::string &pidFile);

// How much of a process to read: whether it runs, or that and its start time and namespace.
enum class Facts { Running, All };

// The process a pid file names, judged by the rule above.
Process ProcessOf(const std::string &pidFile, const std::string &program, Facts facts = Facts::All);

// The same facts for a pid, without a pid file: nullopt when no such process runs.
std::optional<Process> ProcessAt(pid_t pid, Facts facts = Facts::All);

// How a child ended, from waitid's si_code and si_status: "exit status 3", "killed by
// signal 9 (KILL)", "dumped core on signal 11 (SEGV)".
std::string ExitText(int code, int status);

// 64-bit FNV-1a of a text, in 16 hexadecimal digits: a stable fingerprint for the agent's
// own records, not a security measure.
std::string Fingerprint(std::string_view text);

}  // namespace kqagent
