#include "base/FileLock.h"

#include "base/BaseException.h"
#include "base/Environment.h"
#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/SystemError.h"

#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <ctime>
#include <map>
#include <random>
#include <thread>
#include <utility>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>
#include <windows.h>
#else
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace fs = boost::filesystem;

namespace Base {

namespace {

using Clock = std::chrono::steady_clock;

struct Limits {
    std::chrono::milliseconds wait{10000};
    std::chrono::seconds foreignAge{60};
};

Limits& limits() {
    static Limits values;
    return values;
}

// A lock file that is still empty is being written; one that stays empty was left by a taker that crashed.
constexpr std::chrono::seconds UnwrittenLockAge{5};
// A taker that crashed in the middle of a takeover leaves its marker behind.
constexpr std::chrono::seconds TakeoverAge{10};

// The locks this process holds: how often each is taken, and what it says.
struct Held {
    int count = 0;
    std::string holder;
};

std::map<std::string, Held>& heldLocks() {
    static auto* held = new std::map<std::string, Held>;
    return *held;
}

#ifdef _WIN32

long processId() {
    return static_cast<long>(GetCurrentProcessId());
}

std::string hostName() {
    char name[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD size = sizeof(name);
    return GetComputerNameA(name, &size) ? std::string(name, size) : std::string("unknown");
}

std::string userName() {
    return Environment::getEnvVariable("USERNAME");
}

bool processRuns(long pid) {
    const HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(pid));
    if (!process) return GetLastError() != ERROR_INVALID_PARAMETER;
    DWORD code = 0;
    const bool runs = !GetExitCodeProcess(process, &code) || code == STILL_ACTIVE;
    CloseHandle(process);
    return runs;
}

// 0, or the errno of the failure (EEXIST when another has it).
int createExclusively(const fs::path& file, const std::string& content) {
    const int descriptor = _wopen(file.c_str(), _O_CREAT | _O_EXCL | _O_WRONLY | _O_BINARY, _S_IREAD | _S_IWRITE);
    if (descriptor < 0) return errno;
    const int written = _write(descriptor, content.data(), static_cast<unsigned>(content.size()));
    const int error = written == static_cast<int>(content.size()) ? 0 : errno ? errno : EIO;
    _close(descriptor);
    // A lock that does not say who holds it is no lock: nothing is left behind.
    if (error) _wunlink(file.c_str());
    return error;
}

#else

long processId() {
    return static_cast<long>(::getpid());
}

std::string hostName() {
    char name[256] = {};
    return ::gethostname(name, sizeof(name) - 1) == 0 ? std::string(name) : std::string("unknown");
}

std::string userName() {
    const std::string user = Environment::getEnvVariable("USER");
    return user.empty() ? std::to_string(::geteuid()) : user;
}

bool processRuns(long pid) {
    return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

int createExclusively(const fs::path& file, const std::string& content) {
    const int descriptor = ::open(file.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
    if (descriptor < 0) return errno;
    // Every other writer must read who holds it, whatever this user's umask.
    ::fchmod(descriptor, 0644);
    const ssize_t written = ::write(descriptor, content.data(), content.size());
    const int error = written == static_cast<ssize_t>(content.size()) ? 0 : errno ? errno : EIO;
    ::close(descriptor);
    // A lock that does not say who holds it is no lock: nothing is left behind.
    if (error) ::unlink(file.c_str());
    return error;
}

#endif

std::string timeText(std::time_t when) {
    char text[32];
    std::tm fields{};
#ifdef _WIN32
    gmtime_s(&fields, &when);
#else
    gmtime_r(&when, &fields);
#endif
    std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &fields);
    return text;
}

// Who holds a lock: a line for people, then a token no other taking of a lock has.
std::string ownHolderText() {
    static std::mt19937_64 numbers(std::random_device{}() ^
                                   static_cast<std::uint64_t>(Clock::now().time_since_epoch().count()) ^
                                   static_cast<std::uint64_t>(processId()));
    const std::string host = hostName();
    return "pid " + std::to_string(processId()) + " on " + host + ", user " + userName() + ", since " +
           timeText(std::time(nullptr)) + "\ntoken " + std::to_string(numbers()) + "\n";
}

std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

enum class LockState { Gone, Unreadable, Read };

LockState readLock(const fs::path& lock, std::string& holder) {
    boost::system::error_code error;
    if (!fs::exists(lock, error)) return error ? LockState::Unreadable : LockState::Gone;
    try {
        holder = FileManager::readFile(lock);
        return LockState::Read;
    } catch (const std::exception&) {
        return fs::exists(lock, error) || error ? LockState::Unreadable : LockState::Gone;
    }
}

// The time now by the clock of the file system that holds the folder: a lock's
// age is told by that clock, as a workstation's own may be off.
std::time_t folderNow(const fs::path& lock) {
    const fs::path probe = lock.string() + ".clock-" + std::to_string(processId());
    boost::system::error_code error;
    std::time_t now = std::time(nullptr);
    if (createExclusively(probe, "") == 0) {
        const std::time_t written = fs::last_write_time(probe, error);
        if (!error) now = written;
        fs::remove(probe, error);
    }
    return now;
}

// Whether the holder the lock file names can no longer hold it.
bool isLeftBehind(const std::string& holder, const fs::path& lock, const std::function<std::time_t()>& now) {
    boost::system::error_code error;
    const std::time_t written = fs::last_write_time(lock, error);
    const auto olderThan = [&](std::chrono::seconds age) { return !error && now() - written > age.count(); };
    if (holder.empty()) return olderThan(UnwrittenLockAge);
    const std::string host = hostName();
    const std::string here = " on " + host + ", ";
    if (host != "unknown" && holder.compare(0, 4, "pid ") == 0 && holder.find(here) != std::string::npos &&
        holder.find(here) < holder.find('\n')) {
        const long pid = std::strtol(holder.c_str() + 4, nullptr, 10);
        // Our own number in a lock we do not hold was left by an ended process that had it before us.
        return pid == processId() || !processRuns(pid);
    }
    return olderThan(limits().foreignAge);
}

// Removes the lock when it still says what was seen; one taker at a time.
void takeOver(const fs::path& lock, const std::string& seen, const std::function<std::time_t()>& now) {
    const fs::path marker = lock.string() + ".takeover";
    boost::system::error_code error;
    if (createExclusively(marker, ownHolderText()) == 0) {
        std::string current;
        if (readLock(lock, current) == LockState::Read && current == seen) fs::remove(lock, error);
        fs::remove(marker, error);
    } else {
        const std::time_t written = fs::last_write_time(marker, error);
        if (!error && now() - written > TakeoverAge.count()) fs::remove(marker, error);
    }
}

std::string native(const fs::path& p) {
    return Platform::current().nativePath(p);
}

} // namespace

fs::path FileLock::lockFileOf(const fs::path& file) {
    return file.string() + ".lock";
}

FileLock::FileLock(const fs::path& file) {
    boost::system::error_code error;
    fs::path target = fs::weakly_canonical(fs::absolute(file, error), error);
    if (error) target = fs::absolute(file, error);
    if (!fs::is_directory(target.parent_path(), error)) return;
    const fs::path lock = lockFileOf(target);
    const std::string key = lock.string();
    Held& held = heldLocks()[key];
    if (held.count > 0) {
        ++held.count;
        mKey = key;
        return;
    }

    const auto failWith = [&key](const std::string& message) {
        heldLocks().erase(key);
        throw BaseException(message);
    };
    std::minstd_rand jitter(static_cast<unsigned>(processId()));
    const Clock::time_point deadline = Clock::now() + limits().wait;
    std::time_t serverNow = 0;
    const std::function<std::time_t()> now = [&serverNow, &lock] {
        if (serverNow == 0) serverNow = folderNow(lock);
        return serverNow;
    };
    const std::string holderText = ownHolderText();
    std::string whyNot;
    for (;;) {
        const int failure = createExclusively(lock, holderText);
        if (failure == 0) {
            held.count = 1;
            held.holder = holderText;
            mKey = key;
            return;
        }
        std::string holder;
        const LockState state = readLock(lock, holder);
        if (fs::is_directory(lock, error))
            failWith("Cannot lock settings file " + native(target) + ": " + native(lock) +
                     " stands in the way and is no lock file.");
        if (failure != EEXIST && failure != EACCES)
            failWith("Cannot lock settings file " + native(target) + ": cannot create " + native(lock) + ": " +
                     errnoText(failure));
        if (state == LockState::Read && isLeftBehind(holder, lock, now)) {
            takeOver(lock, holder, now);
            whyNot = "is locked by " + firstLine(holder) + ", which has ended, but its lock cannot be taken over";
        } else if (state == LockState::Read) {
            whyNot = "is locked by " +
                     (holder.empty() ? std::string("a process that is still writing its name") : firstLine(holder));
        } else if (state == LockState::Unreadable) {
            whyNot = "is locked, but its lock file cannot be read";
        } else if (failure == EACCES) {
            // Windows refuses to create a file whose deletion is still pending: the holder is just leaving.
            whyNot = "cannot be locked: cannot create " + native(lock) + ": " + errnoText(failure);
        }
        if (Clock::now() >= deadline)
            failWith("Settings file " + native(target) + " " + whyNot + "; gave up after " +
                     std::to_string((limits().wait.count() + 999) / 1000) +
                     " s. When that process is gone for good, remove " + native(lock) + ".");
        std::this_thread::sleep_for(std::chrono::milliseconds(5 + jitter() % 20));
    }
}

FileLock::~FileLock() {
    if (mKey.empty()) return;
    auto held = heldLocks().find(mKey);
    if (held == heldLocks().end() || --held->second.count > 0) return;
    // Only our own: a lock taken over from us belongs to its new holder.
    std::string current;
    if (readLock(mKey, current) == LockState::Read && current == held->second.holder) {
        boost::system::error_code error;
        fs::remove(mKey, error);
    }
    heldLocks().erase(held);
}

void FileLock::confirm(const fs::path& file) const {
    if (mKey.empty()) return;
    const auto held = heldLocks().find(mKey);
    std::string current;
    if (held != heldLocks().end() && readLock(mKey, current) == LockState::Read && current == held->second.holder) {
        // A hold that lasts is not mistaken for one left behind.
        boost::system::error_code error;
        fs::last_write_time(mKey, std::time(nullptr), error);
        return;
    }
    throw BaseException("Settings file " + native(file) + " is no longer locked by this process" +
                        (current.empty() ? std::string() : ": " + firstLine(current) + " took its lock over") +
                        "; nothing was written.");
}

void FileLock::setWaitLimit(std::chrono::milliseconds limit) {
    limits().wait = limit;
}

void FileLock::setForeignLockAge(std::chrono::seconds age) {
    limits().foreignAge = age;
}

} // namespace Base
