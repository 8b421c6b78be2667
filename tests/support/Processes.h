// Helpers for tests that start programs or set the whole process
// environment, the same on every host: a program run to its end with its
// output captured, a probe program that records how it was started, and the
// host's own forms of what such programs print.
#pragma once

#include "support/TestSupport.h"

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace KymTest {

// Replaces the whole environment of this process, but for the named variables, and puts the old one back when it goes.
class ProcessEnvironment {
public:
    explicit ProcessEnvironment(const std::vector<std::pair<std::string, std::string>>& variables,
                                const std::set<std::string>& kept = {});
    ~ProcessEnvironment();
    ProcessEnvironment(const ProcessEnvironment&) = delete;
    ProcessEnvironment& operator=(const ProcessEnvironment&) = delete;

private:
    std::vector<std::string> mSaved;
};

// What a program that ran to its end did.
struct Outcome {
    int status;
    std::string out, err;
};

// Runs the program with these arguments, each arriving as one argument as
// given, with this process's environment and an empty standard input that is
// no terminal, and waits for it.
Outcome runProgram(const fs::path& program, const std::vector<std::string>& arguments);

// The text as a program of this host prints it on a text stream: Windows' C runtime ends lines with CRLF.
std::string printedText(const std::string& text);

// The short (8.3) form of an existing path on Windows, as the system gives it; elsewhere the path itself.
std::string shortFormOnThisHost(const fs::path& path);

// A program that records how it was started, alone in a fresh folder: on
// POSIX a shell script that copies its argument vector and environment from
// /proc, exactly as execve was given them; on Windows the built test probe
// (pass KYM_PROBE), copied there. It runs on after whoever started it returned.
class Probe {
public:
    explicit Probe(const fs::path& builtProbe);
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;

    const fs::path& program() const { return mProgram; }

    struct Record {
        std::vector<std::string> arguments;  // the argument vector, as the program got it
        // NAME=VALUE, in the order the program got them; under Wine without the trailing variables Wine
        // adds itself (WINE..., SystemDrive, SystemRoot), so an environment compared whole must not end in those.
        std::vector<std::string> environment;
        std::string directory;  // the working directory
        // The value of a variable of the environment, or "(unset)".
        std::string value(const std::string& name) const;
    };
    // Waits up to ten seconds for the program to finish its record, reads it and clears it for the next start;
    // throws when nothing came.
    Record record() const;
    // The argument vector that starting the program with these arguments gives it: on POSIX the shell and
    // the script come first, on Windows the program as named on the command line.
    std::vector<std::string> argumentsFor(const std::vector<std::string>& arguments) const;

private:
    TempDir mFolder;
    fs::path mProgram;
};

} // namespace KymTest
