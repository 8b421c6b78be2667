#include "support/TestSupport.h"

#include "base/BaseException.h"
#include "base/log/Logger.h"

#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <grp.h>
#include <pwd.h>
#include <iterator>
#include <stdexcept>
#include <cerrno>
#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utime.h>

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

ScopedEnv::ScopedEnv(const std::string& name, const std::optional<std::string>& value) : mName(name) {
    if (const char* previous = std::getenv(name.c_str())) mPrevious = previous;
    value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
}

ScopedEnv::~ScopedEnv() { mPrevious ? ::setenv(mName.c_str(), mPrevious->c_str(), 1) : ::unsetenv(mName.c_str()); }

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
    std::time_t when = std::time(nullptr) - static_cast<std::time_t>(secondsAgo);
    struct utimbuf times { when, when };
    if (::utime(file.c_str(), &times) != 0) throw std::runtime_error("cannot set time of " + file.string());
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

} // namespace KymTest
