#include "support/TestSupport.h"

#include "base/BaseException.h"
#include "base/log/Logger.h"

#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#ifdef _WIN32
#include <archive.h>
#include <archive_entry.h>
#include <stdlib.h>
#include <windows.h>
#else
#include <cerrno>
#include <csignal>
#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#endif

namespace KymTest {

TempDir::TempDir() {
    mPath = fs::temp_directory_path() / fs::unique_path("kymtest-%%%%-%%%%-%%%%");
    fs::create_directories(mPath);
    fs::permissions(mPath, fs::perms(0777));
    mPath = fs::canonical(mPath);
}

TempDir::~TempDir() {
    boost::system::error_code ignored;
    fs::remove_all(mPath, ignored);
}

namespace {

// Set where getenv reads it; on Windows _putenv_s sets the process's environment block too, which
// started programs inherit.
void setVariable(const std::string& name, const std::optional<std::string>& value) {
#ifdef _WIN32
    // An empty value removes the variable: Windows' C runtime keeps no empty ones.
    _putenv_s(name.c_str(), value ? value->c_str() : "");
#else
    value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
#endif
}

} // namespace

ScopedEnv::ScopedEnv(const std::string& name, const std::optional<std::string>& value) : mName(name) {
    if (const char* previous = std::getenv(name.c_str())) mPrevious = previous;
    setVariable(name, value);
}

ScopedEnv::~ScopedEnv() { setVariable(mName, mPrevious); }

void writeFile(const fs::path& file, const std::string& content) {
    if (file.has_parent_path()) fs::create_directories(file.parent_path());
    std::ofstream out(file.string(), std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write test file " + file.string());
    out << content;
}

fs::path writeExecutable(const fs::path& file, const std::string& content, unsigned mode) {
    writeFile(file, content);
    fs::permissions(file, fs::perms(mode));
    return file;
}

std::string readFile(const fs::path& file) {
    std::ifstream in(file.string(), std::ios::binary);
    if (!in) throw std::runtime_error("cannot read test file " + file.string());
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> splitAtNul(const std::string& text) {
    std::vector<std::string> parts;
    for (std::size_t start = 0, end; (end = text.find('\0', start)) != std::string::npos; start = end + 1)
        parts.push_back(text.substr(start, end - start));
    return parts;
}

bool waitForFile(const fs::path& file) {
    for (int attempt = 0; attempt < 500 && !fs::exists(file); ++attempt)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return fs::exists(file);
}

std::string thrownUnderFault(void (*setFault)(Base::SystemCalls::FaultHook), int error,
                             const std::function<void()>& action) {
    setFault([error](const std::string&) { return error; });
    const std::shared_ptr<void> clear(nullptr, [setFault](void*) { setFault(nullptr); });
    return thrownMessage<Base::BaseException>(action);
}

void setAge(const fs::path& file, double secondsAgo) {
    boost::system::error_code error;
    fs::last_write_time(file, std::time(nullptr) - static_cast<std::time_t>(secondsAgo), error);
    if (error) throw std::runtime_error("cannot set time of " + file.string() + ": " + error.message());
}

struct LogRecorder::Sink : spdlog::sinks::base_sink<std::mutex> {
    std::vector<std::pair<std::string, std::string>> records;
    void sink_it_(const spdlog::details::log_msg& message) override {
        records.emplace_back(std::string(message.logger_name.begin(), message.logger_name.end()),
                             std::string(message.payload.begin(), message.payload.end()));
    }
    void flush_() override {}
    std::vector<std::pair<std::string, std::string>> snapshot() {
        std::lock_guard<std::mutex> lock(mutex_);
        return records;
    }
};

LogRecorder::LogRecorder(const std::vector<std::string>& loggers) : mSink(std::make_shared<Sink>()) {
    Base::log::addSink(mSink);
    for (const auto& name : loggers) Base::log::Logger(name).setEnabled(true);
}

std::vector<std::string> LogRecorder::lines() const {
    std::vector<std::string> result;
    for (const auto& record : mSink->snapshot()) result.push_back(record.first + ": " + record.second);
    return result;
}

std::vector<std::string> LogRecorder::lines(const std::string& logger) const {
    std::vector<std::string> result;
    for (const auto& record : mSink->snapshot())
        if (record.first == logger) result.push_back(record.second);
    return result;
}

bool LogRecorder::contains(const std::string& text) const {
    auto records = mSink->snapshot();
    return std::any_of(records.begin(), records.end(), [&](const auto& record) { return record.second == text; });
}

#ifdef _WIN32

// Windows has no tar program of its own before Windows 10 (and Wine none):
// the archive is written with libarchive, the engine of Windows' tar.exe.
void makeTarGz(const fs::path& archive, const fs::path& contentDirectory) {
    const auto fail = [&archive](struct archive* writer) {
        const std::string reason = writer && archive_error_string(writer) ? archive_error_string(writer) : "no reason";
        throw std::runtime_error("cannot write the archive " + archive.string() + ": " + reason);
    };
    std::unique_ptr<struct archive, int (*)(struct archive*)> writer(archive_write_new(), archive_write_free);
    if (!writer || archive_write_set_format_pax_restricted(writer.get()) != ARCHIVE_OK ||
        archive_write_add_filter_gzip(writer.get()) != ARCHIVE_OK ||
        archive_write_open_filename(writer.get(), archive.string().c_str()) != ARCHIVE_OK)
        fail(writer.get());
    for (fs::recursive_directory_iterator item(contentDirectory), end; item != end; ++item) {
        const fs::path relative = fs::relative(item->path(), contentDirectory);
        const bool directory = fs::is_directory(item->path());
        const std::string content = directory ? std::string() : readFile(item->path());
        std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(), archive_entry_free);
        archive_entry_set_pathname(entry.get(), ("./" + relative.generic_string()).c_str());
        archive_entry_set_filetype(entry.get(), directory ? AE_IFDIR : AE_IFREG);
        archive_entry_set_perm(entry.get(), directory ? 0755 : 0644);
        archive_entry_set_size(entry.get(), static_cast<la_int64_t>(content.size()));
        archive_entry_set_mtime(entry.get(), fs::last_write_time(item->path()), 0);
        if (archive_write_header(writer.get(), entry.get()) != ARCHIVE_OK) fail(writer.get());
        if (!content.empty() &&
            archive_write_data(writer.get(), content.data(), content.size()) != static_cast<la_ssize_t>(content.size()))
            fail(writer.get());
    }
    if (archive_write_close(writer.get()) != ARCHIVE_OK) fail(writer.get());
}

fs::path ownProgram() {
    char path[MAX_PATH];
    const DWORD length = GetModuleFileNameA(nullptr, path, sizeof(path));
    return fs::path(std::string(path, length));
}

// Windows leaves no zombies: nothing to reap.
bool reapOrphansOfTheTests() { return true; }

#else

fs::path ownProgram() {
    return fs::read_symlink("/proc/self/exe");
}

bool isRoot() { return ::geteuid() == 0; }

int runAsNobody(const std::function<int()>& function) {
    pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("fork failed");
    if (child == 0) {
        struct passwd* nobody = ::getpwnam("nobody");
        struct group* nogroup = ::getgrnam("nogroup");
        if (!nobody) ::_exit(120);
        gid_t gid = nogroup ? nogroup->gr_gid : nobody->pw_gid;
        if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(nobody->pw_uid) != 0) ::_exit(121);
        try { ::_exit(function()); } catch (...) { ::_exit(123); }
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 124;
}

void makeTarGz(const fs::path& archive, const fs::path& contentDirectory) {
    std::string command = "tar -czf '" + archive.string() + "' -C '" + contentDirectory.string() + "' .";
    if (std::system(command.c_str()) != 0) throw std::runtime_error("tar failed: " + command);
}

bool reapOrphansOfTheTests() {
    if (::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) return false;
    const pid_t tests = ::fork();
    if (tests < 0) return false;
    if (tests == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        return true;
    }
    int status = 0, testsStatus = 0;
    for (pid_t done; (done = ::wait(&status)) != tests;)
        if (done < 0 && errno != EINTR) ::_exit(125);
    testsStatus = status;
    while (::waitpid(-1, &status, WNOHANG) > 0) continue;
    if (WIFSIGNALED(testsStatus)) {
        ::signal(WTERMSIG(testsStatus), SIG_DFL);
        ::kill(::getpid(), WTERMSIG(testsStatus));
    }
    ::_exit(WIFEXITED(testsStatus) ? WEXITSTATUS(testsStatus) : 128 + WTERMSIG(testsStatus));
}

#endif

} // namespace KymTest
