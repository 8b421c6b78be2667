// The file of a settings store, and what the store knows of it: what the
// file held when the store read it and, when the read failed in part or
// whole, why. A save goes through it: under the file's lock, it writes only
// when the file is still what was read and was read whole; otherwise it
// throws and writes nothing. A deliberate overwrite replaces the file
// whatever it holds, keeping a copy of what it replaces when that is a file
// another writer changed or one that could not be read.
#pragma once

#include "base/BaseException.h"
#include "base/BaseExport.h"
#include "base/FileIdentity.h"

#include <boost/filesystem/path.hpp>
#include <string>

namespace Base {

// A save refused because another writer changed the file since it was read.
class BASE_EXPORT SettingsFileChanged : public BaseException {
public:
    using BaseException::BaseException;
};

// A save refused because the file could not be read.
class BASE_EXPORT SettingsFileDamaged : public BaseException {
public:
    using BaseException::BaseException;
};

class BASE_EXPORT SettingsFile {
public:
    SettingsFile() = default;
    explicit SettingsFile(boost::filesystem::path file) : mPath(std::move(file)) {}

    const boost::filesystem::path& path() const { return mPath; }
    // The file's new name, as when its folder was renamed: what is known of it stays.
    void setPath(const boost::filesystem::path& file) { mPath = file; }

    // A read that succeeded: what the file held (FileIdentity() when there was none).
    void setRead(const FileIdentity& identity);
    // A read that failed, in part or whole.
    void setReadFailure(const std::string& reason);
    bool readFailed() const { return !mReadFailure.empty(); }
    const std::string& readFailure() const { return mReadFailure; }
    const FileIdentity& readIdentity() const { return mRead; }

    // Throws SettingsFileDamaged or SettingsFileChanged when a save may not
    // write the file now. Call it under the file's lock.
    void checkWritable() const;
    // Writes the content as the file's new content, under the file's lock,
    // after checkWritable. Afterwards the store knows the file as written.
    void write(const std::string& content);
    // Writes the content whatever the file holds now. A file that could not
    // be read, or that another writer changed, is first copied to
    // NAME.replaced-YYYYMMDD-HHMMSS beside it; returns that copy, or an empty
    // path when none was needed.
    boost::filesystem::path overwrite(const std::string& content);
    // Renames a file that cannot be read at all to NAME.replaced-YYYYMMDD-HHMMSS,
    // under its lock, so that its store starts again from its defaults;
    // returns the new name.
    static boost::filesystem::path setAside(const boost::filesystem::path& file);

private:
    boost::filesystem::path mPath;
    FileIdentity mRead;
    std::string mReadFailure;
};

} // namespace Base
