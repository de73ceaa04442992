#pragma once

namespace qel::programs {

/// The name under which the daemon offers its remote calls; both programs know it, so it stays.
constexpr const char* remoteCallService = "calls";

/// The files of a download, behind the folder that the client names.
constexpr const char* auditFileName = "/audit_export.csv";
constexpr const char* interactionFileName = "/constancy_export.csv";

constexpr const char* downloadCall = "download_audit_report";
constexpr const char* linesCall = "get_audit_log";

/// What every authenticated peer may ask: the service's clock, and whether the asking user may read the logs.
constexpr const char* statusCall = "get_service_status";
constexpr const char* statusGroup = "Service";

}  // namespace qel::programs
