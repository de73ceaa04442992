#include <cstdio>
#include <exception>

#include "auditd/Daemon.h"
#include "common/CommandLine.h"
#include "common/ConfigFile.h"
#include "common/ConfigManual.h"
#include "common/Failure.h"
#include "common/ServiceManager.h"

namespace qel::programs {
namespace {

int serve(const std::string& config) {
    const ServiceManager manager;
    setUpServiceLog();
    try {
        return Daemon(config).run(manager);
    } catch (const Failure& failure) {
        logError(failure.what());
        return failure.code();
    } catch (const std::exception& error) {
        logError(std::string("unexpected end: ") + error.what());
        return exitInputOutput;
    }
}

int check(const std::string& file) {
    try {
        DaemonConfig config;
        readConfig(file, config);
        std::fputs(printConfig(config, false).c_str(), stdout);
        return exitDone;
    } catch (const Failure& failure) {
        std::fprintf(stderr, "qel-auditd: %s\n", failure.what());
        return failure.code();
    }
}

int runDaemon(const std::vector<std::string>& arguments) {
    if (arguments == std::vector<std::string>{"--man-config"}) {
        std::fputs(daemonConfigManual().c_str(), stdout);
        return exitDone;
    }
    CommandLine line("qel-auditd", "receive, keep and serve the audit events of a site", arguments);
    std::string config;
    bool checkOnly = false;
    line.manualSection(8);
    line.describe(
        "Runs in the foreground until SIGTERM or SIGINT and prints nothing but log lines; \"listening on "
        "HOST:PORT\" and "
        "READY=1 to the service manager say that workstations may come. SIGHUP reads certificates, key and "
        "access lists "
        "again without closing a connection.");
    line.requiredText("--config", "FILE", config, "configuration; 'qel-audit init' makes one");
    line.flag("--check", checkOnly, "print the effective configuration and end");
    line.example("qel-auditd --config /etc/qel/qel-auditd.toml");
    if (const auto code = line.parse())
        return *code;
    return checkOnly ? check(config) : serve(config);
}

}  // namespace
}  // namespace qel::programs

int main(int argc, char** argv) {
    return qel::programs::runDaemon(std::vector<std::string>(argv + 1, argv + argc));
}
