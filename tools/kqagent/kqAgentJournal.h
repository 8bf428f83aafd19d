// Syslog priorities on the agent's own lines when its stderr is the journal, so that
// `journalctl -p err` shows exactly its errors. The agent's stderr carries problems: a line
// is an error unless it says otherwise ("kqagent: warning: ...", "kqagent: note: ...", or a
// priority written in front of it with the manipulators below). Elsewhere nothing changes.
#pragma once

#include <ostream>
#include <streambuf>
#include <string>

namespace kqagent {

// The priorities of sd-daemon.h (SD_ERR "<3>", SD_WARNING "<4>", SD_NOTICE "<5>", SD_INFO "<6>").
enum class Priority { Error = 3, Warning = 4, Notice = 5, Info = 6 };

// Marks the line about to be written on a journal stream; writes nothing on any other.
std::ostream &operator<<(std::ostream &out, Priority priority);

// The line as the journal gets it: a line that already starts with "<0>".."<7>" as it is,
// else with the priority its text says, else with fallback.
std::string WithPriority(const std::string &line, Priority fallback);

// Passes whole lines to target, each with its priority in front (WithPriority).
class PriorityLineBuf : public std::streambuf {
public:
    PriorityLineBuf(std::streambuf *target, Priority fallback) : target_(target), fallback_(fallback) {}

protected:
    int_type overflow(int_type ch) override;
    std::streamsize xsputn(const char *text, std::streamsize count) override;

private:
    void Emit();
    std::streambuf *target_;
    Priority fallback_;
    std::string line_;
};

// From here on std::cerr, and std::cout, through a PriorityLineBuf each when it is the
// journal stream systemd named (KQ_HostIsJournalStream); a stream that is not stays as it is.
void UseJournalPriorities(bool errIsJournal, bool outIsJournal);

}  // namespace kqagent
