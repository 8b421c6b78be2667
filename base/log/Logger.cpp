#include "base/log/Logger.h"

#include "base/BaseException.h"
#include "base/Environment.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Base {
namespace log {

namespace {

const char* const Pattern = "[%n] %v";

// What every logger of the base layer shares: where lines go and the sinks
// added by tests or programs. Never destroyed, so logging works during exit.
struct LogState {
    spdlog::sink_ptr output;
    std::vector<spdlog::sink_ptr> extraSinks;
    std::vector<std::shared_ptr<spdlog::logger>> loggers;
};

LogState& state();

std::shared_ptr<spdlog::sinks::sink> standardErrorSink() {
    auto sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    sink->set_pattern(Pattern);
    return sink;
}

std::shared_ptr<spdlog::sinks::sink> fileSink(const std::string& path) {
    // Opened once by hand first, because spdlog's own error does not say why.
    std::FILE* probe = std::fopen(path.c_str(), "ab");
    if (!probe) throw BaseException("Cannot open log file " + path + ": " + std::strerror(errno));
    std::fclose(probe);
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, false);
    sink->set_pattern(Pattern);
    return sink;
}

void replaceOutput(LogState& current, const spdlog::sink_ptr& output) {
    for (auto& logger : current.loggers) logger->sinks().front() = output;
    current.output = output;
}

void applyEnvironment(LogState& current) {
    std::string file = Environment::getEnvVariable("KYM_LOG_FILE");
    replaceOutput(current, file.empty() ? standardErrorSink() : fileSink(file));
    enableLoggers(Environment::getEnvVariable("KYM_LOG"));
}

LogState& state() {
    static LogState* current = nullptr;
    if (!current) {
        current = new LogState;
        try {
            applyEnvironment(*current);
        } catch (const BaseException&) {
            // An unusable KYM_LOG_FILE at first use leaves standard error;
            // BaseKit::initialize reports it.
            current->output = standardErrorSink();
            enableLoggers(Environment::getEnvVariable("KYM_LOG"));
        }
    }
    return *current;
}

std::shared_ptr<spdlog::logger> findOrCreate(const std::string& name) {
    LogState& current = state();
    for (const auto& logger : current.loggers)
        if (logger->name() == name) return logger;

    std::shared_ptr<spdlog::logger> logger = spdlog::get(name);
    if (logger) {
        // Made by someone else: route it like ours, keeping its level.
        logger->sinks().insert(logger->sinks().begin(), current.output);
        for (const auto& sink : current.extraSinks) logger->sinks().push_back(sink);
    } else {
        logger = std::make_shared<spdlog::logger>(name, current.output);
        for (const auto& sink : current.extraSinks) logger->sinks().push_back(sink);
        logger->set_level(spdlog::level::off);
        spdlog::register_logger(logger);
    }
    logger->flush_on(spdlog::level::info);
    current.loggers.push_back(logger);
    return logger;
}

} // namespace

Logger::Logger(const std::string& name) : mName(name), mLogger(findOrCreate(name)) {}

bool Logger::isEnabled() const {
    return mLogger->should_log(spdlog::level::info);
}

void Logger::setEnabled(bool enabled) {
    mLogger->set_level(enabled ? spdlog::level::info : spdlog::level::off);
}

void Logger::write(const std::string& line) {
    mLogger->log(spdlog::level::info, spdlog::string_view_t(line));
}

Logger& info() {
    static Logger* logger = new Logger("kym.info");
    return *logger;
}

Logger& verbose() {
    static Logger* logger = new Logger("kym.verbose");
    return *logger;
}

void enableLoggers(const std::string& commaSeparatedNames) {
    std::vector<std::string> names;
    boost::algorithm::split(names, commaSeparatedNames, boost::algorithm::is_any_of(","));
    for (auto& name : names) {
        boost::algorithm::trim(name);
        if (!name.empty()) Logger(name).setEnabled(true);
    }
}

void configureFromEnvironment() {
    applyEnvironment(state());
}

void setOutputFile(const std::string& path) {
    replaceOutput(state(), fileSink(path));
}

void setOutputStandardError() {
    replaceOutput(state(), standardErrorSink());
}

void addSink(const std::shared_ptr<spdlog::sinks::sink>& sink) {
    LogState& current = state();
    sink->set_pattern(Pattern);
    current.extraSinks.push_back(sink);
    for (auto& logger : current.loggers) logger->sinks().push_back(sink);
}

LoggerStream::LoggerStream(Logger& logger) : mLogger(logger) {
    if (logger.isEnabled()) mStream = std::make_unique<std::ostringstream>();
}

LoggerStream::~LoggerStream() {
    if (!mStream) return;
    try {
        mLogger.write(mStream->str());
    } catch (...) {
        // A failing log line must not end the program from a destructor.
    }
}

} // namespace log
} // namespace Base
