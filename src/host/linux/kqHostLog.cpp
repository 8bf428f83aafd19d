// Logging of the reference host: the logger record the module fetches for every line, the
// per-thread flex-log text, and thread and process identification.
#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <mutex>
#include <new>
#include <string>

#include "kqHostInternal.h"

namespace {

constexpr unsigned kDynamicModule = 62;
constexpr const char *kTag = "kqagent";

// Formats into a std::string; false when the format itself is refused.
bool FormatInto(std::string &out, const char *format, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    char small[256];
    int len = vsnprintf(small, sizeof(small), format, copy);
    va_end(copy);
    if (len < 0)
        return false;
    if (static_cast<size_t>(len) < sizeof(small)) {
        out.assign(small, static_cast<size_t>(len));
        return true;
    }
    out.resize(static_cast<size_t>(len) + 1);
    vsnprintf(out.data(), out.size(), format, args);
    out.resize(static_cast<size_t>(len));
    return true;
}

int SyslogPriority(uint32_t level)
{
    switch (level) {
    case 1: return LOG_DEBUG;
    case 2: return LOG_INFO;
    case 3: return LOG_WARNING;
    default: return LOG_ERR;
    }
}

void WriteLine(const char *tag, uint32_t level, const char *format, va_list args) noexcept
try {
    std::string text;
    if (!FormatInto(text, format, args))
        return;
    const char levelText[2] = {static_cast<char>('0' + (level < 9 ? level : 9)), '\0'};
    if (kqhost::DryRunTakes("log", levelText, text.data(), text.size()))
        return;
    if (kqhost::LogToSyslog()) {
        static std::once_flag opened;
        std::call_once(opened, [] { openlog(kTag, LOG_PID, LOG_DAEMON); });
        syslog(SyslogPriority(level), "%s", text.c_str());
        return;
    }
    // One write per line, so lines of several threads never interleave.
    std::string line = kqhost::JournalPrefix(SyslogPriority(level)) + (tag != nullptr ? tag : kTag) + ": " + text;
    if (line.empty() || line.back() != '\n')
        line += '\n';
    const char *p = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t n = write(STDERR_FILENO, p, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        p += n;
        left -= static_cast<size_t>(n);
    }
} catch (const std::bad_alloc &) {
    // A line that cannot be built is dropped; logging never fails its caller.
}

void LogImpl(const char *Tag, uint32_t Level, const char *Format, ...)
{
    va_list args;
    va_start(args, Format);
    WriteLine(Tag, Level, Format, args);
    va_end(args);
}

void LogValistImpl(const char *Tag, uint32_t Level, const char *Format, va_list Args)
{
    WriteLine(Tag, Level, Format, Args);
}

const char *LogLevel2StrImpl(uint32_t Level)
{
    switch (Level) {
    case 1: return "DEBUG:";
    case 2: return "INFO:";
    case 3: return "WARN:";
    case 4: return "ERROR:";
    default: return "";
    }
}

KQ_LOG_IMPL_S sg_LogImpl = {LogImpl, LogValistImpl, LogLevel2StrImpl};

thread_local std::string t_FlexLog;

char sg_DynamicName[] = "dynamic";
char sg_UnknownName[] = "unknown";

}  // namespace

namespace kqhost {

std::string JournalPrefix(int priority)
{
    return KQ_HostIsJournalStream(STDERR_FILENO) ? "<" + std::to_string(priority) + ">" : std::string();
}

void Log(uint32_t level, const char *format, ...)
{
    if (level < LogLevel())
        return;
    va_list args;
    va_start(args, format);
    try {
        std::string text;
        if (FormatInto(text, format, args))
            LogImpl(kTag, level, "<%shost> %s", LogLevel2StrImpl(level), text.c_str());
    } catch (const std::bad_alloc &) {
        // dropped, as any line that cannot be built
    }
    va_end(args);
}

}  // namespace kqhost

extern "C" {

int KQ_HostIsJournalStream(int Fd)
{
    // systemd names the stream it connected in JOURNAL_STREAM as "<device>:<inode>"; a
    // descriptor that was redirected since is another file.
    const char *stream = getenv("JOURNAL_STREAM");
    unsigned long long device = 0, inode = 0;
    char end = 0;
    struct stat st;
    if (stream == nullptr || sscanf(stream, "%llu:%llu%c", &device, &inode, &end) != 2 || fstat(Fd, &st) != 0)
        return 0;
    return st.st_dev == static_cast<dev_t>(device) && st.st_ino == static_cast<ino_t>(inode) ? 1 : 0;
}

BOOL KQ_LogTest(unsigned int Module, unsigned int Level, BOOL Normal, const char *Function)
{
    (void)Module;
    (void)Function;
    uint32_t threshold = kqhost::LogLevel();
    if (Normal == FALSE)
        return threshold <= 1 && Level >= threshold ? TRUE : FALSE;
    return Level >= threshold ? TRUE : FALSE;
}

KQ_LOG_IMPL_S *KQ_LogGetImplItem(uint32_t Module)
{
    (void)Module;
    return &sg_LogImpl;
}

char *KQ_LogGetModuleName(int Module)
{
    return Module == static_cast<int>(kDynamicModule) ? sg_DynamicName : sg_UnknownName;
}

const char *KQ_AgentLogGetTag(void)
{
    return kTag;
}

KQ_ERR_T KQ_ThreadGetName(char *Buf, int Size)
{
    if (Buf == nullptr || Size <= 0)
        return -EINVAL;
    int err = pthread_getname_np(pthread_self(), Buf, static_cast<size_t>(Size));
    if (err != 0) {
        Buf[0] = '\0';
        return -err;
    }
    return 0;
}

KQ_ERR_T KQ_FlexLogSetFormatData(const char *Format, ...)
{
    if (Format == nullptr)
        return -EINVAL;
    va_list args;
    va_start(args, Format);
    KQ_ERR_T ret = 0;
    try {
        ret = FormatInto(t_FlexLog, Format, args) ? 0 : -EINVAL;
    } catch (const std::bad_alloc &) {
        ret = -ENOMEM;
    }
    va_end(args);
    if (ret < 0)
        t_FlexLog.clear();
    return ret;
}

const char *KQ_FlexLogGetFormatBuff(void)
{
    return t_FlexLog.c_str();
}

void KQ_FlexLogDataReset(void)
{
    t_FlexLog.clear();
}

long KQ_PlatformGetCurrentThreadId(void)
{
    return static_cast<long>(syscall(SYS_gettid));
}

long KQ_PlatformGetCurrentProcessId(void)
{
    return static_cast<long>(getpid());
}

}  // extern "C"
