#include "base/Platform.h"

#include "base/BaseException.h"
#include "base/Environment.h"

#include <algorithm>

namespace Base {

namespace {

Platform::Kind hostKind() {
#ifdef _WIN32
    return Platform::Windows;
#else
    return Platform::Posix;
#endif
}

// Null until first use or setCurrent.
const Platform*& chosen() {
    static const Platform* platform = nullptr;
    return platform;
}

} // namespace

Platform::Platform(Kind kind) : mKind(kind) {
    if (kind == Windows) {
        mName = "windows";
        mPathSeparator = '\\';
        mListSeparator = ';';
        mOsDirectoryName = "win64";
        mOsaDirectoryName = "win64";
        mScriptExtension = "bat";
        mCleanupDirectories = "c:\\temp;$TEMP";
        mCleanupOwnFilesOnly = false;
        mDefaultWorkDirectory = "${USERPROFILE}";
        mUpperCaseProcessNames = true;
    } else {
        mName = "posix";
        mPathSeparator = '/';
        mListSeparator = ':';
        mOsDirectoryName = "lnx64";
        mOsaDirectoryName = "lnx64";
        mScriptExtension = "sh";
        mCleanupDirectories = "/tmp;$TMPDIR";
        mCleanupOwnFilesOnly = true;
        mDefaultWorkDirectory = "${HOME}";
        mUpperCaseProcessNames = false;
    }
}

const Platform& Platform::get(Kind kind) {
    // Never destroyed: conventions may be asked for while the process exits.
    static const Platform* windows = new Platform(Windows);
    static const Platform* posix = new Platform(Posix);
    return kind == Windows ? *windows : *posix;
}

Platform::Kind Platform::kindFromName(const std::string& name) {
    if (name == "windows") return Windows;
    if (name == "posix") return Posix;
    throw BaseException("KYM_PLATFORM must be windows or posix, not '" + name + "'");
}

const Platform& Platform::current() {
    const Platform*& platform = chosen();
    if (!platform) {
        std::string requested = Environment::getEnvVariable("KYM_PLATFORM");
        platform = &get(requested.empty() ? hostKind() : kindFromName(requested));
    }
    return *platform;
}

void Platform::setCurrent(Kind kind) {
    chosen() = &get(kind);
}

void Platform::resetCurrent() {
    chosen() = nullptr;
}

std::string Platform::nativePath(const boost::filesystem::path& p) const {
    return nativePath(p.string());
}

std::string Platform::nativePath(const std::string& text) const {
    std::string native = text;
    if (isWindows())
        std::replace(native.begin(), native.end(), '/', '\\');
    else
        std::replace(native.begin(), native.end(), '\\', '/');
    return native;
}

} // namespace Base
