// `kqagent serve`: the one process that calls the module. It starts by adopting what runs,
// then takes commands on its control socket, one at a time, and supervises every service
// between them, all from one sd-event loop.
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
};

// One client connection: its request line is gathered without blocking the loop, then the
// command runs to completion and the answer is written before the next event.
struct Connection {
    Daemon *daemon;
    int fd;
    pid_t peer;
    std::string line;
    sd_event_source *source = nullptr;
};

void CloseConnection(Connection *connection)
{
    connection->daemon->connections.erase(connection);
    sd_event_source_disable_unref(connection->source);
    close(connection->fd);
    delete connection;
}

void Answer(Connection *connection, const CommandResult &answer)
{
    // Blocking from here, bounded: a client that stops reading cannot hold the agent.
    fcntl(connection->fd, F_SETFL, fcntl(connection->fd, F_GETFL) & ~O_NONBLOCK);
    const timeval timeout{kAnswerTimeoutSeconds, 0};
    setsockopt(connection->fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    if (!WriteAll(connection->fd, EncodeAnswer(answer)))
        std::cerr << "kqagent: answering pid " << connection->peer << " failed: " << strerror(errno) << std::endl;
}

int OnConnectionData(sd_event_source *, int fd, uint32_t, void *data)
{
    auto *connection = static_cast<Connection *>(data);
    char buffer[65536];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return 0;  // more later
        if (n <= 0)
            break;  // the client has written all it will
        connection->line.append(buffer, static_cast<size_t>(n));
        if (connection->line.find('\n') != std::string::npos)
            break;
        if (connection->line.size() > kMaxLine) {
            Answer(connection, CommandResult{kExitUsage, "", "kqagent: request too large\n"});
            CloseConnection(connection);
            return 0;
        }
    }
    Command command;
    const size_t end = connection->line.find('\n');
    if (end == std::string::npos || !DecodeCommand(connection->line.substr(0, end), command)) {
        Answer(connection, CommandResult{kExitUsage, "", "kqagent: not a kqagent request\n"});
    } else {
        const CommandResult answer = connection->daemon->agent.Execute(command);
        // Whatever the command started, stopped or replaced is watched from now on.
        connection->daemon->supervisor->Sync();
        std::cerr << Priority::Info << "kqagent: " << (command.argv.empty() ? "?" : command.argv[0]) << " from pid " << connection->peer
                  << ": exit " << answer.exit << std::endl;
        Answer(connection, answer);
    }
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
        auto *connection = new Connection{daemon, client, 0, "", nullptr};
        if (getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.uid != 0) {
            std::cerr << Priority::Warning << "kqagent: refused a command from uid " << peer.uid << " (pid " << peer.pid << ")" << std::endl;
            Answer(connection, CommandResult{kExitFailed, "", "kqagent: the agent takes commands from root only\n"});
            CloseConnection(connection);
            continue;
        }
        connection->peer = peer.pid;
        daemon->connections.insert(connection);
        if (sd_event_add_io(daemon->event, &connection->source, client, EPOLLIN, OnConnectionData, connection) < 0) {
            CloseConnection(connection);
            continue;
        }
    }
}

int OnChild(sd_event_source *, const signalfd_siginfo *, void *data)
{
    static_cast<Daemon *>(data)->supervisor->Reap();
    return 0;
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
    sd_event_source_disable_unref(listenSource);
    close(listener);
    unlink(socketPath.c_str());
    daemon.supervisor.reset();
    sd_event_unref(daemon.event);
    return result < 0 ? kExitFailed : kExitOk;
}

}  // namespace kqagent
