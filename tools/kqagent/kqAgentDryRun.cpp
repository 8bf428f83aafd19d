#include "kqAgentDryRun.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <json-c/json.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <set>

#include "kqAgentCommon.h"
#include "kqAgentHealth.h"
#include "kqAgentJson.h"
#include "kqHostLinux.h"

namespace {

// What the module does in the dry run's child; null everywhere else.
std::vector<kqagent::DryEffect> *sg_Effects = nullptr;
std::vector<std::string> *sg_Errors = nullptr;
// The files the child removed so far: gone for its later reads, as they would be.
std::set<std::string> *sg_Removed = nullptr;

bool RemovedInDryRun(const char *path)
{
    if (sg_Removed == nullptr || path == nullptr || sg_Removed->count(path) == 0)
        return false;
    errno = ENOENT;
    return true;
}

}  // namespace

// The module signals a dnsmasq, removes its files and reads pid files with libc directly.
// The agent's own definitions come first in the process's symbol lookup, so in the dry
// run's child signals and removals are recorded instead, and a removed file is gone for
// later reads; everywhere else they do what libc does.
extern "C" int kill(pid_t pid, int sig) noexcept
{
    if (sg_Effects != nullptr && sig != 0) {
        sg_Effects->push_back({"signal", std::to_string(pid), std::to_string(sig)});
        return 0;
    }
    return static_cast<int>(syscall(SYS_kill, pid, sig));
}

extern "C" int remove(const char *path) noexcept
{
    if (sg_Effects != nullptr) {
        if (access(path, F_OK) != 0)
            return -1;
        sg_Effects->push_back({"remove", path, ""});
        sg_Removed->insert(path);
        return 0;
    }
    if (unlink(path) == 0)
        return 0;
    return errno == EISDIR ? rmdir(path) : -1;
}

extern "C" int access(const char *path, int mode) noexcept
{
    if (RemovedInDryRun(path))
        return -1;
    return static_cast<int>(syscall(SYS_faccessat, AT_FDCWD, path, mode));
}

extern "C" FILE *fopen(const char *path, const char *mode)
{
    using Fopen = FILE *(*)(const char *, const char *);
    static const Fopen next = reinterpret_cast<Fopen>(dlsym(RTLD_NEXT, "fopen"));
    if (RemovedInDryRun(path))
        return nullptr;
    return next(path, mode);
}

namespace kqagent {

namespace {

constexpr auto kChildTimeout = std::chrono::seconds(60);

void Sink(void *, const char *op, const char *subject, const char *data, size_t len)
{
    std::string text(data != nullptr ? data : "", len);
    if (strcmp(op, "log") == 0) {
        // Warnings and errors explain a refusal; the module's traces do not.
        if (subject[0] >= '3') {
            while (!text.empty() && text.back() == '\n')
                text.pop_back();
            sg_Errors->push_back(text);
        }
        return;
    }
    // A program started with a pid file writes it anew: later reads see it again.
    if (strcmp(op, "exec") == 0) {
        const char *option = strstr(subject, "--pid-file=");
        if (option != nullptr)
            sg_Removed->erase(std::string(option + 11, strcspn(option + 11, " ")));
    }
    sg_Effects->push_back({op, subject, std::move(text)});
}

bool Interposed()
{
    return dlsym(RTLD_DEFAULT, "kill") == reinterpret_cast<void *>(&kill) &&
           dlsym(RTLD_DEFAULT, "remove") == reinterpret_cast<void *>(&remove) &&
           dlsym(RTLD_DEFAULT, "access") == reinterpret_cast<void *>(&access) &&
           dlsym(RTLD_DEFAULT, "fopen") == reinterpret_cast<void *>(&fopen);
}

// The child is alone in its process: what the reader changes to look is nobody else's.
void Look(DryStep &step, const std::string &name)
{
    step.link = HealthReader().Link(step.zone, name);
    if (!step.link)
        step.lookProblem = "cannot look into zone " + std::to_string(step.zone) + "'s namespace" + (geteuid() != 0 ? " (needs root)" : "");
}

json_object *Strings(const std::vector<std::string> &texts)
{
    json_object *array = json_object_new_array();
    for (const auto &text : texts)
        json_object_array_add(array, json_object_new_string_len(text.data(), static_cast<int>(text.size())));
    return array;
}

std::vector<std::string> StringsOf(json_object *array)
{
    std::vector<std::string> texts;
    for (size_t i = 0; array != nullptr && i < json_object_array_length(array); ++i) {
        json_object *text = json_object_array_get_idx(array, i);
        texts.emplace_back(json_object_get_string(text), static_cast<size_t>(json_object_get_string_len(text)));
    }
    return texts;
}

json_object *StepJson(const DryStep &step)
{
    json_object *object = json_object_new_object();
    json_object_object_add(object, "result", json_object_new_int(step.result));
    json_object *effects = json_object_new_array();
    for (const DryEffect &effect : step.effects)
        json_object_array_add(effects, Strings({effect.op, effect.subject, effect.data}));
    json_object_object_add(object, "effects", effects);
    json_object_object_add(object, "errors", Strings(step.errors));
    const int flags = step.known | step.serverBefore << 1 | step.serverAfter << 2 | step.relayBefore << 3 | step.relayAfter << 4 |
                      step.link.has_value() << 5 | (step.link && step.link->exists) << 6 | (step.link && step.link->up) << 7;
    json_object_object_add(object, "flags", json_object_new_int(flags));
    json_object_object_add(object, "serverChanges", Strings(step.serverChanges));
    json_object_object_add(object, "relayChanges", Strings(step.relayChanges));
    json_object_object_add(object, "relays", Strings(step.relays));
    json_object_object_add(object, "zone", json_object_new_int64(step.zone));
    json_object_object_add(object, "lookProblem", json_object_new_string(step.lookProblem.c_str()));
    if (step.link)
        json_object_object_add(object, "addresses", Strings(step.link->addresses));
    return object;
}

DryStep StepOf(json_object *object)
{
    DryStep step;
    step.result = json_object_get_int(Member(object, "result"));
    json_object *effects = Member(object, "effects");
    for (size_t i = 0; effects != nullptr && i < json_object_array_length(effects); ++i) {
        const auto parts = StringsOf(json_object_array_get_idx(effects, i));
        if (parts.size() == 3)
            step.effects.push_back({parts[0], parts[1], parts[2]});
    }
    step.errors = StringsOf(Member(object, "errors"));
    const int flags = json_object_get_int(Member(object, "flags"));
    step.known = flags & 1, step.serverBefore = flags & 2, step.serverAfter = flags & 4;
    step.relayBefore = flags & 8, step.relayAfter = flags & 16;
    if (flags & 32)
        step.link = LinkFacts{(flags & 64) != 0, (flags & 128) != 0, StringsOf(Member(object, "addresses"))};
    step.serverChanges = StringsOf(Member(object, "serverChanges"));
    step.relayChanges = StringsOf(Member(object, "relayChanges"));
    step.relays = StringsOf(Member(object, "relays"));
    step.zone = static_cast<uint32_t>(json_object_get_int64(Member(object, "zone")));
    step.lookProblem = Field(object, "lookProblem");
    return step;
}

bool Relays(const KQ_CTRL_DYNAMIC_SERVICE_CONF &conf) { return (conf.DynamicRelayConf.NetAddrType & KQ_NET_ADDR_IPV4) != 0; }

DryStep RunStep(const Request &request, bool lookAtInterface)
{
    DryStep step;
    sg_Effects = &step.effects;
    sg_Errors = &step.errors;
    const char *name = request.Item().ifname;
    const KQ_CTRL_DYNAMIC_SERVICE_CONF *node = _KQCtrl_GetDynamicConfByName(name);
    KQ_CTRL_DYNAMIC_SERVICE_CONF before{};
    if (node != nullptr)
        before = *node;
    step.known = node != nullptr;
    step.serverBefore = step.known && before.DynamicServerConf.NetAddrType != 0;
    step.relayBefore = step.known && Relays(before);
    const bool add = request.Op() == RequestOp::Add;
    step.result = add ? KQCtrl_ConfigDynamicAdd(&request.Item()) : KQCtrl_ConfigDynamicDel(&request.Item());
    sg_Effects = nullptr;
    sg_Errors = nullptr;
    if (step.result < 0)
        return step;
    node = _KQCtrl_GetDynamicConfByName(name);
    KQ_CTRL_DYNAMIC_SERVICE_CONF after{};
    if (node != nullptr)
        after = *node;
    step.serverAfter = node != nullptr && after.DynamicServerConf.NetAddrType != 0;
    step.relayAfter = node != nullptr && Relays(after);
    if (step.serverBefore && step.serverAfter)
        step.serverChanges = ServerChanges(before.DynamicServerConf, after.DynamicServerConf);
    if (step.relayBefore && step.relayAfter)
        step.relayChanges = RelayChanges(before.DynamicRelayConf, after.DynamicRelayConf);
    KQ_DYNAMIC_FOR_EACH_CONF(conf)
        if (Relays(*conf))
            step.relays.push_back(conf->IfName);
    step.zone = after.DynamicServerConf.SecurityZoneId;
    if (lookAtInterface && step.serverAfter)
        Look(step, name);
    return step;
}

[[noreturn]] void Child(int out, const std::vector<Request> &requests, bool lookAtInterfaces)
{
    json_object *report = json_object_new_object();
    if (!Interposed()) {
        json_object_object_add(report, "problem",
                               json_object_new_string("dry run: the agent cannot intercept the module's kill(), remove(), access() and fopen()"));
    } else {
        KQ_HostDryRun(Sink, nullptr);
        static std::set<std::string> removed;
        sg_Removed = &removed;
        json_object *steps = json_object_new_array();
        for (const Request &request : requests) {
            const DryStep step = RunStep(request, lookAtInterfaces);
            json_object_array_add(steps, StepJson(step));
            if (step.result < 0)
                break;
        }
        json_object_object_add(report, "steps", steps);
    }
    size_t len = 0;
    const char *text = json_object_to_json_string_length(report, JSON_C_TO_STRING_PLAIN, &len);
    while (len > 0) {
        const ssize_t n = write(out, text, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        text += n;
        len -= static_cast<size_t>(n);
    }
    _exit(0);
}

}  // namespace

DryRunReport DryRun(const std::vector<Request> &requests, bool lookAtInterfaces)
{
    DryRunReport report;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        report.problem = "dry run: pipe: " + std::string(strerror(errno));
        return report;
    }
    const pid_t child = fork();
    if (child < 0) {
        report.problem = "dry run: fork: " + std::string(strerror(errno));
        close(fds[0]);
        close(fds[1]);
        return report;
    }
    if (child == 0) {
        close(fds[0]);
        Child(fds[1], requests, lookAtInterfaces);
    }
    close(fds[1]);
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + kChildTimeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd in{fds[0], POLLIN, 0};
        const int ready = left.count() > 0 ? poll(&in, 1, static_cast<int>(left.count())) : 0;
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0) {
            report.problem = "dry run: the module did not finish within " + std::to_string(kChildTimeout.count()) + " s";
            kill(child, SIGKILL);
            break;
        }
        char chunk[65536];
        const ssize_t n = read(fds[0], chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        text.append(chunk, static_cast<size_t>(n));
    }
    close(fds[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!report.problem.empty())
        return report;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        report.problem = "dry run: the module's child " +
                         (WIFSIGNALED(status) ? "was killed by signal " + std::to_string(WTERMSIG(status))
                                              : "exited with " + std::to_string(WEXITSTATUS(status)));
        return report;
    }
    json_object *parsed = json_tokener_parse(text.c_str());
    if (parsed == nullptr) {
        report.problem = "dry run: unreadable answer from the module's child";
        return report;
    }
    report.problem = Field(parsed, "problem");
    json_object *steps = Member(parsed, "steps");
    for (size_t i = 0; steps != nullptr && i < json_object_array_length(steps); ++i)
        report.steps.push_back(StepOf(json_object_array_get_idx(steps, i)));
    json_object_put(parsed);
    return report;
}

}  // namespace kqagent
