#include "kqAgentJson.h"

#include <set>
#include <string_view>
#include <vector>

namespace kqagent {

namespace {

void AppendUtf8(std::string &out, unsigned code)
{
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

// Four hexadecimal digits at text[at], or -1.
long Hex4(std::string_view text, size_t at)
{
    if (at + 4 > text.size())
        return -1;
    long value = 0;
    for (size_t i = at; i < at + 4; ++i) {
        const char c = text[i];
        const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
        if (digit < 0)
            return -1;
        value = value * 16 + digit;
    }
    return value;
}

// The contents of a JSON string (between its quotes) as json-c stores an object's key:
// "\u0061rgv" and "argv" are one key to it, so they must be one key here too.
std::string Unescape(std::string_view raw)
{
    static constexpr std::string_view kFrom = "\"\\/bfnrt", kTo = "\"\\/\b\f\n\r\t";
    std::string text;
    for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] != '\\' || i + 1 >= raw.size()) {
            text += raw[i];
            continue;
        }
        const char kind = raw[++i];
        if (const size_t simple = kFrom.find(kind); simple != std::string_view::npos) {
            text += kTo[simple];
            continue;
        }
        long code = kind == 'u' ? Hex4(raw, i + 1) : -1;
        if (code < 0) {
            text += kind;
            continue;
        }
        i += 4;
        if (code >= 0xD800 && code < 0xDC00 && i + 2 < raw.size() && raw[i + 1] == '\\' && raw[i + 2] == 'u') {
            const long low = Hex4(raw, i + 3);
            if (low >= 0xDC00 && low < 0xE000) {
                code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                i += 6;
            }
        }
        if (code >= 0xD800 && code < 0xE000)
            code = 0xFFFD;  // a surrogate without its pair, as json-c stores it
        AppendUtf8(text, static_cast<unsigned>(code));
    }
    // json-c keeps a key as a C string: it ends at the first NUL.
    return text.substr(0, text.find('\0'));
}

}  // namespace

std::string FindDuplicateKey(const std::string &text)
{
    // Valid JSON only, so a small scanner does: strings, and the structure around them.
    struct Level {
        bool object;
        std::string path;
        size_t index = 0;
        std::set<std::string> keys;
        bool expectKey = true;
        std::string key;
    };
    std::vector<Level> stack;
    auto childPath = [&]() -> std::string {
        if (stack.empty())
            return "";
        const Level &top = stack.back();
        if (top.object)
            return top.path.empty() ? top.key : top.path + "." + top.key;
        return top.path + "[" + std::to_string(top.index) + "]";
    };
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '"') {
            size_t end = i + 1;
            while (end < text.size() && text[end] != '"')
                end += text[end] == '\\' ? 2 : 1;
            if (!stack.empty() && stack.back().object && stack.back().expectKey) {
                Level &top = stack.back();
                top.key = Unescape(std::string_view(text).substr(i + 1, std::min(end, text.size()) - i - 1));
                top.expectKey = false;
                if (!top.keys.insert(top.key).second)
                    return childPath() + ": duplicate key (the second value would silently replace the first)";
            }
            i = end;
        } else if (c == '{' || c == '[') {
            stack.push_back(Level{c == '{', childPath()});
        } else if (c == '}' || c == ']') {
            if (!stack.empty())
                stack.pop_back();
        } else if (c == ',' && !stack.empty()) {
            stack.back().expectKey = true;
            ++stack.back().index;
        }
    }
    return "";
}

}  // namespace kqagent
