// kqagent's commands ("verbs") as one table: what each is called, how it is written, what
// it says about itself, the options and arguments it takes and the function that runs it.
// The user's process and the agent parse a command line against the same table.
#pragma once

#include <climits>
#include <map>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace kqagent {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // the module or the system refused, or a service does not run
constexpr int kExitUsage = 2;   // bad command line or bad request file
constexpr int kExitDrift = 3;   // status: something does not run as desired

// "kqagent: <problem>\ntry 'kqagent help <command>'\n" on err; returns kExitUsage.
int Usage(std::ostream &err, const std::string &problem, const std::string &command = "");

struct Verb;
class Agent;

// A command line parsed against its verb.
struct Invocation {
    const Verb *verb = nullptr;
    std::vector<std::string> args;              // the positional arguments, in order
    std::set<std::string> flags;                // options without a value that were given
    std::map<std::string, std::string> values;  // options with a value: the last one given

    bool Has(const std::string &flag) const { return flags.count(flag) != 0; }
    std::optional<std::string> Value(const std::string &option) const;
    bool operator==(const Invocation &other) const = default;
};

// What a verb's function works with. The request file was read by the user's own process.
struct VerbCall {
    const Invocation &invocation;
    const std::string &fileText;
    std::ostream &out;
    std::ostream &err;
    Agent *agent;  // null for the verbs that run without one
};

struct VerbOption {
    const char *name;  // "--zone"
    bool takesValue;   // --zone N, as opposed to a flag such as --rs
};

constexpr unsigned kAnyCount = UINT_MAX;

enum VerbTrait : unsigned {
    kVerbReadsFile = 1u << 0,  // the first positional argument is a request file
    kVerbChanges = 1u << 1,    // changes what runs: without an agent it needs the agent's registry
    kVerbLocal = 1u << 2,      // runs in the user's process only, never through the agent
    kVerbReadsRegistry = 1u << 3,  // without an agent it needs the agent's registry, but changes nothing
};

struct Verb {
    const char *name;
    const char *synopsis;  // as the usage lists it, without "kqagent "
    const char *summary;   // one line beside (or under) the synopsis
    const char *help;      // `kqagent help NAME`; null: the verb has none of its own
    std::vector<VerbOption> options;
    unsigned minArgs, maxArgs;        // positional arguments
    const char *tooFew, *tooMany;     // the usage problems when their count is off
    unsigned traits;  // VerbTrait bits
    int (*run)(const VerbCall &call);

    bool Is(VerbTrait trait) const { return (traits & trait) != 0; }
};

// The verb of that name, or null.
const Verb *FindVerb(const std::string &name);

// argv (the verb's name first) parsed against the verb's options and argument count:
// kExitOk, or kExitUsage with the problem said on err. An unknown verb is a usage problem.
int ParseInvocation(const std::vector<std::string> &argv, Invocation &invocation, std::ostream &err);

// kqagent's usage text, its command list made from the table.
std::string UsageText();

// The verbs' functions, where they live (kqAgentCommands.cpp, kqAgentMain.cpp). Weak, so
// that the unit tests can link the table without the agent behind it.
[[gnu::weak]] int RunServe(const VerbCall &call);
[[gnu::weak]] int RunApply(const VerbCall &call);
[[gnu::weak]] int RunCheck(const VerbCall &call);
[[gnu::weak]] int RunPlan(const VerbCall &call);
[[gnu::weak]] int RunLoad(const VerbCall &call);
[[gnu::weak]] int RunClient(const VerbCall &call);
[[gnu::weak]] int RunRs(const VerbCall &call);
[[gnu::weak]] int RunStatus(const VerbCall &call);
int RunHelp(const VerbCall &call);

}  // namespace kqagent
