#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace qel::test {

/// What a finished child process left behind.
struct ProgramResult {
    int code = -1;  // its exit code; 128 + N when signal N ended it
    std::string out;
    std::string err;
};

/// A child process whose output is collected. One thread; the destructor kills what still runs.
class Program {
  public:
    /// Starts `arguments` (the program's path first); `input` becomes its standard input.
    explicit Program(const std::vector<std::string>& arguments, const std::string& input = {}) {
        int in[2];
        int out[2];
        int err[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)
            return;
        std::vector<char*> argv;
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(in[0], 0);
            ::dup2(out[1], 1);
            ::dup2(err[1], 2);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        ::close(err[1]);
        out_ = out[0];
        err_ = err[0];
        writer_ = std::thread([descriptor = in[1], input] {
            std::size_t at = 0;
            sigset_t broken;
            sigemptyset(&broken);
            sigaddset(&broken, SIGPIPE);
            pthread_sigmask(SIG_BLOCK, &broken, nullptr);
            while (at < input.size()) {
                const ssize_t count = ::write(descriptor, input.data() + at, input.size() - at);
                if (count <= 0)
                    break;
                at += static_cast<std::size_t>(count);
            }
            ::close(descriptor);
        });
    }
    ~Program() {
        if (pid_ > 0)
            signal(SIGKILL);
        wait();
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    pid_t pid() const { return pid_; }
    void signal(int number) const { ::kill(pid_, number); }

    /// Reads on until standard output or error holds `text`; false when the program ends or time runs out before.
    bool waitFor(const std::string& text, int milliseconds = 60000) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        while (result_.out.find(text) == std::string::npos && result_.err.find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() > end || !readSome(100))
                return false;
        }
        return true;
    }
    const std::string& out() const { return result_.out; }
    const std::string& err() const { return result_.err; }

    /// Waits for the end.
    ProgramResult wait() {
        while (readSome(-1)) {
        }
        if (writer_.joinable())
            writer_.join();
        if (pid_ > 0) {
            int status = 0;
            ::waitpid(pid_, &status, 0);
            result_.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            pid_ = -1;
        }
        return result_;
    }

  private:
    /// False once both outputs are closed.
    bool readSome(int milliseconds) {
        pollfd descriptors[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
        if (out_ < 0 && err_ < 0)
            return false;
        if (::poll(descriptors, 2, milliseconds) <= 0)
            return true;
        readFrom(descriptors[0], out_, result_.out);
        readFrom(descriptors[1], err_, result_.err);
        return true;
    }
    static void readFrom(const pollfd& ready, int& descriptor, std::string& text) {
        if (descriptor < 0 || !(ready.revents & (POLLIN | POLLHUP | POLLERR)))
            return;
        char bytes[65536];
        const ssize_t count = ::read(descriptor, bytes, sizeof bytes);
        if (count > 0) {
            text.append(bytes, static_cast<std::size_t>(count));
            return;
        }
        ::close(descriptor);
        descriptor = -1;
    }

    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
    std::thread writer_;
    ProgramResult result_;
};

/// Runs a program to its end.
inline ProgramResult run(const std::vector<std::string>& arguments, const std::string& input = {}) {
    return Program(arguments, input).wait();
}

}  // namespace qel::test
