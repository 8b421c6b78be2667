// File helpers and the host's file services (application data folder, short
// path form, executable test), plus the atomic write that every settings file
// goes through.
#pragma once

#include "base/BaseExport.h"

#include <boost/filesystem/path.hpp>
#include <string>

namespace Base {

class BASE_EXPORT FileManager {
public:
    using path = boost::filesystem::path;

    static bool exists(const path& p);
    // May the current user read it (a directory: list it)?
    static bool isReadable(const path& p);
    // May the current user execute it (a directory: enter it)? On Windows a
    // file needs an extension from PATHEXT.
    static bool isExecutable(const path& p);
    // Does the current user own it (a link: the link itself)? Always true on
    // Windows, where files of other users are not told apart here.
    static bool isOwnedByCurrentUser(const path& p);
    // Is the standard stream (0 input, 1 output, 2 error) an interactive terminal (on Windows a console)?
    static bool isTerminal(int stream);
    // Octal permissions such as 0775; throws BaseException naming the path and the OS reason.
    static void setPermissions(const path& p, unsigned permissions);
    static path workDirectory();
    // Throws BaseException naming the directory and the OS reason.
    static void changeWorkDirectory(const path& p);

    // The user's application data folder (Windows: the roaming AppData
    // folder, created when missing; POSIX: $XDG_CONFIG_HOME, else
    // $HOME/.config). Empty when it cannot be determined.
    static path applicationDataFolder();
    // The user's folder for data that can be made again (Windows: the local
    // AppData folder; POSIX: $XDG_CACHE_HOME, else $HOME/.cache). Empty when
    // it cannot be determined.
    static path userCacheFolder();
    // The short (8.3) form of an existing path on Windows; the text unchanged elsewhere.
    static std::string shortPathName(const std::string& longPath);

    // Writes the content to a temporary file beside the target and renames it
    // over the target, so the target is either the old file or the new one.
    // On Windows a target that another program holds open without sharing its
    // deletion is waited for, up to a second. Throws BaseException naming the
    // file and the OS reason; leaves no temporary file behind.
    static void writeFileAtomically(const path& target, const std::string& content);
    // Renames a directory in one step, never over anything that stands at the
    // new name (POSIX would silently replace an empty directory). Throws
    // BaseException naming both and the OS reason.
    static void moveDirectory(const path& from, const path& to);
    // Whether the text names one entry of a directory the same way on every
    // host and in every script: not empty, "." or "..", without blanks, '/' or '\\'.
    static bool isPlainName(const std::string& name);
    // Reads a whole file, holding it so that a save may replace it meanwhile;
    // throws BaseException naming the file and the OS reason.
    static std::string readFile(const path& file);
};

} // namespace Base
