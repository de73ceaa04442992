#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace qel::test {

/// How a program ended and what it printed.
struct ProcessResult {
    int code =
        -1;  ///< its exit code; 128 + signal when it was killed; -1 when it had to be ended after the time limit
    std::string out;
    std::string err;
};

/// A running program of a system test, for minutes and gigabytes if need be: started by the test and ended by it: the destructor kills what still runs and waits for it. Its
/// standard output and error go to two files below `folder`.
class Process {
  public:
    Process(const std::vector<std::string>& arguments, const std::string& folder, const std::string& name);
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process();

    pid_t pid() const { return pid_; }
    bool isRunning();
    void signal(int number) const;
    /// Waits for the end; see ProcessResult::code.
    int wait(std::chrono::seconds limit);
    /// kill -9 and wait.
    void kill();

    std::string out() const;
    std::string err() const;

  private:
    bool collect(bool block);

    pid_t pid_ = -1;
    int code_ = -1;
    bool running_ = false;
    std::string outFile_;
    std::string errFile_;
};

/// Whether somebody else had the port on which the program was to listen.
bool foundPortTaken(const Process& process);

/// Runs a program to its end.
ProcessResult runProgram(const std::vector<std::string>& arguments, const std::string& folder,
                         std::chrono::seconds limit = std::chrono::seconds(120));

/// Asks every few milliseconds until `condition` holds; false when `limit` passes first.
bool waitFor(const std::function<bool()>& condition, std::chrono::seconds limit = std::chrono::seconds(60));

/// A port of the loopback address that was free a moment ago and that the system gives to nobody who asks for any port: it
/// is still free when the program that it is meant for starts, or starts again.
int freePort();

/// The path of one of this build's programs.
std::string program(const std::string& name);

}  // namespace qel::test
