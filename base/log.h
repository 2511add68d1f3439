#pragma once
// Diagnostic log: journald with SUBSYSTEM and CATEGORY fields when the journal is
// reachable, standard error otherwise. Tests install a sink to read exact lines.
#include <functional>
#include <string>
#include <string_view>

namespace vell::log {

inline constexpr const char* kSubsystem = "app.quillon.mac";

enum class Level { Debug = 0, Info = 1, Error = 2 };

class Logger {
public:
    explicit Logger(std::string category) : category_(std::move(category)) {}
    void debug(std::string_view message) const;
    void info(std::string_view message) const;
    void error(std::string_view message) const;
    const std::string& category() const { return category_; }

private:
    std::string category_;
};

using Sink = std::function<void(Level, const std::string& category, const std::string& message)>;

// Lines below this level are not written to standard error (journald gets Info and up).
void setMinimumLevel(Level level);
// Forces standard error even when the journal is reachable (the CLI's --log-stderr).
void forceStandardError(bool force);
// Whether log lines are also written to standard error (on by default). A command line
// turns it off unless asked to be verbose: the user reads one sentence per failure there,
// and the details go to the journal.
void echoToStandardError(bool echo);
// Replaces the output entirely (tests); an empty sink restores the default.
void setSink(Sink sink);

}  // namespace vell::log
