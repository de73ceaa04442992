#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>

namespace qel::bench {

/// A child process of a benchmark that runs one function and talks with its parent in lines over two pipes. Fork before
/// the parent has threads or an open store.
class Child {
  public:
    /// What the function has to talk with.
    class Line {
      public:
        Line(int in, int out) : in_(in), out_(out) {}
        void say(const std::string& text) const {
            const std::string line = text + "\n";
            if (write(out_, line.data(), line.size()) < 0)
                _exit(3);
        }
        /// The next line of the other side; empty when it has ended.
        std::string hear() const {
            std::string line;
            char c = 0;
            while (read(in_, &c, 1) == 1 && c != '\n')
                line += c;
            return line;
        }

      private:
        int in_;
        int out_;
    };

    explicit Child(const std::function<void(const Line&)>& work) : line_(-1, -1) {
        int down[2];
        int up[2];
        if (pipe(down) != 0 || pipe(up) != 0)
            _exit(3);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(down[1]);
            close(up[0]);
            work(Line(down[0], up[1]));
            _exit(0);
        }
        close(down[0]);
        close(up[1]);
        line_ = Line(up[0], down[1]);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

    const Line& line() const { return line_; }

  private:
    pid_t pid_;
    Line line_;
};

}  // namespace qel::bench
