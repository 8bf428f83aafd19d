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
#include "kqAgentJson.h"
#include "kqHostLinux.h"

namespace kqagent {

namespace {

using JsonPtr = std::unique_ptr<json_object, int (*)(json_object *)>;

std::string Plain(json_object *object)
{
    return json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

}  // namespace

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

std::string DecodeCommand(const std::string &line, Command &command)
{
    json_tokener_error status = json_tokener_success;
    JsonPtr root(json_tokener_parse_verbose(line.c_str(), &status), json_object_put);
    if (!root || line.find('\0') != std::string::npos)
        return std::string("not valid JSON (") + (status == json_tokener_success ? "a NUL byte" : json_tokener_error_desc(status)) + ")";
    if (const std::string duplicate = FindDuplicateKey(line); !duplicate.empty())
        return duplicate;
    if (!json_object_is_type(root.get(), json_type_object))
        return "not a JSON object";
    json_object_object_foreach(root.get(), key, unused)
    {
        (void)unused;
        if (strcmp(key, "argv") != 0 && strcmp(key, "fileText") != 0 && strcmp(key, "logLevel") != 0)
            return std::string(key) + ": unknown key (known: argv, fileText, logLevel)";
    }
    json_object *argv = Member(root.get(), "argv"), *text = Member(root.get(), "fileText"),
                *level = Member(root.get(), "logLevel");
    if (argv == nullptr || !json_object_is_type(argv, json_type_array) || json_object_array_length(argv) == 0)
        return "argv: must be an array holding the command and its arguments";
    for (size_t i = 0; i < json_object_array_length(argv); ++i) {
        json_object *arg = json_object_array_get_idx(argv, i);
        if (!json_object_is_type(arg, json_type_string))
            return "argv[" + std::to_string(i) + "]: must be a text";
        command.argv.emplace_back(json_object_get_string(arg), json_object_get_string_len(arg));
    }
    if (text != nullptr && !json_object_is_type(text, json_type_string))
        return "fileText: must be a text";
    if (level != nullptr && !json_object_is_type(level, json_type_int))
        return "logLevel: must be a number";
    if (text != nullptr)
        command.fileText.assign(json_object_get_string(text), json_object_get_string_len(text));
    if (level != nullptr)
        command.logLevel = json_object_get_int(level);
    return "";
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
    // An agent that refuses the request (too large, no memory left for it) answers and
    // closes before it has read it all: its answer is still there to read.
    const bool sent = WriteAll(fd, EncodeCommand(command));
    const int sendError = errno;
    if (sent)
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
        problem = socketPath + (sent ? ": the agent closed the connection without an answer (see its log)"
                                     : ": sending the command failed: " + std::string(strerror(sendError)));
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

}  // namespace kqagent
