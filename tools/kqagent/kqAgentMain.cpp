// kqagent: the host agent around the dynamic module. `kqagent serve` is the long-running
// agent that owns the module; every other command reaches it through its control socket,
// or, when no agent runs, executes in this process under the agent's lock.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kqAgentCommands.h"
#include "kqAgentCommon.h"
#include "kqAgentControl.h"
#include "kqAgentJournal.h"
#include "kqAgentVerbs.h"
#include "kqHostLinux.h"

#ifndef KQ_VERSION
#define KQ_VERSION "unknown"
#endif

namespace {

using namespace kqagent;

struct Options {
    bool verbose = false;
    bool quiet = false;
};

bool WantsHelp(const std::vector<std::string> &args)
{
    for (const auto &arg : args)
        if (arg == "-h" || arg == "--help")
            return true;
    return false;
}

int Print(const CommandResult &result)
{
    std::cout << result.out << std::flush;
    std::cerr << result.err << std::flush;
    return result.exit;
}

// Through the running agent, else here under the agent's lock, so that two kqagent
// processes never call the module at the same time.
int Run(const Invocation &invocation, Command command)
{
    const std::string socketPath = KQ_HostControlSocketPath();
    AgentLock lock(socketPath);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    for (;;) {
        CommandResult answer;
        std::string problem;
        const AskOutcome asked = AskAgent(socketPath, command, answer, problem);
        if (asked == AskOutcome::Answered)
            return Print(answer);
        if (asked == AskOutcome::Failed) {
            std::cerr << "kqagent: " << problem << "\n";
            return kExitFailed;
        }
        const int taken = lock.TryLock();
        if (taken < 0) {
            std::cerr << "kqagent: " << lock.Path() << ": " << strerror(-taken) << "\n";
            return kExitFailed;
        }
        if (taken == 1)
            break;
        // Another kqagent command, or an agent that is starting and will listen soon.
        if (std::chrono::steady_clock::now() > deadline) {
            std::cerr << "kqagent: " << lock.Path() << " is held by another kqagent process; nothing done\n";
            return kExitFailed;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    Agent agent(false);
    // A change records what runs for the next start: it needs the registry the agent would have.
    if ((invocation.verb->Is(kVerbChanges) || invocation.verb->Is(kVerbReadsRegistry)) &&
        agent.RebuildRegistry(std::cerr) != kExitOk) {
        std::cerr << "kqagent: nothing applied\n";
        return kExitFailed;
    }
    return Print(agent.Execute(command));
}

}  // namespace

namespace kqagent {

int RunServe(const VerbCall &) { return Serve(); }

}  // namespace kqagent

int main(int argc, char **argv)
{
    UseJournalPriorities(KQ_HostIsJournalStream(STDERR_FILENO) != 0, KQ_HostIsJournalStream(STDOUT_FILENO) != 0);
    std::vector<std::string> args(argv + 1, argv + argc);
    Options options;
    size_t next = 0;
    for (; next < args.size(); ++next) {
        const std::string &arg = args[next];
        if (arg == "--config") {
            if (next + 1 >= args.size())
                return Usage(std::cerr, "--config needs a file");
            if (access(args[next + 1].c_str(), R_OK) != 0)
                return Usage(std::cerr, "--config: cannot read " + args[next + 1]);
            setenv("KQ_HOST_CONFIG", args[++next].c_str(), 1);
            KQ_HostReloadConfig();
        } else if (arg == "-v" || arg == "--verbose") {
            options.verbose = true;
        } else if (arg == "-q" || arg == "--quiet") {
            options.quiet = true;
        } else if (arg == "--version") {
            std::cout << "kqagent " << KQ_VERSION << "\n";
            return kExitOk;
        } else if (arg == "-h" || arg == "--help") {
            std::cout << UsageText();
            return kExitOk;
        } else if (!arg.empty() && arg[0] == '-') {
            return Usage(std::cerr, "unknown option " + arg);
        } else {
            break;
        }
    }
    if (next >= args.size()) {
        std::cerr << UsageText();
        return kExitUsage;
    }
    // Operators see the module's warnings and errors; its traces and notices with -v.
    const int logLevel = options.verbose ? 1 : options.quiet ? 4 : 3;
    KQ_HostSetLogLevel(static_cast<uint32_t>(logLevel));

    Command command{std::vector<std::string>(args.begin() + static_cast<long>(next), args.end()), "", logLevel};
    const Verb *verb = FindVerb(command.argv[0]);
    if (verb != nullptr && verb->help != nullptr && WantsHelp(command.argv)) {
        std::cout << verb->help;
        return kExitOk;
    }
    Invocation invocation;
    if (const int usage = ParseInvocation(command.argv, invocation, std::cerr); usage != kExitOk)
        return usage;
    // An unknown key in the host settings is most likely a misspelt one ("lan" for "lans"),
    // whose default would quietly move every interface to zone 0: nothing runs on them.
    if (const std::string problems = KQ_HostConfigError(); !problems.empty() && invocation.verb->run != RunHelp) {
        std::istringstream lines(problems);
        for (std::string line; std::getline(lines, line);)
            std::cerr << "kqagent: " << line << "\n";
        std::cerr << "kqagent: nothing done; fix the host settings file first\n";
        return kExitUsage;
    }
    if (verb->Is(kVerbReadsFile)) {
        const std::string &file = invocation.args[0];
        errno = 0;
        const auto text = ReadTextFile(file);
        if (!text) {
            std::cerr << "kqagent: cannot read " << file << ": " << strerror(errno ? errno : EIO) << "\n";
            return kExitUsage;
        }
        command.fileText = *text;
    }
    if (verb->Is(kVerbLocal))
        return verb->run(VerbCall{invocation, command.fileText, std::cout, std::cerr, nullptr});
    return Run(invocation, std::move(command));
}
