#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/Process.h"
#include "support/TemporaryFolder.h"

namespace qel::test {

/// A workstation of a site: its folder with configuration and queue.
struct Workstation {
    std::string folder;
    std::string config() const { return folder + "/qel-audit.toml"; }
};

/// A whole site in a temporary folder, made and run with the real programs: authority, daemon on a free loopback port,
/// workstations. The vocabulary of the system tests.
class Site {
  public:
    /// Makes the site of that server with `qel-audit init`; the daemon does not run yet, and will listen on the loopback
    /// address. Throws with the program's words on failure.
    explicit Site(const std::string& server = "127.0.0.1");
    ~Site();

    const std::string& folder() const { return folder_.path(); }
    std::string config() const { return siteFolder() + "/qel-auditd.toml"; }
    std::string siteFolder() const { return folder_ / "site"; }
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
    int port() const { return port_; }

    Workstation enroll(const std::string& user, const std::string& device);

    /// Starts the daemon and waits until it listens; again while somebody still has its port. `prefix` stands before its
    /// command line, for tracing.
    void startDaemon(const std::vector<std::string>& prefix = {});
    /// kill -9.
    void killDaemon();
    /// SIGTERM; returns its exit code.
    int stopDaemon();
    Process& daemon() { return *daemon_; }
    /// Everything that the daemons of this site have logged.
    std::string daemonLog() const;

    /// Runs qel-audit to its end.
    ProcessResult audit(const std::vector<std::string>& arguments,
                        std::chrono::seconds limit = std::chrono::seconds(120)) const;
    /// qel-audit in the background.
    std::unique_ptr<Process> agent(const std::vector<std::string>& arguments, const std::string& name) const;

    /// The URL of the central store.
    std::string storeUrl() const;

    /// The data lines of a central log, exported from the store of the stopped or running daemon.
    std::vector<std::string> exportedLines(const std::string& log) const;

  private:
    /// Under a tracer the daemon is the tracer's child.
    pid_t daemonPid() const;

    TemporaryFolder folder_;
    int port_;
    int starts_ = 0;
    std::unique_ptr<Process> daemon_;
};

/// How many events wait in a workstation's queues, as `qel-audit queue --json` puts it.
long long queued(const Site& site, const Workstation& workstation);

/// Replaces the value of the first line `key = …` of a configuration.
void setKey(const std::string& file, const std::string& key, const std::string& value);

}  // namespace qel::test
