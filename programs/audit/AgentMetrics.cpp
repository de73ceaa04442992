#include "audit/AgentMetrics.h"

#include <algorithm>

#include "auditing/AuditAside.h"
#include "auditing/AuditLogTools.h"
#include "common/MetricsText.h"
#include "common/Times.h"

namespace qel::programs {
namespace {

void addQueues(MetricsText& text, Workstation& workstation) {
    constexpr const char* names[] = {"audit", "interaction"};
    LogSummary summaries[2];
    for (int i = 0; i < 2; ++i)
        summaries[i] = AuditLogTools::summarize(workstation.sequence(names[i]).getPath(), LogShape::queue);
    for (int i = 0; i < 2; ++i)
        text.gauge("qel_queue_events", "Events that wait for the service", asDouble(summaries[i].events),
                   {{"log", names[i]}});
    const long long now = wallClock();
    for (int i = 0; i < 2; ++i)
        text.gauge("qel_queue_oldest_seconds", "Age of the oldest waiting event, 0 when none waits",
                   summaries[i].events == 0 ? 0.0
                                            : static_cast<double>(std::max(0LL, now - summaries[i].oldest)) *
                                                  secondsPerMicrosecond,
                   {{"log", names[i]}});
    for (const char* name : names)
        text.gauge(
            "qel_queue_parked", "Events too large for the service, kept aside",
            static_cast<double>(AuditAside::count(AsideReason::parked, workstation.sequence(name).getPath())),
            {{"log", name}});
    for (const char* name : names)
        text.gauge("qel_queue_damaged", "Entries that could not be read, kept aside",
                   static_cast<double>(
                       AuditAside::count(AsideReason::damaged, workstation.sequence(name).getPath())),
                   {{"log", name}});
}

}  // namespace

AgentMetrics::AgentMetrics(Workstation& workstation, const Forwarder& forwarder)
    : workstation_(workstation),
      forwarder_(forwarder),
      server_(workstation.config().metricsListen, {[this] { return metrics(); }, [this] { return ready(); },
                                                   [] {
                                                       return MetricsServer::Answer{200, "alive\n"};
                                                   }}) {}

MetricsServer::Answer AgentMetrics::ready() const {
    const ForwardState state = forwarder_.state();
    if (state.connected)
        return {200, "connected\n"};
    return {503, "not connected: " + state.trouble + '\n'};
}

std::string AgentMetrics::metrics() const {
    const ForwardState state = forwarder_.state();
    MetricsText text;
    addQueues(text, workstation_);
    text.gauge("qel_agent_connected", "1 while the service is connected", state.connected ? 1 : 0);
    text.gauge("qel_agent_in_flight", "Events sent and not yet acknowledged, at most 64 per log",
               asDouble(state.inFlight));
    text.counter("qel_agent_sent_total", "Events sent, retransmissions included", asDouble(state.sent));
    text.counter("qel_agent_acknowledged_total", "Events acknowledged by the service",
                 asDouble(state.acknowledged));
    text.counter("qel_agent_reconnects_total", "Connections established after the first",
                 asDouble(state.reconnects));
    text.counter("qel_agent_stalls_total", "Connections given up because acknowledgements stayed away",
                 asDouble(state.stalls));
    text.gauge("qel_certificate_expires_timestamp_seconds", "End of the own certificate, seconds since 1970",
               static_cast<double>(workstation_.credentials()->getValidUntil()) * secondsPerMicrosecond);
    return text.text();
}

}  // namespace qel::programs
