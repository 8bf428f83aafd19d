#include "kqAgentControl.h"

#include <errno.h>
#include <fcntl.h>
#include <json-c/json.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

#include "kqAgentCommon.h"
#include "kqHostLinux.h"

namespace kqagent {

namespace {

constexpr size_t kMaxLine = 64u << 20;  // a request file is far smaller
constexpr int kAnswerTimeoutSeconds = 10;

using JsonPtr = std::unique_ptr<json_object, int (*)(json_object *)>;

std::string Plain(json_object *object)
{
    return json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

bool WriteAll(int fd, const std::string &text)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

std::string EncodeCommand(const Command &command)
{
    JsonPtr root(json_object_new_object(), json_object_put);
    json_object *argv = json_object_new_array();
    for (const auto &arg : command.argv)
        json_object_array_add(argv, json_object_new_string_len(arg.data(), static_cast<int>(arg.size())));
    json_object_object_add(root.get(), "argv", argv);
    json_object_object_add(root.get(), "fileText",
                           json_object_new_string_len(command.fileText.data(), static_cast<int>(command.fileText.size())));
    json_object_object_add(root.get(), "logLevel", json_object_new_int(command.logLevel));
    return Plain(root.get()) + "\n";
}

bool DecodeCommand(const std::string &line, Command &command)
{
    JsonPtr root(json_tokener_parse(line.c_str()), json_object_put);
    json_object *argv = nullptr, *text = nullptr, *level = nullptr;
    if (!root || !json_object_object_get_ex(root.get(), "argv", &argv) || !json_object_is_type(argv, json_type_array))
        return false;
    for (size_t i = 0; i < json_object_array_length(argv); ++i) {
        json_object *arg = json_object_array_get_idx(argv, i);
        if (!json_object_is_type(arg, json_type_string))
            return false;
        command.argv.emplace_back(json_object_get_string(arg), json_object_get_string_len(arg));
    }
    if (json_object_object_get_ex(root.get(), "fileText", &text) && json_object_is_type(text, json_type_string))
        command.fileText.assign(json_object_get_string(text), json_object_get_string_len(text));
    if (json_object_object_get_ex(root.get(), "logLevel", &level) && json_object_is_type(level, json_type_int))
        command.logLevel = json_object_get_int(level);
    return true;
}

std::string EncodeAnswer(const CommandResult &answer)
{
    JsonPtr root(json_object_new_object(), json_object_put);
    json_object_object_add(root.get(), "exit", json_object_new_int(answer.exit));
    json_object_object_add(root.get(), "out", json_object_new_string_len(answer.out.data(), static_cast<int>(answer.out.size())));
    json_object_object_add(root.get(), "err", json_object_new_string_len(answer.err.data(), static_cast<int>(answer.err.size())));
    return Plain(root.get()) + "\n";
}

bool SocketAddress(const std::string &path, sockaddr_un &address)
{
    address = sockaddr_un{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        return false;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

void MakeFolder(const std::string &path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0)
        return;
    const std::string folder = path.substr(0, slash);
    MakeFolder(folder);
    mkdir(folder.c_str(), 0755);
}

}  // namespace

AskOutcome AskAgent(const std::string &socketPath, const Command &command, CommandResult &answer, std::string &problem)
{
    sockaddr_un address;
    if (!SocketAddress(socketPath, address)) {
        problem = socketPath + ": too long for a socket address";
        return AskOutcome::Failed;
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        problem = std::string("socket: ") + strerror(errno);
        return AskOutcome::Failed;
    }
    std::unique_ptr<int, void (*)(int *)> guard(new int(fd), [](int *f) { close(*f); delete f; });
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        // No socket, or one left by an agent that has gone.
        if (errno == ENOENT || errno == ECONNREFUSED)
            return AskOutcome::NoAgent;
        problem = socketPath + ": " + strerror(errno) + (errno == EACCES ? " (the agent takes commands from root only)" : "");
        return AskOutcome::Failed;
    }
    if (!WriteAll(fd, EncodeCommand(command))) {
        problem = socketPath + ": sending the command failed: " + strerror(errno);
        return AskOutcome::Failed;
    }
    shutdown(fd, SHUT_WR);
    std::string line;
    char buffer[65536];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        line.append(buffer, static_cast<size_t>(n));
    }
    JsonPtr root(json_tokener_parse(line.c_str()), json_object_put);
    json_object *exit = nullptr, *out = nullptr, *err = nullptr;
    if (!root || !json_object_object_get_ex(root.get(), "exit", &exit) ||
        !json_object_object_get_ex(root.get(), "out", &out) || !json_object_object_get_ex(root.get(), "err", &err)) {
        problem = socketPath + ": the agent closed the connection without an answer (see its log)";
        return AskOutcome::Failed;
    }
    answer.exit = json_object_get_int(exit);
    answer.out.assign(json_object_get_string(out), json_object_get_string_len(out));
    answer.err.assign(json_object_get_string(err), json_object_get_string_len(err));
    return AskOutcome::Answered;
}

AgentLock::AgentLock(const std::string &socketPath) : path_(socketPath + ".lock") {}

AgentLock::~AgentLock()
{
    if (fd_ >= 0)
        close(fd_);  // releases the flock
}

int AgentLock::TryLock()
{
    if (fd_ < 0) {
        MakeFolder(path_);
        fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd_ < 0)
            return -errno;
    }
    if (flock(fd_, LOCK_EX | LOCK_NB) == 0)
        return 1;
    return errno == EWOULDBLOCK ? 0 : -errno;
}

namespace {

struct Connection;

struct Daemon {
    Agent agent{true};
    std::set<Connection *> connections;
    sd_event *event = nullptr;
    std::string socketPath;
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
        std::cerr << "kqagent: " << (command.argv.empty() ? "?" : command.argv[0]) << " from pid " << connection->peer
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
            std::cerr << "kqagent: refused a command from uid " << peer.uid << " (pid " << peer.pid << ")" << std::endl;
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

int OnStop(sd_event_source *source, const signalfd_siginfo *info, void *)
{
    // Every dnsmasq and dhclient stays: they serve on while the agent is away.
    std::cerr << "kqagent: " << strsignal(static_cast<int>(info->ssi_signo)) << "; leaving every service running" << std::endl;
    sd_notify(0, "STOPPING=1");
    return sd_event_exit(sd_event_source_get_event(source), 0);
}

int OnReload(sd_event_source *, const signalfd_siginfo *, void *data)
{
    auto *daemon = static_cast<Daemon *>(data);
    sd_notify(0, "RELOADING=1");
    std::ostringstream out, err;
    const int status = daemon->agent.Reload(out, err);
    std::cout << out.str() << std::flush;
    std::cerr << err.str() << "kqagent: desired state re-read" << (status == kExitOk ? "" : " with problems") << std::endl;
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
    for (int signal : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, nullptr);

    Daemon daemon;
    daemon.socketPath = socketPath;
    {
        std::ostringstream out, err;
        const int status = daemon.agent.Startup(KQ_AgentPathDhcpConf(), out, err);
        std::cout << out.str() << std::flush;
        std::cerr << err.str() << "kqagent: start-up " << (status == kExitOk ? "complete" : "complete with problems (above)")
                  << std::endl;
    }

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
        return kExitFailed;
    }

    int result = sd_event_default(&daemon.event);
    sd_event_source *listenSource = nullptr;
    if (result >= 0)
        result = sd_event_add_io(daemon.event, &listenSource, listener, EPOLLIN, OnListen, &daemon);
    for (int signal : {SIGTERM, SIGINT})
        if (result >= 0)
            result = sd_event_add_signal(daemon.event, nullptr, signal, OnStop, &daemon);
    if (result >= 0)
        result = sd_event_add_signal(daemon.event, nullptr, SIGHUP, OnReload, &daemon);
    if (result >= 0) {
        std::cerr << "kqagent: listening on " << socketPath << std::endl;
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
    sd_event_unref(daemon.event);
    return result < 0 ? kExitFailed : kExitOk;
}

}  // namespace kqagent
