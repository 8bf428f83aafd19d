// `kqagent serve`: the one process that calls the module. It starts by adopting what runs,
// then takes commands on its control socket, one at a time, and supervises every service
// between them, all from one sd-event loop. Connections are read and answered as their
// sockets allow, within one memory ceiling for all of them together.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

#include "kqAgentCommon.h"
#include "kqAgentControl.h"
#include "kqAgentJournal.h"
#include "kqAgentSupervisor.h"
#include "kqAgentVerbs.h"
#include "kqHostLinux.h"

namespace kqagent {

namespace {

struct Connection;

struct Daemon {
    Agent agent{true};
    std::set<Connection *> connections;
    sd_event *event = nullptr;
    std::string socketPath;
    std::optional<Supervisor> supervisor;
    size_t ceiling = 0;  // bytes all connections may hold together ("controlMemory")
    size_t held = 0;     // bytes they hold: requests being read, answers being written
    sd_event_source *servicesTimer = nullptr;  // services.json to be written
};

// One client connection. Its request line is read, and its answer written, as the socket
// allows, so a client that stalls holds up no one but itself; only the command in between
// runs to completion, as every call of the module must.
struct Connection {
    Daemon *daemon;
    int fd;
    pid_t peer;
    std::string line;    // the request, while it is read
    std::string answer;  // the answer, while it is written
    size_t sent = 0;
    size_t held = 0;     // this connection's part of daemon->held
    uint64_t moved = 0;  // bytes read or written so far: the timer's measure of progress
    std::string command; // what the answer answers, for the log
    sd_event_source *io = nullptr;
    sd_event_source *timer = nullptr;
};

constexpr uint64_t kTimeoutUsec = uint64_t{kConnectionTimeoutSeconds} * 1000000;
constexpr size_t kReadChunk = 65536;
constexpr int kChunksPerTurn = 16;  // then the loop serves the others before reading on

void Hold(Connection *connection, size_t bytes)
{
    connection->daemon->held = connection->daemon->held - connection->held + bytes;
    connection->held = bytes;
}

void CloseConnection(Connection *connection)
{
    Hold(connection, 0);
    connection->daemon->connections.erase(connection);
    sd_event_source_disable_unref(connection->io);
    sd_event_source_disable_unref(connection->timer);
    close(connection->fd);
    delete connection;
}

// A short answer for a connection that is being refused: one non-blocking send, which an
// empty socket buffer always takes whole.
void AnswerAndClose(Connection *connection, const CommandResult &answer)
{
    const std::string text = EncodeAnswer(answer);
    if (send(connection->fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0 && errno != EPIPE)
        std::cerr << Priority::Warning << "kqagent: answering pid " << connection->peer << " failed: " << strerror(errno) << std::endl;
    CloseConnection(connection);
}

// Writes what the socket takes now. False once the connection is closed (all sent, or the
// client has gone).
bool WriteAnswer(Connection *connection)
{
    while (connection->sent < connection->answer.size()) {
        const ssize_t n = send(connection->fd, connection->answer.data() + connection->sent,
                               connection->answer.size() - connection->sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return true;
        if (n < 0) {
            std::cerr << Priority::Warning << "kqagent: answering pid " << connection->peer << " failed: " << strerror(errno) << std::endl;
            CloseConnection(connection);
            return false;
        }
        connection->sent += static_cast<size_t>(n);
        connection->moved += static_cast<size_t>(n);
    }
    CloseConnection(connection);
    return false;
}

// The connection's time starts again: it has moved a byte, or has a new thing to do.
void Rearm(Connection *connection)
{
    sd_event_source_set_time_relative(connection->timer, kTimeoutUsec);
    sd_event_source_set_enabled(connection->timer, SD_EVENT_ONESHOT);
}

void StartAnswer(Connection *connection, std::string text)
{
    Hold(connection, text.size());
    connection->answer = std::move(text);
    if (!WriteAnswer(connection))
        return;
    sd_event_source_set_io_events(connection->io, EPOLLOUT);
    Rearm(connection);
}

// The whole request line has arrived (without its newline): run it and answer.
void RunRequest(Connection *connection, const std::string &line)
{
    Daemon *daemon = connection->daemon;
    Command command;
    if (const std::string problem = DecodeCommand(line, command); !problem.empty()) {
        std::cerr << Priority::Warning << "kqagent: refused a request from pid " << connection->peer << ": " << EscapeForLog(problem) << std::endl;
        StartAnswer(connection, EncodeAnswer(CommandResult{kExitUsage, "", "kqagent: not a kqagent request: " + problem + "\n"}));
        return;
    }
    const CommandResult result = daemon->agent.Execute(command);
    // Whatever the command started, stopped or replaced is watched from now on.
    daemon->supervisor->Sync(daemon->agent.Touched());
    // A command's name as the log shows it: a name no verb has is the client's own text.
    constexpr size_t kLoggedName = 64;
    connection->command = EscapeForLog(command.argv[0].substr(0, kLoggedName)) + (command.argv[0].size() > kLoggedName ? "..." : "");
    std::cerr << Priority::Info << "kqagent: " << connection->command << " from pid " << connection->peer << ": exit " << result.exit << std::endl;
    std::string answer = EncodeAnswer(result);
    // An answer to a command that changed nothing can be asked for again; one that tells
    // what was changed is kept even past the ceiling, and new requests wait until it is read.
    const Verb *verb = FindVerb(command.argv[0]);
    if (daemon->held - connection->held + answer.size() > daemon->ceiling && (verb == nullptr || !verb->Is(kVerbChanges))) {
        std::cerr << Priority::Warning << "kqagent: " << connection->command << " from pid " << connection->peer << ": answer of " << answer.size()
                  << " bytes dropped: the connections would hold more than " << daemon->ceiling
                  << " bytes (\"controlMemory\")" << std::endl;
        answer = EncodeAnswer(CommandResult{
            kExitFailed, "",
            "kqagent: the answer (" + std::to_string(answer.size()) + " bytes) would take the agent's connections past " +
                std::to_string(daemon->ceiling) + " bytes (\"controlMemory\"), as other clients have not read theirs; " +
                "nothing was changed: try again\n"});
    }
    StartAnswer(connection, std::move(answer));
}

// Reads what the socket holds now. False once the connection is closed or answering.
bool ReadRequest(Connection *connection)
{
    Daemon *daemon = connection->daemon;
    char buffer[kReadChunk];
    for (int chunk = 0; chunk < kChunksPerTurn; ++chunk) {
        const ssize_t n = read(connection->fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return true;
        if (n <= 0) {
            // The client has written all it will, without ending its line.
            std::cerr << Priority::Warning << "kqagent: refused a request from pid " << connection->peer << ": it ends without a newline" << std::endl;
            StartAnswer(connection, EncodeAnswer(CommandResult{kExitUsage, "", "kqagent: not a kqagent request: no newline\n"}));
            return false;
        }
        std::string &line = connection->line;
        const size_t needed = line.size() + static_cast<size_t>(n);
        if (needed > kMaxLine) {
            std::cerr << Priority::Warning << "kqagent: refused a request from pid " << connection->peer << ": longer than " << kMaxLine << " bytes"
                      << std::endl;
            AnswerAndClose(connection, CommandResult{kExitUsage, "", "kqagent: request too large (over " +
                                                                         std::to_string(kMaxLine) + " bytes)\n"});
            return false;
        }
        if (needed > line.capacity()) {
            // The buffer grows by doubling, as far as the ceiling leaves room; what it holds
            // is what counts, not what it uses.
            const size_t others = daemon->held - connection->held;
            const size_t room = daemon->ceiling > others ? daemon->ceiling - others : 0;
            if (needed > room) {
                std::cerr << Priority::Warning << "kqagent: refused a request from pid " << connection->peer << ": the connections would hold more than "
                          << daemon->ceiling << " bytes (\"controlMemory\")" << std::endl;
                AnswerAndClose(connection,
                               CommandResult{kExitFailed, "",
                                             "kqagent: the agent's connections hold " + std::to_string(others) +
                                                 " bytes; this request would take them past " + std::to_string(daemon->ceiling) +
                                                 " (\"controlMemory\"); nothing done: try again\n"});
                return false;
            }
            // A fresh string takes exactly the capacity asked for (reserve on a used one may
            // double it past the room).
            std::string grown;
            grown.reserve(std::min({std::max(needed, 2 * line.capacity()), room, kMaxLine}));
            grown.append(line);
            line.swap(grown);
            Hold(connection, line.capacity());
        }
        line.append(buffer, static_cast<size_t>(n));
        connection->moved += static_cast<size_t>(n);
        if (const size_t end = line.find('\n', line.size() - static_cast<size_t>(n)); end != std::string::npos) {
            sd_event_source_set_enabled(connection->timer, SD_EVENT_OFF);
            line.resize(end);
            const std::string request = std::move(line);
            Hold(connection, request.capacity());
            RunRequest(connection, request);
            return false;
        }
    }
    return true;
}

// Reads or writes as the connection's state says. False once it is closed or has moved on.
bool Progress(Connection *connection)
{
    return connection->answer.empty() ? ReadRequest(connection) : WriteAnswer(connection);
}

int OnConnectionIo(sd_event_source *, int, uint32_t, void *data)
{
    auto *connection = static_cast<Connection *>(data);
    const uint64_t before = connection->moved;
    if (Progress(connection) && connection->moved != before)
        Rearm(connection);
    return 0;
}

int OnConnectionTimeout(sd_event_source *, uint64_t, void *data)
{
    auto *connection = static_cast<Connection *>(data);
    // The agent itself may have been busy with another command: what the client did in the
    // meantime counts.
    const uint64_t before = connection->moved;
    if (!Progress(connection))
        return 0;
    if (connection->moved != before) {
        Rearm(connection);
        return 0;
    }
    if (connection->answer.empty())
        std::cerr << Priority::Warning << "kqagent: dropped the connection of pid " << connection->peer << ": no whole request in "
                  << kConnectionTimeoutSeconds << " s (" << connection->line.size() << " bytes)" << std::endl;
    else
        std::cerr << Priority::Warning << "kqagent: dropped the connection of pid " << connection->peer << ": its answer to "
                  << connection->command << " was not read in " << kConnectionTimeoutSeconds << " s (" << connection->sent
                  << " of " << connection->answer.size() << " bytes taken)" << std::endl;
    CloseConnection(connection);
    return 0;
}

int OnListen(sd_event_source *, int fd, uint32_t, void *data)
{
    auto *daemon = static_cast<Daemon *>(data);
    for (;;) {
        const int client = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (client < 0)
            return 0;  // EAGAIN: all taken; anything else: the client has gone
        ucred peer{};
        socklen_t length = sizeof(peer);
        auto *connection = new Connection{daemon, client, 0};
        daemon->connections.insert(connection);
        if (getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.uid != 0) {
            std::cerr << Priority::Warning << "kqagent: refused a command from uid " << peer.uid << " (pid " << peer.pid << ")" << std::endl;
            AnswerAndClose(connection, CommandResult{kExitFailed, "", "kqagent: the agent takes commands from root only\n"});
            continue;
        }
        connection->peer = peer.pid;
        if (sd_event_add_io(daemon->event, &connection->io, client, EPOLLIN, OnConnectionIo, connection) < 0 ||
            sd_event_add_time_relative(daemon->event, &connection->timer, CLOCK_MONOTONIC, kTimeoutUsec, 0,
                                       OnConnectionTimeout, connection) < 0) {
            std::cerr << "kqagent: cannot serve pid " << peer.pid << ": " << strerror(ENOMEM) << std::endl;
            CloseConnection(connection);
            continue;
        }
    }
}

int OnChild(sd_event_source *, const signalfd_siginfo *, void *data)
{
    static_cast<Daemon *>(data)->supervisor->ChildExited();
    return 0;
}

int OnSaveServices(sd_event_source *, uint64_t, void *data)
{
    auto *daemon = static_cast<Daemon *>(data);
    daemon->servicesTimer = sd_event_source_disable_unref(daemon->servicesTimer);
    daemon->agent.SaveServices();
    return 0;
}

// A burst of changes (a controller pushing one LAN after another) writes the record of
// every LAN's processes once a second, not once per change: at thousands of LANs it is
// most of a megabyte. A crash inside that second costs what losing the file costs: the
// LANs changed in it are started once more at the next start.
void DeferServicesSave(Daemon *daemon)
{
    constexpr uint64_t kDelayUsec = 1000 * 1000;
    if (daemon->servicesTimer != nullptr)
        return;
    if (sd_event_add_time_relative(daemon->event, &daemon->servicesTimer, CLOCK_MONOTONIC, kDelayUsec, 0, OnSaveServices,
                                   daemon) < 0) {
        daemon->servicesTimer = nullptr;
        daemon->agent.SaveServices();
    }
}

int OnStop(sd_event_source *source, const signalfd_siginfo *info, void *)
{
    // Every dnsmasq and dhclient stays: they serve on while the agent is away.
    std::cerr << Priority::Notice << "kqagent: " << strsignal(static_cast<int>(info->ssi_signo)) << "; leaving every service running"
              << std::endl;
    sd_notify(0, "STOPPING=1");
    return sd_event_exit(sd_event_source_get_event(source), 0);
}

int OnReload(sd_event_source *, const signalfd_siginfo *, void *data)
{
    auto *daemon = static_cast<Daemon *>(data);
    sd_notify(0, "RELOADING=1");
    std::ostringstream out, err;
    const int status = daemon->agent.Reload(out, err);
    daemon->supervisor->Sync();
    std::cout << out.str() << std::flush;
    std::cerr << err.str() << (status == kExitOk ? Priority::Info : Priority::Warning) << "kqagent: desired state re-read"
              << (status == kExitOk ? "" : " with problems") << std::endl;
    sd_notify(0, "READY=1");
    return 0;
}

}  // namespace

int Serve()
{
    const std::string socketPath = KQ_HostControlSocketPath();
    AgentLock lock(socketPath);
    // A kqagent command running on its own holds the lock for a moment; a running agent
    // holds it for good and answers on the socket.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        const int taken = lock.TryLock();
        if (taken < 0) {
            std::cerr << "kqagent: " << lock.Path() << ": " << strerror(-taken) << std::endl;
            return kExitFailed;
        }
        if (taken == 1)
            break;
        CommandResult answer;
        std::string problem;
        if (AskAgent(socketPath, Command{{"status", "--json"}}, answer, problem) == AskOutcome::Answered) {
            std::cerr << "kqagent: an agent already runs (" << socketPath << ")" << std::endl;
            return kExitFailed;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            std::cerr << "kqagent: " << lock.Path() << " is held by another kqagent process" << std::endl;
            return kExitFailed;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }

    // Signals arrive through the loop; children get default dispositions from the host's spawn.
    sigset_t signals;
    sigemptyset(&signals);
    for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD})
        sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    // dnsmasq and dhclient leave their starter behind; as their subreaper the agent learns
    // how the ones it started end.
    prctl(PR_SET_CHILD_SUBREAPER, 1);

    Daemon daemon;
    daemon.socketPath = socketPath;
    daemon.ceiling = KQ_HostControlMemory();
    int result = sd_event_default(&daemon.event);
    if (result < 0) {
        std::cerr << "kqagent: event loop: " << strerror(-result) << std::endl;
        return kExitFailed;
    }
    daemon.supervisor.emplace(daemon.agent, daemon.event);
    daemon.agent.resumeServices = [&daemon] { daemon.supervisor->Resume(); };
    {
        std::ostringstream out, err;
        const int status = daemon.agent.Startup(out, err);
        std::cout << out.str() << std::flush;
        std::cerr << err.str() << (status == kExitOk ? Priority::Info : Priority::Warning) << "kqagent: start-up "
                  << (status == kExitOk ? "complete" : "complete with problems (above)")
                  << std::endl;
    }
    daemon.supervisor->Sync();
    daemon.agent.deferServicesSave = [&daemon] { DeferServicesSave(&daemon); };

    sockaddr_un address;
    if (!SocketAddress(socketPath, address)) {
        std::cerr << "kqagent: " << socketPath << ": too long for a socket address" << std::endl;
        return kExitFailed;
    }
    MakeFolder(socketPath);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    unlink(socketPath.c_str());  // ours to replace: we hold the lock
    const mode_t savedMask = umask(0177);
    const int bound = listener < 0 ? -1 : bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof(address));
    umask(savedMask);
    if (bound != 0 || chmod(socketPath.c_str(), 0600) != 0 || listen(listener, 64) != 0) {
        std::cerr << "kqagent: " << socketPath << ": " << strerror(errno) << std::endl;
        if (listener >= 0)
            close(listener);
        daemon.supervisor.reset();
        sd_event_unref(daemon.event);
        return kExitFailed;
    }

    sd_event_source *listenSource = nullptr;
    if (result >= 0)
        result = sd_event_add_io(daemon.event, &listenSource, listener, EPOLLIN, OnListen, &daemon);
    for (int signal : {SIGTERM, SIGINT})
        if (result >= 0)
            result = sd_event_add_signal(daemon.event, nullptr, signal, OnStop, &daemon);
    if (result >= 0)
        result = sd_event_add_signal(daemon.event, nullptr, SIGHUP, OnReload, &daemon);
    if (result >= 0)
        result = sd_event_add_signal(daemon.event, nullptr, SIGCHLD, OnChild, &daemon);
    if (result >= 0) {
        std::cerr << Priority::Info << "kqagent: listening on " << socketPath << std::endl;
        sd_notifyf(0, "READY=1\nSTATUS=listening on %s\nMAINPID=%ld", socketPath.c_str(), static_cast<long>(getpid()));
        result = sd_event_loop(daemon.event);
    }
    if (result < 0)
        std::cerr << "kqagent: event loop: " << strerror(-result) << std::endl;
    while (!daemon.connections.empty())
        CloseConnection(*daemon.connections.begin());
    daemon.servicesTimer = sd_event_source_disable_unref(daemon.servicesTimer);
    daemon.agent.SaveServices();
    daemon.agent.FoldDesired(std::cerr);
    sd_event_source_disable_unref(listenSource);
    close(listener);
    unlink(socketPath.c_str());
    daemon.supervisor.reset();
    sd_event_unref(daemon.event);
    return result < 0 ? kExitFailed : kExitOk;
}

}  // namespace kqagent
