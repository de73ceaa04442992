// How fast does a range of a central log reach an auditor's disk through the real daemon and the real command? The floor
// is a plain exportCSV to the same disk and, after it, a copy of that file over TLS 1.3 by OpenSSL alone. And how much of
// its rate does a workstation's forwarding keep while two downloads run? QEL_BENCH_ENTRIES sets the entries of the log,
// QEL_BENCH_INGEST the events that are forwarded.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "auditing/AuditExport.h"
#include "auditing/AuditLogTools.h"
#include "qelCore/ItemStore.h"
#include "qelCore/logging/Log.h"
#include "support/Child.h"
#include "support/Figures.h"
#include "support/Site.h"

namespace {

using namespace qel;
using bench::Child;
using test::Site;
using test::Workstation;

// 1995-06-01: apart from the present, in which the downloads leave their own events.
constexpr long long firstTime = 801964800LL * 1000000;
constexpr long long lastTime = firstTime + 4LL * 365 * 24 * 3600 * 1000000;

void require(bool done, const std::string& what) {
    if (done)
        return;
    std::fprintf(stderr, "%s\n", what.c_str());
    _exit(3);
}

// ----- the log

void fill(const std::string& url, long entries) {
    std::string reason;
    const auto store = ItemStore::open(url, {}, reason);
    require(store != nullptr, reason);
    Item path;
    path.addString("interaction");
    WriteBatch batch(store.get());
    for (long i = 0; i < entries; ++i) {
        Item last;
        last.addInteger(firstTime + i * 100);
        last.addInteger(4000000000LL + i % 8);
        Item key(path);
        key.addItem(last);
        Item value = AuditLogTools::origin("anna.schmidt", "reading-room-3", 0, false);
        value.addString("DataAccess");
        value.addString("1.2.840.113619.2.55.3.604688119.971." + std::to_string(i));
        value.addString("1.2.840.113619.2.55.3.604688119." + std::to_string(i / 7));
        value.addInteger(i % 500);
        store->store(key, value.bytes());
        if (i % 10000 == 9999)
            require(static_cast<bool>(batch.commit()), "the log cannot be filled");
    }
    require(static_cast<bool>(batch.commit()), "the log cannot be filled");
}

double plainExport(const std::string& url, const std::string& file) {
    std::string reason;
    const auto store = ItemStore::open(url, {}, reason);
    require(store != nullptr, reason);
    ItemStore::setCurrent(store.get());
    Item path;
    path.addString("interaction");
    const double took =
        bench::seconds([&] { AuditExport::exportCSV(file.c_str(), path, firstTime, lastTime); });
    ItemStore::setCurrent(nullptr);
    return took;
}

// ----- a copy over TLS

void sendFile(const Child::Line& line, const std::string& site, const std::string& file) {
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
    require(SSL_CTX_use_certificate_chain_file(context, (site + "/server.crt").c_str()) == 1 &&
                SSL_CTX_use_PrivateKey_file(context, (site + "/server.key").c_str(), SSL_FILETYPE_PEM) == 1,
            "credentials");
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    require(bind(listener, reinterpret_cast<sockaddr*>(&address), size) == 0 && listen(listener, 1) == 0 &&
                getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) == 0,
            "listen");
    line.say(std::to_string(ntohs(address.sin_port)));
    SSL* ssl = SSL_new(context);
    SSL_set_fd(ssl, accept(listener, nullptr, nullptr));
    require(SSL_accept(ssl) == 1, "SSL_accept");
    const int in = open(file.c_str(), O_RDONLY);
    char buffer[16384];
    for (ssize_t got; (got = read(in, buffer, sizeof buffer)) > 0;)
        require(SSL_write(ssl, buffer, static_cast<int>(got)) > 0, "SSL_write");
    SSL_shutdown(ssl);
    line.hear();
}

void receiveFile(int port, const std::string& file) {
    SSL_CTX* context = SSL_CTX_new(TLS_client_method());
    const int connected = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    require(connect(connected, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "connect");
    SSL* ssl = SSL_new(context);
    SSL_set_fd(ssl, connected);
    require(SSL_connect(ssl) == 1, "SSL_connect");
    const int out = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    char buffer[16384];
    for (int got; (got = SSL_read(ssl, buffer, sizeof buffer)) > 0;)
        require(write(out, buffer, static_cast<std::size_t>(got)) == got, "write");
    require(fsync(out) == 0 && close(out) == 0, "fsync");
    SSL_free(ssl);
    close(connected);
    SSL_CTX_free(context);
}

double copyOverTls(const std::string& site, const std::string& file, const std::string& copy) {
    const Child server([&](const Child::Line& line) { sendFile(line, site, file); });
    const int port = std::stoi(server.line().hear());
    return bench::seconds([&] { receiveFile(port, copy); });
}

// ----- the real thing

std::vector<std::string> downloadInto(const Workstation& anna, const std::string& folder) {
    return {"download", "--config", anna.config(), "--log",  "interaction", "--from",
            "1995",     "--to",     "1999",        "--into", folder};
}

void measureDownload(const Site& site, const Workstation& anna, double floor, std::uintmax_t bytes) {
    const std::string folder = site.folder() + "/into";
    test::ProcessResult result;
    const double took =
        bench::seconds([&] { result = site.audit(downloadInto(anna, folder), std::chrono::seconds(3600)); });
    require(result.code == 0, result.err);
    require(std::filesystem::file_size(folder + "/constancy_export.csv") == bytes, "the file is not whole");
    const double mebibytes = static_cast<double>(bytes) / (1 << 20);
    bench::print("download_floor", mebibytes / floor, "MiB/s");
    bench::print("download", mebibytes / took, "MiB/s", mebibytes / floor);
}

double forwardRate(const Site& site, const Workstation& bert, const std::string& events, long count) {
    require(site.audit({"record", "--config", bert.config(), "--log", "audit", "--from", events}).code == 0,
            "record");
    test::ProcessResult result;
    const double took = bench::seconds([&] {
        result = site.audit({"forward", "--config", bert.config(), "--once"}, std::chrono::seconds(3600));
    });
    require(result.code == 0, result.err);
    return static_cast<double>(count) / took;
}

void measureIngest(Site& site, const Workstation& anna, long count) {
    const Workstation bert = site.enroll("bert", "desk-2");
    const std::string events = site.folder() + "/events.jsonl";
    {
        std::ofstream out(events);
        for (long i = 0; i < count; ++i)
            out << "[\"SeriesOpened\",\"1.2.840.113619.2.55.3.604688119.971\"," << i << "]\n";
    }
    const double alone = forwardRate(site, bert, events, count);
    const auto first = site.agent(downloadInto(anna, site.folder() + "/one"), "first");
    const auto second = site.agent(downloadInto(anna, site.folder() + "/two"), "second");
    const double beside = forwardRate(site, bert, events, count);
    const bool stillRunning = first->isRunning() && second->isRunning();
    require(first->wait(std::chrono::seconds(3600)) == 0, first->err());
    require(second->wait(std::chrono::seconds(3600)) == 0, second->err());
    bench::print("ingest_alone", alone, "events/s");
    bench::print("ingest_beside_two_downloads", beside, "events/s", alone);
    if (!stillRunning)
        std::printf("# the downloads ended before the ingest; a larger log tells more\n");
}

}  // namespace

int main() {
    logging::setLevel(logging::levelError);
    const long entries = bench::sizeFrom("QEL_BENCH_ENTRIES", 5000000);
    const long ingest = bench::sizeFrom("QEL_BENCH_INGEST", 60000);
    Site site;
    const Workstation anna = site.enroll("anna", "desk-1");
    test::setKey(site.config(), "auditors", "[\"anna\"]");
    fill(site.storeUrl(), entries);
    const std::string file = site.folder() + "/plain.csv";
    const double exported = plainExport(site.storeUrl(), file);
    const double copied = copyOverTls(site.siteFolder(), file, site.folder() + "/copy.csv");
    const auto bytes = std::filesystem::file_size(file);
    std::filesystem::remove(site.folder() + "/copy.csv");
    std::filesystem::remove(file);
    site.startDaemon();
    measureDownload(site, anna, exported + copied, bytes);
    measureIngest(site, anna, ingest);
    return 0;
}
