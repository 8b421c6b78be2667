// Starts a program detached, with a given argument list, working directory
// and a complete environment that replaces the inherited one. The started
// program is not waited for; on POSIX no zombie is left behind.
#pragma once

#include "base/BaseExport.h"

#include <boost/filesystem/path.hpp>
#include <map>
#include <string>
#include <vector>

namespace Base {

class BASE_EXPORT Task {
public:
    Task() = default;
    // Starts the program at once with these arguments and the inherited environment.
    Task(const boost::filesystem::path& program, const std::vector<std::string>& arguments);

    void setArguments(const std::vector<std::string>& arguments) { mArguments = arguments; }
    void setLaunchPath(const boost::filesystem::path& program) { mLaunchPath = program; }
    void setCurrentDirectoryPath(const boost::filesystem::path& directory) { mCurrentDirectory = directory; }
    // The complete environment of the child, replacing the inherited one.
    void setEnvironment(std::map<std::string, std::string> environment);
    // For a caller that ends right after the start, such as a command-line
    // launcher: the program is started as the caller's own child, which the
    // system adopts when the caller ends, instead of through a middle
    // process that keeps a long-running caller free of zombies (POSIX); once
    // the program runs, the caller drops to the lowest priority (Windows: the
    // idle class), so that what it does before it ends does not delay the
    // program's start.
    void setCallerEndsAfterStart(bool ends) { mCallerEndsAfterStart = ends; }

    const boost::filesystem::path& launchPath() const { return mLaunchPath; }
    const std::vector<std::string>& arguments() const { return mArguments; }
    const boost::filesystem::path& currentDirectoryPath() const { return mCurrentDirectory; }

    // Starts the process and returns without waiting for it. Throws
    // BaseException naming the program and the reason when it cannot be
    // started (not found, not executable, bad working directory, ...; on
    // Windows also an argument of a batch file that the command interpreter
    // would change: one holding %, a double quote or a line break).
    // Returns the process id.
    long launch();

private:
    boost::filesystem::path mLaunchPath;
    std::vector<std::string> mArguments;
    boost::filesystem::path mCurrentDirectory;
    bool mHasEnvironment = false;
    bool mCallerEndsAfterStart = false;
    std::map<std::string, std::string> mEnvironment;
};

#ifdef _WIN32
// The argument as a command line must hold it for the C runtime's parser to give it back unchanged.
BASE_EXPORT std::string quoteWindowsArgument(const std::string& argument);
#endif

} // namespace Base
