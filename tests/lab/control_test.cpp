// The agent's control socket under abuse: a client that never reads its answer, one that
// never finishes its request, one that would take the connections past their memory
// ceiling, a request line with a key given twice and one whose command holds control
// characters. Each costs only itself: the others get their answers meanwhile.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "labutil.h"

namespace {

constexpr const char *kSocket = "/run/kq-lab-control/kqagent.sock";
constexpr size_t kCeiling = 4u << 20;

// A client written by hand: it sends what it is told and reads only when asked.
struct RawClient {
    RawClient()
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, kSocket);
        if (Fd < 0 || connect(Fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0)
            throw std::runtime_error(std::string("connect ") + kSocket + ": " + strerror(errno));
    }
    ~RawClient() { close(Fd); }
    RawClient(const RawClient &) = delete;
    // Sends Text until done or the agent closes the connection.
    void Send(const std::string &Text)
    {
        for (size_t done = 0; done < Text.size();) {
            const ssize_t n = send(Fd, Text.data() + done, Text.size() - done, MSG_NOSIGNAL);
            if (n <= 0)
                return;
            done += static_cast<size_t>(n);
        }
    }
    // Everything the agent sends until it closes the connection.
    std::string Answer()
    {
        std::string text;
        char buffer[65536];
        for (pollfd p{Fd, POLLIN, 0}; poll(&p, 1, 60000) > 0;) {
            const ssize_t n = read(Fd, buffer, sizeof(buffer));
            if (n <= 0)
                break;
            text.append(buffer, static_cast<size_t>(n));
        }
        return text;
    }
    int Fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

std::string Ask(const std::string &Line)
{
    RawClient client;
    client.Send(Line);
    return client.Answer();
}

TEST(ControlLab, EachConnectionCostsOnlyItself)
{
    LAB_REQUIRE();
    lab::Sweep sweep;
    lab::TempDir dir;
    lab::UseHost(dir, R"("logLevel": 3, "controlSocket": ")" + std::string(kSocket) + R"(", "controlMemory": )" +
                          std::to_string(kCeiling));
    const std::string log = dir.File("serve.log");
    auto agent = lab::Serve(KQAGENT_PATH, log);
    const std::string me = std::to_string(getpid());
    const std::string dropped = "kqagent: dropped the connection of pid " + me + ": ";

    // A stalled reader: an answer of a megabyte, far more than the socket buffers, never read.
    const std::string longName(1u << 20, 'x');
    RawClient stalled;
    stalled.Send(R"({"argv":[")" + longName + "\"]}\n");
    // And a request that never ends.
    RawClient unfinished;
    unfinished.Send(R"({"argv":)");

    // Meanwhile everyone else is answered.
    const lab::Outcome status = lab::Kqagent(dir, "status");
    EXPECT_EQ(status.Status, 0) << status.Err;
    EXPECT_TRUE(lab::Has(status.Out, "agent: running"));

    const std::string padding(3u << 20, ' ');
    const std::string big = R"({"argv":["status"],"fileText":")" + padding + "\"}\n";
    const std::string duplicate = R"({"argv":["status"],"\u0061rgv":["load"]})" "\n";
    const std::string forged = R"({"argv":["status\nkqagent: forged\u001b[2K"]})" "\n";
    const struct { std::string line, answer; } cases[] = {
        {big, R"({"exit":1,"out":"","err":"kqagent: the agent's connections hold )"},
        {duplicate, R"({"exit":2,"out":"","err":"kqagent: not a kqagent request: argv: duplicate key (the second value would silently replace the first)\n"})"
                    "\n"},
        {forged, R"({"exit":2,"out":"","err":"kqagent: no such command: status\nkqagent: forged\u001b[2K\ntry 'kqagent help'\n"})"
                 "\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line.substr(0, 80));
        EXPECT_EQ(Ask(c.line).substr(0, c.answer.size()), c.answer);
    }
    // All of that while the stalled connections were still held.
    EXPECT_FALSE(lab::Has(lab::Text(log), dropped));

    // The stalled ones go, each with one line; then the big request fits.
    EXPECT_TRUE(lab::WaitFor([&] { return lab::Has(lab::Text(log), dropped + "its answer to xxxx"); }, 60s)) << lab::Text(log);
    EXPECT_TRUE(lab::WaitFor([&] { return lab::Has(lab::Text(log), dropped + "no whole request in 10 s (8 bytes)"); }, 60s));
    EXPECT_EQ(lab::JsonAt(Ask(big), "exit"), "0");

    const std::string text = lab::Text(log);
    for (const std::string &line : {
             "kqagent: refused a request from pid " + me + ": the connections would hold more than 4194304 bytes (\"controlMemory\")\n",
             "kqagent: refused a request from pid " + me + ": argv: duplicate key (the second value would silently replace the first)\n",
             "kqagent: status\\nkqagent: forged\\x1b[2K from pid " + me + ": exit 2\n",
             dropped + "its answer to " + std::string(64, 'x') + "... was not read in 10 s (",
         })
        EXPECT_TRUE(lab::Has(text, line));
    EXPECT_FALSE(lab::Has(text, "\nkqagent: forged"));
    EXPECT_FALSE(lab::Has(text, "load from pid"));
    agent->Stop();
    EXPECT_EQ(agent->Status, std::optional<int>(0));
}

// A misspelt key in the host settings would move every interface to zone 0: nothing runs.
TEST(ControlLab, AnUnknownHostSettingsKeyStopsEveryCommand)
{
    LAB_REQUIRE();
    lab::Sweep sweep;
    lab::TempDir dir;
    lab::UseHost(dir, R"("lan": [{"ifname": "lan1", "vpnId": 7}])");
    lab::WriteFile(dir.File("req.json"), R"({"requests":[{"op":"delete","item":{"ifname":"lan1"}}]})");
    const std::string refusal = "kqagent: " + dir.File("kqhost.json") +
                                R"(: unknown key "lan" (known keys: "dhcpConf", "dhcpConfBak", "desiredState", "controlSocket", )"
                                R"("controlMemory", "lans", "netns", "logLevel", "logTo", "dhcpv6Interfaces"))" "\n"
                                "kqagent: nothing done; fix the host settings file first\n";
    for (const std::string &args : std::vector<std::string>{"serve", "status", "check " + dir.File("req.json"), "apply " + dir.File("req.json"), "load",
                                   "client disable ipv4 wan0", "rs wan0", "--config " + dir.File("kqhost.json") + " plan " + dir.File("req.json")}) {
        SCOPED_TRACE(args);
        const lab::Outcome run = lab::Kqagent(dir, args);
        EXPECT_EQ(std::make_tuple(run.Status, run.Out, run.Err), std::make_tuple(2, std::string(), refusal));
    }
    EXPECT_EQ(lab::Kqagent(dir, "help status").Status, 0);
    EXPECT_FALSE(lab::ReadFile(dir.File("desired.json")));
    EXPECT_TRUE(lab::Procs(KQAGENT_PATH " serve").empty());
}

}  // namespace
