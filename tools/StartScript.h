// The variable assignments of an existing start script, read so that a site
// moving to kym keeps what its scripts set: a Windows batch file's
// set NAME=VALUE lines and a shell script's NAME=VALUE and export lines.
#pragma once

#include <string>
#include <vector>

namespace KymTool {

struct StartScript {
    struct Assignment {
        int line;
        std::string name;
        std::string value;  // references as ${NAME}; empty: the script removes the variable
    };
    struct Skipped {
        int line;
        std::string text;
        std::string reason;
    };
    std::vector<Assignment> assignments;
    // Lines that do something else, or set a value kym cannot express.
    std::vector<Skipped> skipped;
};

StartScript readBatchScript(const std::string& text);
StartScript readShellScript(const std::string& text);

} // namespace KymTool
