// The commands of kqagent, executed in one place whether they arrive through the control
// socket of a running agent or run in a kqagent process of their own.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include <optional>

#include "kqAgentDesired.h"

namespace kqagent {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // the module or the system refused, or a service does not run
constexpr int kExitUsage = 2;   // bad command line or bad request file

struct CommandResult {
    int exit = kExitOk;
    std::string out, err;
};

// A command as the user typed it, with the request file's text read by the user's own
// process (the agent may not see the same folder, or the same file permissions).
struct Command {
    std::vector<std::string> argv;  // command name first
    std::string fileText;           // apply / check / plan: the request file
    int logLevel = 0;               // 0: the agent's own
};

// "kqagent: <problem>\ntry 'kqagent help <command>'\n" on err; returns kExitUsage.
int Usage(std::ostream &err, const std::string &problem, const std::string &command = "");

// The one owner of the module in a process: its registry, the desired state and the
// policy rules of the reference host live here. Not thread-safe by design: the module is
// called from one thread, one call at a time.
class Agent {
public:
    explicit Agent(bool daemon);

    // The start of an agent: the module's start-up load of `confPath`, then every
    // desired interface sent again, so that whatever the restore could not rebuild
    // (zones, IPv6 modes, relay-only interfaces) is restarted whole by change detection.
    // Reports each interface and returns kExitFailed when one is not reconciled or not
    // running.
    int Startup(const std::string &confPath, std::ostream &out, std::ostream &err);

    // For a kqagent process of its own: the registry rebuilt from the desired state
    // through the module's protobuf converters, without touching any process.
    int RebuildRegistry(std::ostream &err);

    // SIGHUP: reads the desired state again and applies the difference.
    int Reload(std::ostream &out, std::ostream &err);

    CommandResult Execute(const Command &command);

    const DesiredState &Desired() const { return desired_; }

private:
    int Apply(const std::vector<std::string> &args, const std::string &text, std::ostream &out, std::ostream &err);
    int Check(const std::vector<std::string> &args, const std::string &text, std::ostream &out, std::ostream &err);
    int Plan(const std::vector<std::string> &args, const std::string &text, bool dryRun, std::ostream &out,
             std::ostream &err);
    std::vector<Request> Current();
    std::optional<ParsedRequests> Checked(const std::string &file, const std::string &text, bool strict,
                                          std::vector<Request> &current, std::ostream &err);
    int Load(const std::vector<std::string> &args, std::ostream &out, std::ostream &err);
    int Status(const std::vector<std::string> &args, std::ostream &out, std::ostream &err);
    int ReportRunning(std::ostream &out, std::ostream &err);
    bool daemon_;
    DesiredState desired_;
};

}  // namespace kqagent

namespace kqagent {
// The request file a command reads ("" for none): the user's process reads it.
std::string CommandFileArgument(const std::vector<std::string> &argv);
}  // namespace kqagent
