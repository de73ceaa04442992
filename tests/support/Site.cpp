#include "support/Site.h"

#include <algorithm>
#include <csignal>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace qel::test {

namespace {

void require(const ProcessResult& result, const std::string& what) {
    if (result.code != 0)
        throw std::runtime_error(what + " ended with " + std::to_string(result.code) + ": " + result.err);
}

}  // namespace

void setKey(const std::string& file, const std::string& key, const std::string& value) {
    std::istringstream lines(TemporaryFolder::read(file));
    std::string text;
    std::string line;
    bool done = false;
    while (std::getline(lines, line)) {
        if (!done && std::regex_search(line, std::regex("^" + key + " *="))) {
            line = key + " = " + value;
            done = true;
        }
        text += line + "\n";
    }
    if (!done)
        throw std::runtime_error("no key " + key + " in " + file);
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
}

Site::Site(const std::string& server) : port_(freePort()) {
    require(runProgram({program("qel-audit"), "init", siteFolder(), "--server", server}, folder()), "init");
    setKey(config(), "listen", "\"" + address() + "\"");
}

Site::~Site() {
    // A tracer that is killed would leave the daemon running.
    if (daemon_ && daemon_->isRunning())
        ::kill(daemonPid(), SIGKILL);
}

Workstation Site::enroll(const std::string& user, const std::string& device) {
    const Workstation made{folder_ / (user + "@" + device)};
    require(audit({"enroll", siteFolder(), "--user", user, "--device", device, "--out", made.folder}),
            "enroll");
    setKey(made.config(), "address", "\"" + address() + "\"");
    return made;
}

void Site::startDaemon(const std::vector<std::string>& prefix) {
    std::vector<std::string> arguments = prefix;
    arguments.insert(arguments.end(), {program("qel-auditd"), "--config", config()});
    const auto listens = [this] {
        return (daemon_->out() + daemon_->err()).find("listening on ") != std::string::npos;
    };
    const auto start = [&] {
        daemon_ = std::make_unique<Process>(arguments, folder(), "daemon-" + std::to_string(starts_++));
        return waitFor([&] { return listens() || !daemon_->isRunning(); }) && listens();
    };
    if (!waitFor([&] { return start() || !foundPortTaken(*daemon_); }) || !listens())
        throw std::runtime_error("the daemon does not listen: " + daemonLog());
}

void Site::killDaemon() {
    daemon_->kill();
}

pid_t Site::daemonPid() const {
    const std::string parent = std::to_string(daemon_->pid());
    const std::string child = TemporaryFolder::read("/proc/" + parent + "/task/" + parent + "/children");
    return child.empty() ? daemon_->pid() : std::stoi(child);
}

int Site::stopDaemon() {
    if (daemon_->isRunning())
        ::kill(daemonPid(), SIGTERM);
    return daemon_->wait(std::chrono::seconds(30));
}

std::string Site::daemonLog() const {
    std::string text;
    for (int i = 0; i < starts_; ++i) {
        const std::string name = folder_ / ("daemon-" + std::to_string(i));
        text += TemporaryFolder::read(name + ".out") + TemporaryFolder::read(name + ".err");
    }
    return text;
}

ProcessResult Site::audit(const std::vector<std::string>& arguments, std::chrono::seconds limit) const {
    std::vector<std::string> all{program("qel-audit")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return runProgram(all, folder(), limit);
}

std::unique_ptr<Process> Site::agent(const std::vector<std::string>& arguments,
                                     const std::string& name) const {
    std::vector<std::string> all{program("qel-audit")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return std::make_unique<Process>(all, folder(), name);
}

std::string Site::storeUrl() const {
    std::smatch found;
    const std::string text = TemporaryFolder::read(config());
    if (!std::regex_search(text, found, std::regex("\nurl *= *\"lmdb:([^\"]*)\"")))
        throw std::runtime_error("no store url in " + config());
    const std::string path = found[1];
    return "lmdb:" + (path.starts_with("/") ? path : siteFolder() + "/" + path);
}

std::vector<std::string> Site::exportedLines(const std::string& log) const {
    const std::string file = folder_ / ("exported-" + log + ".csv");
    require(audit({"export", "--store", storeUrl(), "--log", log, "--from", "1971", "--to", "2200", "--out",
                   file}),
            "export");
    std::istringstream lines(TemporaryFolder::read(file));
    std::vector<std::string> found;
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line))
        found.push_back(line);
    return found;
}

long long queued(const Site& site, const Workstation& workstation) {
    const ProcessResult result = site.audit({"queue", "--config", workstation.config(), "--json"});
    require(result, "queue");
    // The sum over all logs stands beside the counts of the single ones.
    long long sum = 0;
    const std::regex count("\"count\" *: *([0-9]+)");
    for (std::sregex_iterator it(result.out.begin(), result.out.end(), count), end; it != end; ++it)
        sum = std::max(sum, std::stoll((*it)[1]));
    return sum;
}

}  // namespace qel::test
