#include "auditd/DaemonMetrics.h"

#include <prometheus/histogram.h>
#include <prometheus/registry.h>

#include <algorithm>
#include <string_view>

#include "common/MetricsText.h"
#include "qelCore/String.h"

namespace qel::programs {
namespace {

// Origins that are told one by one; beyond it the one that was silent longest makes room.
constexpr std::size_t mostOrigins = 1000;

prometheus::Histogram::BucketBoundaries commitSeconds() {
    return {0.0005, 0.001, 0.002, 0.005, 0.01, 0.02, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 10};
}

prometheus::Histogram::BucketBoundaries commitWrites() {
    return {1, 2, 4, 8, 16, 32, 64, 128, 256, 512, 1024, 4096, 16384};
}

void addLog(MetricsText& text, const char* name, const char* help,
            std::atomic<unsigned long long> AuditServiceStatistics::*figure,
            const DaemonMetrics::Sources& sources) {
    text.counter(name, help, asDouble((sources.audit->getStatistics().*figure).load()), {{"log", "audit"}});
    text.counter(name, help, asDouble((sources.interaction->getStatistics().*figure).load()),
                 {{"log", "interaction"}});
}

void addLogs(MetricsText& text, const DaemonMetrics::Sources& sources) {
    addLog(text, "qel_events_stored_total", "Events written to the central log, retransmissions included",
           &AuditServiceStatistics::stored, sources);
    addLog(text, "qel_events_retransmitted_total", "Events that were there already",
           &AuditServiceStatistics::retransmitted, sources);
    addLog(text, "qel_events_overwritten_total",
           "Events that met other content under their key, which was kept aside",
           &AuditServiceStatistics::overwritten, sources);
    addLog(text, "qel_events_refused_total", "Events over a limit of the store, which stay with their sender",
           &AuditServiceStatistics::refused, sources);
    addLog(text, "qel_packets_malformed_total", "Audit packets that were dropped because they did not fit",
           &AuditServiceStatistics::malformed, sources);
}

/// Whoever asks whether the service is ready wants to hear soon that it is not.
constexpr unsigned readyMilliseconds = 2000;

void addStore(MetricsText& text, ItemStore& store) {
    const StoreStatistics figures = store.statistics();
    text.counter("qel_commits_total", "Durable commits of the store", asDouble(figures.commits));
    text.counter("qel_commits_failed_total", "Commits that failed; their senders keep the events",
                 asDouble(figures.failedCommits));
    text.counter("qel_writes_refused_total", "Writes refused for their size or for want of room",
                 asDouble(figures.refusedWrites));
    text.gauge("qel_store_pending_bytes", "Bytes received and not yet durable",
               asDouble(figures.pendingBytes));
    text.gauge("qel_commit_running_seconds", "How long the present commit has been running, 0 when none is",
               asDouble(figures.commitRunningMicroseconds) * secondsPerMicrosecond);
    text.gauge("qel_store_reachable", "1 while the store can be reached, 0 while its database cannot",
               figures.reachable ? 1 : 0);
    text.counter("qel_store_reopened_total",
                 "Times that the store or a connection to it was lost and made anew",
                 asDouble(figures.reopened));
    // A database that is away is not waited for.
    const StoreSpace space = figures.reachable ? store.space() : StoreSpace();
    text.gauge("qel_store_used_bytes", "Bytes of the store in use", asDouble(space.usedBytes));
    // Of a database's disks nothing is known here; a zero would read as a full one.
    if (store.url().rfind("lmdb:", 0) == 0)
        text.gauge("qel_store_disk_free_bytes", "Bytes free on its file system",
                   asDouble(space.diskFreeBytes));
}

void addNetwork(MetricsText& text, const Network& network) {
    const NetworkStatistics figures = network.getStatistics();
    text.gauge("qel_connections", "Authenticated connections", asDouble(figures.connectionsNow));
    text.gauge("qel_sessions", "Open sessions", asDouble(figures.sessionsNow));
    text.gauge("qel_handshakes", "Connections that have not authenticated yet",
               asDouble(figures.handshakesNow));
    text.counter("qel_connections_accepted_total", "Sockets accepted", asDouble(figures.accepted));
    text.counter("qel_connections_authenticated_total", "Completed handshakes",
                 asDouble(figures.authenticated));
    text.counter("qel_packets_received_total", "Packets received", asDouble(figures.packetsReceived));
    text.counter("qel_packets_sent_total", "Packets sent, acknowledgements for the most part",
                 asDouble(figures.packetsSent));
    text.counter("qel_bursts_total", "Bursts of packets handled, each one write batch",
                 asDouble(figures.bursts));
    text.counter("qel_answers_dropped_total",
                 "Batches whose answers were dropped because their commit failed",
                 asDouble(figures.commitsFailed));
    for (const auto& [reason, count] : figures.refused)
        text.counter("qel_connections_refused_total", "Connections refused or closed, by reason",
                     asDouble(count), {{"reason", reason}});
}

void addRemoteCalls(MetricsText& text, const RpcService& service) {
    const RpcStatistics figures = service.getStatistics();
    text.counter("qel_remote_calls_total", "Remote calls that were permitted", asDouble(figures.calls));
    text.gauge("qel_remote_calls_open", "Remote calls under way", asDouble(figures.openCalls));
    text.counter("qel_remote_calls_not_permitted_total", "Remote calls of users who are no auditors",
                 asDouble(figures.notPermitted));
    text.counter("qel_remote_calls_not_answered_total", "Remote calls ended because nothing finished them",
                 asDouble(figures.notAnswered));
    text.counter("qel_remote_calls_too_large_total", "Remote calls refused for the size of their result",
                 asDouble(figures.tooLarge));
    text.counter("qel_transferred_file_bytes_total", "Bytes of files sent to auditors",
                 asDouble(figures.fileBytes));
}

}  // namespace

/// Histograms of the commit thread.
class DaemonMetrics::CommitFigures {
  public:
    CommitFigures()
        : seconds_(prometheus::BuildHistogram()
                       .Name("qel_commit_seconds")
                       .Help("Time of a durable commit")
                       .Register(registry_)
                       .Add({}, commitSeconds())),
          writes_(prometheus::BuildHistogram()
                      .Name("qel_commit_writes")
                      .Help("Writes that shared a commit")
                      .Register(registry_)
                      .Add({}, commitWrites())) {}

    void observe(const CommitReport& report) {
        seconds_.Observe(asDouble(report.microseconds) * secondsPerMicrosecond);
        writes_.Observe(asDouble(report.writes));
    }
    std::vector<prometheus::MetricFamily> collect() const { return registry_.Collect(); }

  private:
    prometheus::Registry registry_;
    prometheus::Histogram& seconds_;
    prometheus::Histogram& writes_;
};

DaemonMetrics::DaemonMetrics(const Sources& sources)
    : sources_(sources), commits_(std::make_unique<CommitFigures>()) {
    sources_.store->setCommitObserver([this](const CommitReport& report) { commits_->observe(report); });
    for (AuditService* service : {sources_.audit, sources_.interaction})
        service->setListener([this](const Item& origin, long long time) { eventStored(origin, time); });
}

DaemonMetrics::~DaemonMetrics() {
    sources_.store->setCommitObserver({});
}

std::string DaemonMetrics::listen(const std::string& endpoint, const Network& network) {
    network_ = &network;
    server_ = std::make_unique<MetricsServer>(
        endpoint, MetricsServer::Pages{[this] { return metrics(); }, [this] { return ready(); },
                                       [this] { return healthy(); }});
    return server_->address();
}

void DaemonMetrics::setAlive(bool alive) {
    alive_ = alive;
}

void DaemonMetrics::eventStored(const Item& origin, long long time) {
    // The device of [user, device]; of an anonymous log the pseudonym of [pseudonym, "***"].
    Item::Iterator elements(origin);
    std::string scratch;
    std::string_view first;
    std::string_view second;
    std::string otherScratch;
    if (!elements.convertAsText(first, scratch) || !elements.convertAsText(second, otherScratch))
        return;
    const std::string_view name = second == "***" ? first : second;
    const std::lock_guard lock(mutex_);
    const auto known = lastSeen_.find(name);
    if (known != lastSeen_.end()) {
        known->second = std::max(known->second, time);
        return;
    }
    if (lastSeen_.size() >= mostOrigins)
        lastSeen_.erase(std::min_element(lastSeen_.begin(), lastSeen_.end(),
                                         [](const auto& a, const auto& b) { return a.second < b.second; }));
    lastSeen_.emplace(name, time);
}

MetricsServer::Answer DaemonMetrics::ready() const {
    const CommitResult result = sources_.store->probeCommit(readyMilliseconds);
    if (result)
        return {200, "ready\n"};
    return {503, "the store cannot write: " + result.reason + '\n'};
}

MetricsServer::Answer DaemonMetrics::healthy() const {
    if (alive_)
        return {200, "alive\n"};
    return {503, "the commit thread hangs\n"};
}

std::string DaemonMetrics::metrics() const {
    MetricsText text;
    addLogs(text, sources_);
    addStore(text, *sources_.store);
    addNetwork(text, *network_);
    if (sources_.remoteCalls != nullptr)
        addRemoteCalls(text, *sources_.remoteCalls);
    text.gauge("qel_certificate_expires_timestamp_seconds",
               "End of the server's certificate, seconds since 1970",
               static_cast<double>(sources_.credentials->getValidUntil()) * secondsPerMicrosecond);
    {
        const std::lock_guard lock(mutex_);
        for (const auto& [device, time] : lastSeen_)
            text.gauge("qel_last_event_timestamp_seconds",
                       "Time of the newest event of a device or pseudonym",
                       static_cast<double>(time) * secondsPerMicrosecond, {{"device", device}});
    }
    text.append(commits_->collect());
    return text.text();
}

}  // namespace qel::programs
