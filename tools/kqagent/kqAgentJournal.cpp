#include "kqAgentJournal.h"

#include <iostream>

namespace kqagent {

namespace {

bool StartsWithPriority(const std::string &line)
{
    return line.size() >= 3 && line[0] == '<' && line[1] >= '0' && line[1] <= '7' && line[2] == '>';
}

bool StartsWith(const std::string &text, const char *head)
{
    return text.rfind(head, 0) == 0;
}

}  // namespace

std::ostream &operator<<(std::ostream &out, Priority priority)
{
    if (dynamic_cast<PriorityLineBuf *>(out.rdbuf()) != nullptr)
        out << '<' << static_cast<int>(priority) << '>';
    return out;
}

std::string WithPriority(const std::string &line, Priority fallback)
{
    if (StartsWithPriority(line))
        return line;
    Priority priority = fallback;
    if (StartsWith(line, "kqagent: warning: "))
        priority = Priority::Warning;
    else if (StartsWith(line, "kqagent: note: "))
        priority = Priority::Notice;
    return "<" + std::to_string(static_cast<int>(priority)) + ">" + line;
}

PriorityLineBuf::int_type PriorityLineBuf::overflow(int_type ch)
{
    if (traits_type::eq_int_type(ch, traits_type::eof()))
        return traits_type::not_eof(ch);
    const char c = traits_type::to_char_type(ch);
    return xsputn(&c, 1) == 1 ? ch : traits_type::eof();
}

std::streamsize PriorityLineBuf::xsputn(const char *text, std::streamsize count)
{
    for (std::streamsize i = 0; i < count; ++i) {
        line_ += text[i];
        if (text[i] == '\n')
            Emit();
    }
    return count;
}

void PriorityLineBuf::Emit()
{
    // One write per line: the host's own lines go to the same descriptor between them.
    const std::string out = WithPriority(line_, fallback_);
    target_->sputn(out.data(), static_cast<std::streamsize>(out.size()));
    target_->pubsync();
    line_.clear();
}

void UseJournalPriorities(bool errIsJournal, bool outIsJournal)
{
    // Never destroyed: the streams are flushed after every static object has gone.
    if (errIsJournal)
        std::cerr.rdbuf(new PriorityLineBuf(std::cerr.rdbuf(), Priority::Error));
    if (outIsJournal)
        std::cout.rdbuf(new PriorityLineBuf(std::cout.rdbuf(), Priority::Info));
}

}  // namespace kqagent
