#include "base/Environment.h"

#include "base/BaseException.h"

#include <cstdlib>
#include <cstring>
#include <deque>
#include <string_view>
#include <unordered_set>

#ifdef _WIN32
#include <windows.h>
#else
extern char** environ;
#endif

namespace Base {
namespace Environment {

namespace {

bool isNameStart(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}

bool isName(const std::string& text) {
    if (text.empty() || !isNameStart(text[0])) return false;
    for (char c : text)
        if (!isNameCharacter(c)) return false;
    return true;
}

// Expands without recursion: a value that holds references becomes a frame
// on an explicit stack, so a long chain of references cannot overflow the
// call stack, and the names of the open frames detect a cycle.
// lookup(name) answers a pointer to the value or null; the value must stay
// valid until the expansion ends.
template <class Lookup>
std::string& expand(std::string& text, Lookup lookup) {
    if (text.find('$') == std::string::npos) return text;

    struct Frame {
        const std::string* text;
        std::string::size_type position;
    };
    std::vector<Frame> frames{{&text, 0}};
    std::deque<std::string> openNames;  // the name of every frame but the first; a deque keeps them in place
    std::unordered_set<std::string_view> open;
    std::string result;
    result.reserve(text.size());

    while (!frames.empty()) {
        Frame& frame = frames.back();
        const std::string& current = *frame.text;
        std::string::size_type dollar = current.find('$', frame.position);
        if (dollar == std::string::npos) {
            result.append(current, frame.position, std::string::npos);
            frames.pop_back();
            if (!openNames.empty()) {
                open.erase(openNames.back());
                openNames.pop_back();
            }
            continue;
        }
        result.append(current, frame.position, dollar - frame.position);

        std::string::size_type next = dollar + 1;
        std::string name;
        if (next < current.size() && current[next] == '{') {
            std::string::size_type close = current.find('}', next + 1);
            if (close == std::string::npos)
                throw BaseException("Unterminated reference '" + current.substr(dollar) + "' in '" + current + "'");
            name = current.substr(next + 1, close - next - 1);
            if (!isName(name))
                throw BaseException("Invalid variable name '" + current.substr(dollar, close + 1 - dollar) +
                                    "' in '" + current + "'");
            frame.position = close + 1;
        } else if (next < current.size() && isNameStart(current[next])) {
            std::string::size_type end = next + 1;
            while (end < current.size() && isNameCharacter(current[end])) ++end;
            name = current.substr(next, end - next);
            frame.position = end;
        } else {
            result += '$';
            frame.position = next;
            continue;
        }

        if (open.count(name)) {
            std::string cycle;
            bool inCycle = false;
            for (const auto& openName : openNames) {
                if (openName == name) inCycle = true;
                if (inCycle) cycle += openName + " -> ";
            }
            throw BaseException("Reference cycle: " + cycle + name);
        }
        const std::string* value = lookup(name);
        if (!value) continue;
        if (value->find('$') == std::string::npos) {
            result += *value;
            continue;
        }
        openNames.push_back(std::move(name));
        open.insert(openNames.back());
        frames.push_back(Frame{value, 0});
    }
    // Assigned only now: the text may be one of the values being read.
    text = std::move(result);
    return text;
}

} // namespace

#ifdef _WIN32

// The process's environment block, which children inherit and which the
// system's own calls change; the C runtime keeps only a copy of it.
std::string getEnvVariable(const std::string& name) {
    std::string value(256, '\0');
    for (;;) {
        const DWORD length = GetEnvironmentVariableA(name.c_str(), &value[0], static_cast<DWORD>(value.size()));
        if (length == 0) return std::string();
        if (length < value.size()) return value.substr(0, length);
        value.resize(length);
    }
}

std::vector<std::string> environmentStrings() {
    std::vector<std::string> strings;
    char* block = GetEnvironmentStringsA();
    // Entries such as "=C:=C:\\work" hold the current directory of each drive, no variable.
    for (const char* entry = block; entry && *entry; entry += std::strlen(entry) + 1)
        if (*entry != '=') strings.emplace_back(entry);
    if (block) FreeEnvironmentStringsA(block);
    return strings;
}

#else

std::string getEnvVariable(const std::string& name) {
    const char* value = std::getenv(name.c_str());
    return value ? std::string(value) : std::string();
}

std::vector<std::string> environmentStrings() {
    std::vector<std::string> strings;
    for (char** entry = environ; entry && *entry; ++entry) strings.emplace_back(*entry);
    return strings;
}

#endif

std::string& expandEnvVariables(std::string& text) {
    std::deque<std::string> values;  // copies, in case the environment changes while we read it
    return expand(text, [&values](const std::string& name) -> const std::string* {
        values.push_back(getEnvVariable(name));
        return &values.back();
    });
}

std::string& expandEnvVariables(std::string& text, const Map& variables) {
    return expand(text, [&variables](const std::string& name) -> const std::string* {
        Map::const_iterator found = variables.find(name);
        return found == variables.end() ? nullptr : &found->second;
    });
}

} // namespace Environment
} // namespace Base
