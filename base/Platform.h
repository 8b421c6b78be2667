// Launch conventions: the strings a launch produces (which variable lists
// apply, how paths are written, how path lists are cleaned). Chosen at run
// time: the build host's set by default, KYM_PLATFORM=windows|posix (read
// once) or setCurrent() override it. Host services never change with it.
#pragma once

#include "base/BaseExport.h"

#include <boost/filesystem/path.hpp>
#include <string>

namespace Base {

class BASE_EXPORT Platform {
public:
    enum Kind { Windows, Posix };

    static const Platform& current();
    static void setCurrent(Kind kind);
    // Forgets setCurrent and the KYM_PLATFORM read: the next current() reads it again.
    static void resetCurrent();
    static const Platform& get(Kind kind);
    // "windows" or "posix"; throws BaseException for any other text.
    static Kind kindFromName(const std::string& name);

    Kind kind() const { return mKind; }
    bool isWindows() const { return mKind == Windows; }
    const std::string& name() const { return mName; }

    // '\\' or '/': the separator of native path text.
    char pathSeparator() const { return mPathSeparator; }
    // ';' or ':': the separator of path lists.
    char listSeparator() const { return mListSeparator; }
    // Native text of a path: backslashes under windows, forward slashes under posix.
    std::string nativePath(const boost::filesystem::path& p) const;
    std::string nativePath(const std::string& text) const;

    const std::string& osDirectoryName() const { return mOsDirectoryName; }
    const std::string& osaDirectoryName() const { return mOsaDirectoryName; }
    const std::string& scriptExtension() const { return mScriptExtension; }
    // Directories searched for stale files, separated by ';'.
    const std::string& cleanupDirectories() const { return mCleanupDirectories; }
    // Only files owned by the current user are cleaned up.
    bool cleanupOwnFilesOnly() const { return mCleanupOwnFilesOnly; }
    // Working directory of a launch when none is chosen.
    const std::string& defaultWorkDirectory() const { return mDefaultWorkDirectory; }
    // Names from the process environment are upper-cased.
    bool upperCaseProcessNames() const { return mUpperCaseProcessNames; }

private:
    explicit Platform(Kind kind);

    Kind mKind;
    std::string mName;
    char mPathSeparator;
    char mListSeparator;
    std::string mOsDirectoryName;
    std::string mOsaDirectoryName;
    std::string mScriptExtension;
    std::string mCleanupDirectories;
    bool mCleanupOwnFilesOnly;
    std::string mDefaultWorkDirectory;
    bool mUpperCaseProcessNames;
};

} // namespace Base
