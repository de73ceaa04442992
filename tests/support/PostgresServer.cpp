#include "support/PostgresServer.h"

#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace qel::test {

namespace {

namespace fs = std::filesystem;

constexpr const char* binaries = "/usr/lib/postgresql/15/bin/";
constexpr const char* systemUser = "postgres";
constexpr const char* superuser = "qel";
constexpr const char* password = "only for tests";

bool isRoot() {
    return ::geteuid() == 0;
}

std::string binary(const char* name) {
    return std::string(binaries) + name;
}

void writeSecret(const std::string& file, const std::string& text) {
    std::ofstream(file) << text;
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
}

}  // namespace

PostgresServer::PostgresServer(const std::vector<std::string>& settings)
    : data_(folder_ / "data"),
      passwordFile_(folder_ / "password"),
      certificateFile_(folder_ / "server.crt"),
      port_(freePort()) {
    fs::permissions(folder_.path(), fs::perms(0755));
    makeCertificate();
    initialise(settings);
    start();
}

PostgresServer::PostgresServer(Copied, PostgresServer& primary)
    : data_(folder_ / "data"),
      passwordFile_(primary.passwordFile_),
      certificateFile_(primary.certificateFile_),
      port_(freePort()) {
    fs::permissions(folder_.path(), fs::perms(0755));
    fs::create_directory(data_);
    own(data_);
    const std::string source = "host=127.0.0.1 port=" + std::to_string(primary.port_) + " user=" + superuser +
                               " sslmode=disable application_name=standby passfile=" + folder_.path() +
                               "/pass";
    writeSecret(folder_ / "pass", std::string("*:*:*:*:") + password + "\n");
    own(folder_ / "pass");
    run(asServer({binary("pg_basebackup"), "-D", data_, "-d", source, "-R", "-c", "fast", "--no-sync"}));
    std::ofstream(data_ + "/postgresql.conf", std::ios::app)
        << "port = " << port_ << "\nsynchronous_standby_names = ''\n";
}

std::unique_ptr<PostgresServer> PostgresServer::standbyOf(PostgresServer& primary) {
    std::unique_ptr<PostgresServer> standby(new PostgresServer(Copied(), primary));
    standby->start();
    primary.sql("ALTER SYSTEM SET synchronous_standby_names = 'standby'");
    primary.sql("SELECT pg_reload_conf()");
    if (!waitFor([&] { return primary.sql("SELECT sync_state FROM pg_stat_replication") == "sync\n"; }))
        throw std::runtime_error("the standby does not follow");
    return standby;
}

PostgresServer::~PostgresServer() {
    stop();
}

// The server refuses to run as root.
std::vector<std::string> PostgresServer::asServer(std::vector<std::string> arguments) const {
    if (isRoot())
        arguments.insert(arguments.begin(), {"/usr/bin/setpriv", std::string("--reuid=") + systemUser,
                                             std::string("--regid=") + systemUser, "--clear-groups", "--"});
    return arguments;
}

void PostgresServer::run(const std::vector<std::string>& arguments) const {
    const ProcessResult result = runProgram(arguments, folder_.path());
    if (result.code != 0)
        throw std::runtime_error(arguments.back() + ": " + result.out + result.err);
}

void PostgresServer::own(const std::string& path) const {
    if (!isRoot())
        return;
    // cppcheck-suppress getpwnamCalled ; tests have one thread here
    const passwd* const user = ::getpwnam(systemUser);
    if (user == nullptr || ::chown(path.c_str(), user->pw_uid, user->pw_gid) != 0)
        throw std::runtime_error("cannot give " + path + " to " + systemUser);
}

void PostgresServer::makeCertificate() {
    const std::string key = folder_ / "server.key";
    run({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
         "-nodes", "-keyout", key, "-out", certificateFile_, "-days", "2", "-subj", "/CN=localhost",
         "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1"});
    fs::permissions(key, fs::perms::owner_read | fs::perms::owner_write);
    own(key);
}

void PostgresServer::initialise(const std::vector<std::string>& settings) {
    writeSecret(passwordFile_, std::string(password) + "\n");
    fs::copy_file(passwordFile_, folder_ / "initial");
    own(folder_ / "initial");
    fs::create_directory(data_);
    own(data_);
    run(asServer({binary("initdb"), "-D", data_, "-U", superuser, "-A", "scram-sha-256",
                  "--pwfile=" + (folder_ / "initial"), "--no-sync", "-E", "UTF8", "--locale=C.UTF-8"}));
    std::ofstream out(data_ + "/postgresql.conf", std::ios::app);
    out << "port = " << port_ << "\nlisten_addresses = '127.0.0.1'\nunix_socket_directories = ''\nssl = on\n"
        << "ssl_cert_file = '" << certificateFile_ << "'\nssl_key_file = '" << (folder_ / "server.key")
        << "'\n"
        << "shared_buffers = 32MB\nmax_connections = 60\nautovacuum_naptime = 1d\nmax_wal_size = 4GB\n"
        << "wal_sender_timeout = 5s\n";
    for (const std::string& line : settings)
        out << line << '\n';
    std::ofstream(data_ + "/pg_hba.conf", std::ios::app)
        << "host replication all 127.0.0.1/32 scram-sha-256\n";
}

void PostgresServer::start() {
    fs::permissions(data_, fs::perms(0700));
    const auto isReady = [this] {
        return process_->isRunning() &&
               process_->err().find("database system is ready to accept") != std::string::npos;
    };
    const auto startOnce = [&] {
        fs::remove(data_ + "/postmaster.pid");
        // Ends with this process, however that ends.
        process_ = std::make_unique<Process>(
            isRoot() ? std::vector<std::string>{"/usr/bin/setpriv", std::string("--reuid=") + systemUser,
                                                std::string("--regid=") + systemUser, "--clear-groups",
                                                "--pdeathsig=QUIT", "--", binary("postgres"), "-D", data_}
                     : std::vector<std::string>{binary("postgres"), "-D", data_},
            folder_.path(), "server");
        return waitFor([&] { return isReady() || !process_->isRunning(); }) && isReady();
    };
    // Somebody may still have its port.
    if (!waitFor([&] { return startOnce() || !foundPortTaken(*process_); }) || !isReady())
        throw std::runtime_error("the database server does not start: " + process_->err());
}

void PostgresServer::stop() {
    if (process_ == nullptr || !process_->isRunning())
        return;
    process_->signal(SIGINT);
    if (process_->wait(std::chrono::seconds(20)) == -1)
        process_->kill();
}

void PostgresServer::kill() {
    // The processes of a server belong to its group or notice its end by themselves.
    const std::string children =
        "/proc/" + std::to_string(process_->pid()) + "/task/" + std::to_string(process_->pid()) + "/children";
    std::ifstream list(children);
    std::vector<pid_t> pids;
    for (pid_t pid = 0; list >> pid;)
        pids.push_back(pid);
    process_->kill();
    for (const pid_t pid : pids)
        ::kill(pid, SIGKILL);
    waitFor([&] {
        for (const pid_t pid : pids)
            if (::kill(pid, 0) == 0)
                return false;
        return true;
    });
}

void PostgresServer::promote() {
    run(asServer({binary("pg_ctl"), "promote", "-w", "-D", data_}));
}

std::string PostgresServer::psql(const std::vector<std::string>& more) const {
    std::vector<std::string> arguments{"/usr/bin/env",
                                       std::string("PGPASSWORD=") + password,
                                       binary("psql"),
                                       "-X",
                                       "-q",
                                       "-t",
                                       "-A",
                                       "-v",
                                       "ON_ERROR_STOP=1",
                                       "-h",
                                       "127.0.0.1",
                                       "-p",
                                       std::to_string(port_),
                                       "-U",
                                       superuser,
                                       "-d",
                                       "postgres"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const ProcessResult result = runProgram(arguments, folder_.path());
    if (result.code != 0)
        throw std::runtime_error(more.back() + ": " + result.err);
    return result.out;
}

std::string PostgresServer::sql(const std::string& text) const {
    return psql({"-c", text});
}

void PostgresServer::runFile(const std::string& file, const std::string& schema) const {
    psql({"-c", "SET search_path = " + schema, "-f", file});
}

std::string PostgresServer::storeUrl(const std::string& schema) {
    sql("CREATE SCHEMA IF NOT EXISTS " + schema);
    return storeUrl({this}, schema);
}

std::string PostgresServer::storeUrl(const std::vector<const PostgresServer*>& servers,
                                     const std::string& schema) {
    std::string hosts;
    for (const PostgresServer* const server : servers)
        hosts += (hosts.empty() ? "localhost:" : ",localhost:") + std::to_string(server->port_);
    const PostgresServer& first = *servers.front();
    return std::string("postgresql://") + superuser + "@" + hosts +
           "/postgres?sslmode=verify-full&sslrootcert=" + first.certificateFile_ +
           "&password_file=" + first.passwordFile_ + "&options=-csearch_path%3D" + schema;
}

}  // namespace qel::test
