#include "support/Process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <random>
#include <stdexcept>
#include <thread>

#include "support/TemporaryFolder.h"

namespace qel::test {

namespace {

void redirect(const std::string& file, int descriptor) {
    const int target = open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (target < 0 || dup2(target, descriptor) < 0)
        _exit(126);
}

[[noreturn]] void become(const std::vector<std::string>& arguments, const std::string& out,
                         const std::string& err) {
    // A test that is killed must leave nothing behind.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    redirect("/dev/null", STDIN_FILENO);
    redirect(out, STDOUT_FILENO);
    redirect(err, STDERR_FILENO);
    std::vector<char*> pointers;
    for (const std::string& argument : arguments)
        pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    execvp(pointers[0], pointers.data());
    _exit(127);
}

bool canBind(int port) {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(port));
    const bool bound = bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(descriptor);
    return bound;
}

}  // namespace

Process::Process(const std::vector<std::string>& arguments, const std::string& folder,
                 const std::string& name)
    : outFile_(folder + "/" + name + ".out"), errFile_(folder + "/" + name + ".err") {
    // What an earlier program of that name said must not be taken for the words of this one.
    for (const std::string& file : {outFile_, errFile_})
        unlink(file.c_str());
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
    if (pid_ == 0)
        become(arguments, outFile_, errFile_);
    running_ = true;
}

Process::~Process() {
    kill();
}

bool Process::collect(bool block) {
    int status = 0;
    if (!running_ || waitpid(pid_, &status, block ? 0 : WNOHANG) != pid_)
        return false;
    running_ = false;
    code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
}

bool Process::isRunning() {
    collect(false);
    return running_;
}

void Process::signal(int number) const {
    if (running_)
        ::kill(pid_, number);
}

int Process::wait(std::chrono::seconds limit) {
    if (waitFor([this] { return !isRunning(); }, limit))
        return code_;
    kill();
    return -1;
}

void Process::kill() {
    signal(SIGKILL);
    collect(true);
}

std::string Process::out() const {
    return TemporaryFolder::read(outFile_);
}
std::string Process::err() const {
    return TemporaryFolder::read(errFile_);
}

bool foundPortTaken(const Process& process) {
    return (process.out() + process.err()).find("Address already in use") != std::string::npos;
}

ProcessResult runProgram(const std::vector<std::string>& arguments, const std::string& folder,
                         std::chrono::seconds limit) {
    static std::atomic<int> counter{0};
    Process process(arguments, folder, "run-" + std::to_string(counter++));
    const int code = process.wait(limit);
    return {code, process.out(), process.err()};
}

bool waitFor(const std::function<bool()>& condition, std::chrono::seconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

int freePort() {
    constexpr int lowest = 10000;
    int given = 32768;
    std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> given;
    const int count = (given > lowest + 1000 ? given : 65536) - lowest;
    // Two programs begin at two places, and one gets no port twice.
    static std::atomic<unsigned> next{std::random_device()()};
    for (int tries = 0; tries < count; ++tries) {
        const int port = lowest + static_cast<int>(next++ % static_cast<unsigned>(count));
        if (canBind(port))
            return port;
    }
    throw std::runtime_error("no free port on the loopback address");
}

std::string program(const std::string& name) {
    return std::string(QEL_BINARY_DIR) + "/bin/" + name;
}

}  // namespace qel::test
