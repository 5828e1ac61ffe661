// SPDX-License-Identifier: Apache-2.0
//
// Diagnostics: a `Message` is made on the stack where something is to be reported, text is streamed into it, and its
// destructor dates the text and hands it to every sink of the `Logger`. Nothing depends on the log having been written.
#pragma once

#include <cstdio>
#include <ctime>
#include <set>
#include <sstream>
#include <string>

namespace kestrune {

/// Severities. Any number that is not listed is written as "DEBUG ".
enum LogLevel : int { kLogNone = 0, kLogFatal = 1, kLogError = 2, kLogWarn = 3, kLogInfo = 4 };

/// Where reports go.
class ILogSink {
  public:
    virtual ~ILogSink() = default;
    virtual void write(int level, const std::string& file, const std::string& fileName, int line, const std::tm& time,
                       const std::string& text) = 0;
    virtual void flush() = 0;
};

/// Writes one line a report to a C stream, in one print call, so that lines of concurrent reports do not mix:
/// thread id (width 6), date and time, severity, text. Nothing is filtered by level.
class LogIOSink : public ILogSink {
  public:
    /// @param level   kept, not read.
    /// @param stream  taken over: closed by the destructor unless it is null or standard output.
    LogIOSink(int level, std::FILE* stream);
    ~LogIOSink() override;
    LogIOSink(const LogIOSink&) = delete;
    LogIOSink& operator=(const LogIOSink&) = delete;

    void write(int level, const std::string& file, const std::string& fileName, int line, const std::tm& time,
               const std::string& text) override;
    void flush() override;

    int level;
    std::FILE* stream;
};

/// Owns the sinks. They do not change after construction, so reports take no lock.
class Logger {
  public:
    Logger() = default;
    virtual ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    std::set<ILogSink*> sinks;
};

/// One report, delivered by the destructor, which never throws.
class Message {
  public:
    /// Begins `text` with "<file name>:<line, width 4>   ".
    /// @param file  source path with either kind of separator; only its last component is shown.
    Message(const std::string& file, int line, const char* tag, int level);
    virtual ~Message();
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    std::string tag;
    std::string file;
    int line;
    int level;
    std::stringstream text;
};

/// The one logger, with one `LogIOSink` on standard output; made by the first report, and there until the process ends.
Logger& loggerInstance();

/// The part of a path behind its last `/` or `\`; the whole of it where there is none.
std::string fileNameOf(const std::string& path);

}  // namespace kestrune
