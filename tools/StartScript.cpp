#include "StartScript.h"

#include "kym/EnvironmentVariable.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/regex.hpp>

#include <sstream>

namespace KymTool {

namespace {

// A reference: what %NAME% and $NAME may name.
const boost::regex ReferenceName("[A-Za-z_#][A-Za-z0-9_#]*");

// Calls `line` with each line's number and text, without a line end; with
// `continued`, a line that ends in a backslash goes on in the next one.
template <class Function>
void eachLine(const std::string& text, bool continued, Function line) {
    std::istringstream in(text);
    std::string current;
    std::string whole;
    int first = 0;
    for (int number = 1; std::getline(in, current); ++number) {
        if (!current.empty() && current.back() == '\r') current.pop_back();
        if (whole.empty()) first = number;
        const std::size_t backslashes = current.size() - current.find_last_not_of('\\') - 1;
        if (continued && current.find_last_not_of('\\') != std::string::npos && backslashes % 2 == 1) {
            current.pop_back();
            whole += current;
            continue;
        }
        whole += current;
        line(first, whole);
        whole.clear();
    }
    if (!whole.empty()) line(first, whole);
}

// A value cannot be kept when a reference in it is something only the
// interpreter knows; the reason says what.
struct Value {
    std::string text;
    std::string problem;
};

// %NAME% becomes ${NAME}, %% a single %; %1, %~dp0 and %NAME:x=y% have no
// counterpart in kym.
Value batchValue(const std::string& raw) {
    Value value;
    for (std::size_t at = 0; at < raw.size();) {
        if (raw[at] != '%') {
            value.text += raw[at++];
            continue;
        }
        if (at + 1 < raw.size() && raw[at + 1] == '%') {
            value.text += '%';
            at += 2;
            continue;
        }
        const std::size_t end = raw.find('%', at + 1);
        const std::string name = end == std::string::npos ? std::string() : raw.substr(at + 1, end - at - 1);
        if (!boost::regex_match(name, ReferenceName)) {
            value.problem = "the reference " + raw.substr(at, end == std::string::npos ? 5 : end - at + 1) +
                            " has no counterpart in kym";
            return value;
        }
        value.text += "${" + name + "}";
        at = end + 1;
    }
    return value;
}

// One shell word: quotes removed, $NAME and ${NAME} kept as ${NAME};
// command substitution, parameter operators and more than one word are not.
Value shellValue(const std::string& raw) {
    Value value;
    char quote = 0;
    for (std::size_t at = 0; at < raw.size(); ++at) {
        const char c = raw[at];
        if (quote == '\'') {
            if (c == '$') {
                // kym would read it as a reference.
                value.problem = "a literal $ has no counterpart in kym";
                return value;
            }
            if (c == '\'')
                quote = 0;
            else
                value.text += c;
        } else if (c == '\'' && !quote) {
            quote = '\'';
        } else if (c == '"') {
            quote = quote ? 0 : '"';
        } else if (c == '\\' && at + 1 < raw.size()) {
            const char next = raw[at + 1];
            // Inside double quotes a backslash only escapes these.
            if (quote && next != '"' && next != '\\' && next != '$' && next != '`') {
                value.text += c;
            } else {
                value.text += next;
                ++at;
            }
        } else if (c == '`') {
            value.problem = "command substitution has no counterpart in kym";
            return value;
        } else if (c == '$') {
            boost::smatch match;
            const std::string rest = raw.substr(at + 1);
            if (boost::regex_search(rest, match, boost::regex("^\\{([A-Za-z_][A-Za-z0-9_]*)\\}")) ||
                boost::regex_search(rest, match, boost::regex("^([A-Za-z_][A-Za-z0-9_]*)"))) {
                value.text += "${" + match[1].str() + "}";
                at += static_cast<std::size_t>(match[0].length());
            } else {
                value.problem = "the expansion $" + rest.substr(0, std::min<std::size_t>(rest.size(), 12)) +
                                " has no counterpart in kym";
                return value;
            }
        } else if (!quote && (c == ' ' || c == '\t' || c == ';' || c == '&' || c == '|' || c == '<' || c == '>')) {
            const std::string rest = boost::algorithm::trim_copy(raw.substr(at));
            if (rest.empty() || rest[0] == '#') return value;
            value.problem = "more follows the value (" + rest + ")";
            return value;
        } else {
            value.text += c;
        }
    }
    if (quote) value.problem = "a quote is not closed";
    return value;
}

void add(StartScript& script, int line, const std::string& text, const std::string& name, const Value& value) {
    if (!Kym::EnvVariableListSource::isValidName(name))
        script.skipped.push_back({line, text, "'" + name + "' is not a name kym keeps"});
    else if (!value.problem.empty())
        script.skipped.push_back({line, text, value.problem});
    else
        script.assignments.push_back({line, name, value.text});
}

} // namespace

StartScript readBatchScript(const std::string& text) {
    StartScript script;
    // set NAME=VALUE, set "NAME=VALUE", after an optional @.
    const boost::regex assignment("@?\\s*set\\s+(\"?)([^=\"/][^=\"]*)=(.*)", boost::regex::icase);
    const boost::regex harmless("@?\\s*(echo\\s+(off|on)|setlocal|endlocal|rem(\\s.*)?|::.*)", boost::regex::icase);
    eachLine(text, false, [&](int number, const std::string& line) {
        const std::string trimmed = boost::algorithm::trim_copy(line);
        if (trimmed.empty() || trimmed == "@" || boost::regex_match(trimmed, harmless)) return;
        boost::smatch match;
        if (!boost::regex_match(trimmed, match, assignment)) {
            script.skipped.push_back({number, line, "not a set NAME=VALUE line"});
            return;
        }
        const std::string name = boost::algorithm::trim_copy(match[2].str());
        std::string raw = match[3].str();
        if (!match[1].str().empty()) {
            // set "NAME=VALUE" ends at the last quote; what follows is ignored by cmd too.
            const std::size_t close = raw.rfind('"');
            if (close == std::string::npos) {
                script.skipped.push_back({number, line, "a quote is not closed"});
                return;
            }
            raw.erase(close);
        } else {
            boost::algorithm::trim_right(raw);
        }
        add(script, number, line, name, batchValue(raw));
    });
    return script;
}

StartScript readShellScript(const std::string& text) {
    StartScript script;
    // NAME=VALUE; export NAME is one assignment too.
    const boost::regex assignment("(?:export\\s+)?([A-Za-z_][A-Za-z0-9_]*)=(.*?)(?:;\\s*export\\s+\\1)?\\s*");
    const boost::regex exportOnly("export(\\s+[A-Za-z_][A-Za-z0-9_]*)+\\s*(#.*)?");
    const boost::regex unset("unset\\s+([A-Za-z_][A-Za-z0-9_]*)\\s*(#.*)?");
    eachLine(text, true, [&](int number, const std::string& line) {
        const std::string trimmed = boost::algorithm::trim_copy(line);
        if (trimmed.empty() || trimmed[0] == '#' || boost::regex_match(trimmed, exportOnly)) return;
        boost::smatch match;
        if (boost::regex_match(trimmed, match, unset)) {
            script.assignments.push_back({number, match[1].str(), std::string()});
        } else if (boost::regex_match(trimmed, match, assignment)) {
            add(script, number, line, match[1].str(), shellValue(match[2].str()));
        } else {
            script.skipped.push_back({number, line, "not a NAME=VALUE or export line"});
        }
    });
    return script;
}

} // namespace KymTool
