#include "base/log.h"

#include <systemd/sd-journal.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <mutex>

namespace vell::log {

namespace {
std::mutex gMutex;
Sink gSink;
std::atomic<int> gMinimum{static_cast<int>(Level::Info)};
std::atomic<bool> gForceStderr{false};

bool journalReachable() {
    static const bool reachable = [] {
        struct stat st {};
        return ::stat("/run/systemd/journal/socket", &st) == 0;
    }();
    return reachable;
}

const char* levelName(Level level) {
    switch (level) {
        case Level::Debug: return "debug";
        case Level::Info: return "info";
        case Level::Error: return "error";
    }
    return "";
}

bool gEcho = true;

void emit(Level level, const std::string& category, std::string_view message) {
    std::string text(message);
    {
        std::lock_guard lock(gMutex);
        if (gSink) {
            gSink(level, category, text);
            return;
        }
    }
    if (!gForceStderr && journalReachable() && level != Level::Debug) {
        int priority = level == Level::Error ? 3 : 6;
        sd_journal_send("MESSAGE=%s", text.c_str(), "PRIORITY=%d", priority, "SUBSYSTEM=%s", kSubsystem,
                        "CATEGORY=%s", category.c_str(), "SYSLOG_IDENTIFIER=vell", nullptr);
        if (static_cast<int>(level) < gMinimum) return;
    }
    if (static_cast<int>(level) < gMinimum || (!gEcho && !gForceStderr)) return;
    std::fprintf(stderr, "[%s] %s: %s\n", levelName(level), category.c_str(), text.c_str());
}
}  // namespace

void Logger::debug(std::string_view message) const { emit(Level::Debug, category_, message); }
void Logger::info(std::string_view message) const { emit(Level::Info, category_, message); }
void Logger::error(std::string_view message) const { emit(Level::Error, category_, message); }

void setMinimumLevel(Level level) { gMinimum = static_cast<int>(level); }
void forceStandardError(bool force) { gForceStderr = force; }
void echoToStandardError(bool echo) { gEcho = echo; }

void setSink(Sink sink) {
    std::lock_guard lock(gMutex);
    gSink = std::move(sink);
}

}  // namespace vell::log
