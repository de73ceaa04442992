#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/PostgresServer.h"
#include "support/Site.h"

namespace qel::test {

/// A daemon of a site whose daemons share one database; the first one makes the site, others join it.
class SharedDaemon {
  public:
    SharedDaemon(const std::string& folder, const std::string& name, const std::string& storeUrl,
                 const SharedDaemon* first = nullptr);

    const std::string& siteFolder() const { return folder_; }
    std::string config() const { return folder_ + "/qel-auditd.toml"; }
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

    /// Starts it, again while somebody still has its port; true once it listens, false when it ended before.
    bool start();
    Process& process() { return *process_; }
    /// The answer of its metrics listener to GET, body alone.
    std::string get(const std::string& path) const;
    std::string log() const { return process_->out() + process_->err(); }

  private:
    std::string folder_;
    std::string base_;
    std::string name_;
    int port_;
    int metricsPort_;
    int starts_ = 0;
    std::unique_ptr<Process> process_;
};

/// The programs' command line, run to its end in `folder`.
ProcessResult audit(const std::string& folder, std::vector<std::string> arguments);
/// An identity of the site that knows the daemons' addresses in that order.
Workstation enrollFor(const std::string& folder, const SharedDaemon& first, const std::string& user,
                      const std::vector<const SharedDaemon*>& daemons);
/// Appends `count` events with a number each, from `begin`.
void record(const std::string& folder, const Workstation& workstation, int begin, int count);
/// The data lines of a log.
std::vector<std::string> exportLines(const std::string& folder, const std::string& url,
                                     const std::string& log);

}  // namespace qel::test
