// The agent's control socket and the lock that keeps two kqagent processes from calling the
// module at the same time.
//
// Protocol: a Unix stream socket (mode 0600, root peers only). The client writes one JSON
// line {"argv":[...],"fileText":"...","logLevel":N} and reads one JSON line
// {"exit":N,"out":"...","err":"..."}; then the agent closes the connection.
#pragma once

#include <sys/un.h>

#include <cstddef>
#include <string>

#include "kqAgentCommands.h"

namespace kqagent {

constexpr size_t kMaxLine = 64u << 20;  // a request file is far smaller
// A connection that moves no byte of its request, or of its answer, for this long is dropped.
constexpr int kConnectionTimeoutSeconds = 10;

// The protocol's lines, each ending in a newline.
std::string EncodeCommand(const Command &command);
// "" when line (without its newline) is a request, else what is wrong with it.
std::string DecodeCommand(const std::string &line, Command &command);
std::string EncodeAnswer(const CommandResult &answer);
// All of text to fd (a socket); false when it could not be sent.
bool WriteAll(int fd, const std::string &text);
bool SocketAddress(const std::string &path, sockaddr_un &address);
// Creates the folders above path (0755).
void MakeFolder(const std::string &path);

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

// `kqagent serve` (kqAgentDaemon.cpp): start-up, then commands from the socket and the
// supervision of every service until SIGTERM or SIGINT. SIGHUP re-reads the desired state.
// Returns the process exit status.
int Serve();

}  // namespace kqagent
