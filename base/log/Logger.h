// Named loggers over spdlog. "kym.info" and "kym.verbose" are off until
// KYM_LOG, the front end or a test switches them on; a LoggerStream on a
// switched-off logger formats nothing.
#pragma once

#include "base/BaseExport.h"

#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace spdlog { class logger; namespace sinks { class sink; } }

namespace Base {
namespace log {

class BASE_EXPORT Logger {
public:
    // Creates (on first use) or finds the process-wide spdlog logger of that name.
    explicit Logger(const std::string& name);

    const std::string& name() const { return mName; }
    bool isEnabled() const;
    void setEnabled(bool enabled);
    // Writes one line; spdlog adds the end-of-line.
    void write(const std::string& line);

private:
    std::string mName;
    std::shared_ptr<spdlog::logger> mLogger;
};

// The two loggers of the library.
BASE_EXPORT Logger& info();
BASE_EXPORT Logger& verbose();

// Switches on the loggers named in a comma-separated list ("kym.info,kym.verbose").
BASE_EXPORT void enableLoggers(const std::string& commaSeparatedNames);
// Applies KYM_LOG_FILE (the output file; standard error when unset) and
// KYM_LOG (the loggers to switch on); throws BaseException naming a file
// that cannot be opened.
BASE_EXPORT void configureFromEnvironment();
// Where switched-on loggers write: standard error, or the file given
// (appended). Applies to every logger, also those created later.
BASE_EXPORT void setOutputFile(const std::string& path);
BASE_EXPORT void setOutputStandardError();
// Adds a sink to every logger, also those created later (tests record lines with it).
BASE_EXPORT void addSink(const std::shared_ptr<spdlog::sinks::sink>& sink);

// One line on a logger: collects what is streamed into it and writes it when
// destroyed. Null (and formatting nothing) when the logger is off.
class BASE_EXPORT LoggerStream {
public:
    explicit LoggerStream(Logger& logger);
    ~LoggerStream();
    LoggerStream(const LoggerStream&) = delete;
    LoggerStream& operator=(const LoggerStream&) = delete;

    explicit operator bool() const { return mStream != nullptr; }

    template <class T>
    LoggerStream& operator<<(const T& value) {
        if (mStream) *mStream << value;
        return *this;
    }

private:
    Logger& mLogger;
    std::unique_ptr<std::ostringstream> mStream;
};

} // namespace log
} // namespace Base

// Streams one line to a logger; the arguments are not even evaluated when the
// logger is off. Usage: BASE_LOG(Base::log::info()) << "Found " << n << " plugins.";
#define BASE_LOG(logger) \
    if (!(logger).isEnabled()) { \
    } else \
        ::Base::log::LoggerStream(logger)
