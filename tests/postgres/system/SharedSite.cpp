#include "postgres/system/SharedSite.h"

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

// The metrics section's `listen` is the second one of the file.
void setMetrics(const std::string& file, int port) {
    const std::string text = TemporaryFolder::read(file);
    const std::size_t section = text.find("[metrics]");
    const std::string head = text.substr(0, section);
    const std::string tail = std::regex_replace(text.substr(section), std::regex("\n#? *listen *=[^\n]*"),
                                                "\nlisten = \"127.0.0.1:" + std::to_string(port) + "\"",
                                                std::regex_constants::format_first_only);
    std::ofstream(file, std::ios::trunc) << head << tail;
}

}  // namespace

ProcessResult audit(const std::string& folder, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), program("qel-audit"));
    return runProgram(arguments, folder, std::chrono::seconds(120));
}

SharedDaemon::SharedDaemon(const std::string& folder, const std::string& name, const std::string& storeUrl,
                           const SharedDaemon* first)
    : folder_(folder + "/" + name), base_(folder), name_(name), port_(freePort()), metricsPort_(freePort()) {
    std::vector<std::string> arguments{"init", folder_, "--server", "127.0.0.1", "--store", storeUrl};
    if (first != nullptr)
        arguments.insert(arguments.end(), {"--join", first->siteFolder()});
    require(audit(folder, arguments), "init");
    setKey(config(), "listen", "\"" + address() + "\"");
    setMetrics(config(), metricsPort_);
}

bool SharedDaemon::start() {
    const auto listens = [this] { return log().find("listening on ") != std::string::npos; };
    const auto startOnce = [&] {
        process_ =
            std::make_unique<Process>(std::vector<std::string>{program("qel-auditd"), "--config", config()},
                                      base_, name_ + "-" + std::to_string(starts_++));
        return waitFor([&] { return listens() || !process_->isRunning(); }) && listens();
    };
    return waitFor([&] { return startOnce() || !foundPortTaken(*process_); }) && listens();
}

std::string SharedDaemon::get(const std::string& path) const {
    const ProcessResult result =
        runProgram({"python3", "-c",
                    "import sys,urllib.request,urllib.error\n"
                    "try:\n print(urllib.request.urlopen(sys.argv[1], timeout=30).read().decode())\n"
                    "except urllib.error.HTTPError as e:\n print(e.code, e.read().decode())",
                    "http://127.0.0.1:" + std::to_string(metricsPort_) + path},
                   base_);
    return result.out;
}

Workstation enrollFor(const std::string& folder, const SharedDaemon& first, const std::string& user,
                      const std::vector<const SharedDaemon*>& daemons) {
    const Workstation made{folder + "/" + user};
    require(audit(folder, {"enroll", first.siteFolder(), "--user", user, "--device", "pc-" + user, "--out",
                           made.folder}),
            "enroll");
    std::string list;
    for (const SharedDaemon* const daemon : daemons)
        list += (list.empty() ? "\"" : ", \"") + daemon->address() + "\"";
    setKey(made.config(), "address", "[" + list + "]");
    return made;
}

void record(const std::string& folder, const Workstation& workstation, int begin, int count) {
    const std::string file = workstation.folder + "/events";
    {
        std::ofstream out(file);
        for (int i = begin; i < begin + count; ++i)
            out << "[\"Event\"," << i << "]\n";
    }
    require(
        audit(folder, {"record", "--config", workstation.config(), "--log", "interaction", "--from", file}),
        "record");
}

std::vector<std::string> exportLines(const std::string& folder, const std::string& url,
                                     const std::string& log) {
    const std::string file = folder + "/exported.csv";
    require(audit(folder,
                  {"export", "--store", url, "--log", log, "--from", "1971", "--to", "2200", "--out", file}),
            "export");
    std::istringstream lines(TemporaryFolder::read(file));
    std::vector<std::string> found;
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line))
        found.push_back(line);
    return found;
}

}  // namespace qel::test
