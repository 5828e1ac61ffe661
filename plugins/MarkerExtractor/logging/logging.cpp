// SPDX-License-Identifier: Apache-2.0
#include "logging/logging.h"

#include <iomanip>
#include <locale>
#include <memory>

#if defined(__linux__)
#include <sys/syscall.h>
#include <unistd.h>
#else
#include <functional>
#include <thread>
#endif

namespace kestrune {

namespace {

/// The operating system's id of the calling thread: the number that a debugger or `top` shows.
unsigned long callingThreadId() {
#if defined(__linux__)
    return static_cast<unsigned long>(::syscall(SYS_gettid));
#else
    return static_cast<unsigned long>(std::hash<std::thread::id>{}(std::this_thread::get_id()));
#endif
}

const char* levelField(int level) {
    switch (level) {
        case kLogNone:
            return "NONE  ";
        case kLogFatal:
            return "FATAL ";
        case kLogError:
            return "ERROR ";
        case kLogWarn:
            return "WARN  ";
        case kLogInfo:
            return "INFO  ";
        default:
            return "DEBUG ";
    }
}

std::tm localTime() {
    const std::time_t now = std::time(nullptr);
    std::tm broken{};
    // The re-entrant form: concurrent reports are allowed.
    ::localtime_r(&now, &broken);
    return broken;
}

}  // namespace

LogIOSink::LogIOSink(int sinkLevel, std::FILE* target) : level(sinkLevel), stream(target) {}

LogIOSink::~LogIOSink() {
    if (stream != nullptr && stream != stdout) std::fclose(stream);
}

void LogIOSink::write(int messageLevel, const std::string& /*file*/, const std::string& /*fileName*/, int /*line*/,
                      const std::tm& time, const std::string& text) {
    if (stream == nullptr) return;
    std::ostringstream out;
    out.imbue(std::locale::classic());  // a host's locale must not group the digits of the id or translate the month
    out << std::setw(6) << callingThreadId() << ' ' << std::put_time(&time, "%b %d %Y %H:%M:%S") << ' '
        << levelField(messageLevel) << text;
    std::fprintf(stream, "%s", out.str().c_str());
}

void LogIOSink::flush() {
    if (stream != nullptr) std::fflush(stream);  // a null stream would flush every stream of the host
}

Logger::~Logger() {
    for (ILogSink* sink : sinks) delete sink;
}

Message::Message(const std::string& sourceFile, int sourceLine, const char* channel, int severity)
    : tag(channel), file(sourceFile), line(sourceLine), level(severity) {
    text.imbue(std::locale::classic());
    text << fileNameOf(file) << ':' << std::setw(4) << line << "   ";
}

Message::~Message() {
    try {
        text << std::endl;
        const std::tm time = localTime();
        const std::string whole = text.str();
        const std::string name = fileNameOf(file);
        const std::set<ILogSink*>& sinks = loggerInstance().sinks;
        for (ILogSink* sink : sinks) sink->write(level, file, name, line, time, whole);
        for (ILogSink* sink : sinks) sink->flush();
    } catch (...) {  // NOLINT(bugprone-empty-catch): a report that cannot be written must not take the host down
    }
}

Logger& loggerInstance() {
    struct StandardLogger : Logger {
        StandardLogger() {
            auto sink = std::make_unique<LogIOSink>(kLogInfo, stdout);
            sinks.insert(sink.get());
            static_cast<void>(sink.release());  // owned by the set from here on
        }
    };
    // Never destroyed: a worker of the host may report while the process ends.
    static Logger* const logger = new StandardLogger;
    return *logger;
}

std::string fileNameOf(const std::string& path) {
    const std::size_t separator = path.find_last_of("/\\");
    return separator == std::string::npos ? path : path.substr(separator + 1);
}

}  // namespace kestrune
