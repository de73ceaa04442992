#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace qel::programs {

/// What a program that runs for long tells the service manager, and how it is told to stop. The main thread makes
/// one before any other thread exists: the signals are blocked there, so that they arrive here and nowhere else.
class ServiceManager {
  public:
    enum class Wish { none, stop, reload };

    ServiceManager();

    /// Waits for a signal: stop (SIGTERM, SIGINT), reload (SIGHUP), or none when the time is over.
    Wish wait(std::chrono::milliseconds time) const;

    /// "READY=1" with a line of status.
    void ready(const std::string& status) const;
    void stopping() const;
    void status(const std::string& text) const;
    /// Tells that the program lives; at least twice within the time the manager has asked for.
    void alive() const;
    /// How often `alive` is wanted; nothing when nobody watches.
    std::optional<std::chrono::microseconds> watchdogInterval() const { return interval_; }

  private:
    std::optional<std::chrono::microseconds> interval_;
};

/// Log lines of a program that runs for long: from information upwards, in the journal's form when the journal reads
/// them.
void setUpServiceLog();

/// One log line of the program's own.
void logInformation(const std::string& text);
void logWarning(const std::string& text);
void logError(const std::string& text);

/// Log lines below a command that people call: warnings and errors only.
void setUpCommandLog();

}  // namespace qel::programs
