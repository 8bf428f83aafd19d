// The agent's control socket and the lock that keeps two kqagent processes from calling the
// module at the same time.
//
// Protocol: a Unix stream socket (mode 0600, root peers only). The client writes one JSON
// line {"argv":[...],"fileText":"...","logLevel":N} and reads one JSON line
// {"exit":N,"out":"...","err":"..."}; then the agent closes the connection.
#pragma once

#include <string>

#include "kqAgentCommands.h"

namespace kqagent {

enum class AskOutcome { Answered, NoAgent, Failed };

// Sends the command to a running agent. NoAgent when nothing listens on the socket;
// Failed (with `problem`) when one listens but the exchange went wrong.
AskOutcome AskAgent(const std::string &socketPath, const Command &command, CommandResult &answer, std::string &problem);

// An exclusive flock on <socket>.lock, held by the agent for its whole life and by a
// kqagent process that runs a command itself. Released on destruction.
class AgentLock {
public:
    explicit AgentLock(const std::string &socketPath);
    ~AgentLock();
    AgentLock(const AgentLock &) = delete;
    AgentLock &operator=(const AgentLock &) = delete;
    // 1 taken, 0 held by another process, negative errno when the lock file cannot be used.
    int TryLock();
    const std::string &Path() const { return path_; }

private:
    std::string path_;
    int fd_ = -1;
};

// `kqagent serve`: start-up, then commands from the socket until SIGTERM or SIGINT.
// SIGHUP re-reads the desired state. Returns the process exit status.
int Serve();

}  // namespace kqagent
