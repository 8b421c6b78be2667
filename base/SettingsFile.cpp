#include "base/SettingsFile.h"

#include "base/FileLock.h"
#include "base/FileManager.h"
#include "base/Platform.h"

#include <boost/filesystem/operations.hpp>
#include <ctime>

namespace fs = boost::filesystem;

namespace Base {

namespace {

std::string native(const fs::path& p) {
    return Platform::current().nativePath(p);
}

// A name beside the file that no earlier copy has.
fs::path copyName(const fs::path& file) {
    char stamp[32];
    const std::time_t now = std::time(nullptr);
    std::tm fields{};
#ifdef _WIN32
    localtime_s(&fields, &now);
#else
    localtime_r(&now, &fields);
#endif
    std::strftime(stamp, sizeof(stamp), "%Y%m%d-%H%M%S", &fields);
    fs::path copy = file.string() + ".replaced-" + stamp;
    boost::system::error_code error;
    for (int number = 2; fs::exists(copy, error); ++number)
        copy = file.string() + ".replaced-" + stamp + "-" + std::to_string(number);
    return copy;
}

} // namespace

void SettingsFile::setRead(const FileIdentity& identity) {
    mRead = identity;
    mReadFailure.clear();
}

void SettingsFile::setReadFailure(const std::string& reason) {
    mReadFailure = reason.empty() ? std::string("it could not be read") : reason;
}

void SettingsFile::checkWritable() const {
    if (readFailed())
        throw SettingsFileDamaged("Settings file " + native(mPath) + " is not saved over: reading it failed (" +
                                  mReadFailure + "). It stays as it is until it is replaced deliberately.");
    const FileIdentity now = FileIdentity::ofFile(mPath);
    if (mRead.exists() && !now.exists())
        throw SettingsFileChanged("Settings file " + native(mPath) +
                                  " was removed or moved away by another writer since it was read; nothing was "
                                  "written. Read it again and repeat the change.");
    if (now != mRead)
        throw SettingsFileChanged("Settings file " + native(mPath) +
                                  " was changed by another writer since it was read; nothing was written. Read it "
                                  "again and repeat the change, or overwrite it deliberately.");
}

void SettingsFile::write(const std::string& content) {
    const FileLock lock(mPath);
    checkWritable();
    lock.confirm(mPath);
    FileManager::writeFileAtomically(mPath, content);
    setRead(FileIdentity::ofContent(content));
}

fs::path SettingsFile::overwrite(const std::string& content) {
    const FileLock lock(mPath);
    lock.confirm(mPath);
    fs::path copy;
    const bool keepCopy = readFailed() || FileIdentity::ofFile(mPath) != mRead;
    boost::system::error_code error;
    if (keepCopy && fs::exists(mPath, error)) {
        copy = copyName(mPath);
        fs::copy_file(mPath, copy);
    }
    FileManager::writeFileAtomically(mPath, content);
    setRead(FileIdentity::ofContent(content));
    return copy;
}

fs::path SettingsFile::setAside(const fs::path& file) {
    const FileLock lock(file);
    const fs::path copy = copyName(file);
    fs::rename(file, copy);
    return copy;
}

} // namespace Base
