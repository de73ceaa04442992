#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "support/Process.h"
#include "support/TemporaryFolder.h"

namespace qel::test {

/// A database server of the test's own, from the distribution's package: in a temporary folder, on a free port of the
/// loopback address, with TLS and passwords. Stopped and waited for by the destructor.
class PostgresServer {
  public:
    /// `settings` are lines for its configuration. Throws std::runtime_error when it does not start.
    explicit PostgresServer(const std::vector<std::string>& settings = {});
    ~PostgresServer();
    PostgresServer(const PostgresServer&) = delete;
    PostgresServer& operator=(const PostgresServer&) = delete;

    /// A synchronous standby of `primary`, streaming when this returns.
    static std::unique_ptr<PostgresServer> standbyOf(PostgresServer& primary);

    int port() const { return port_; }
    /// Of the store that lies in a schema of that name, which is made when missing; TLS with verified certificate.
    std::string storeUrl(const std::string& schema);
    /// The same for several servers of which one takes changes.
    static std::string storeUrl(const std::vector<const PostgresServer*>& servers, const std::string& schema);

    /// Runs SQL as the superuser; what it printed, one line per row. Throws when it fails.
    std::string sql(const std::string& text) const;
    /// Runs a file of SQL in the schema, as an administrator would.
    void runFile(const std::string& file, const std::string& schema) const;
    /// kill -9 to the server and all its processes, and waits.
    void kill();
    /// Starts again after `kill`, or with other settings.
    void start();
    void promote();

    const std::string& passwordFile() const { return passwordFile_; }
    const std::string& certificateFile() const { return certificateFile_; }

  private:
    struct Copied {};
    PostgresServer(Copied, PostgresServer& primary);
    std::string psql(const std::vector<std::string>& more) const;
    void makeCertificate();
    void initialise(const std::vector<std::string>& settings);
    void own(const std::string& path) const;
    void stop();
    std::vector<std::string> asServer(std::vector<std::string> arguments) const;
    void run(const std::vector<std::string>& arguments) const;

    TemporaryFolder folder_;
    std::string data_;
    std::string passwordFile_;
    std::string certificateFile_;
    int port_ = 0;
    std::unique_ptr<Process> process_;
};

}  // namespace qel::test
