#pragma once

#include <cstdint>
#include <string>

#include "common/Configs.h"
#include "doctor/Diagnosis.h"

namespace qel::programs {

/// What people may ask of the doctor beyond the configuration. Plain record.
struct DoctorWishes {
    std::int64_t leastFreeMebibytes = 1024;
    std::int64_t clockSeconds = 60;  ///< largest difference to the service that is no fault
    std::int64_t waitingDays = 7;    ///< age of a waiting event from which on it is a fault
    bool auditor = false;            ///< this identity shall be able to read the logs
    std::string groups;              ///< file of groups that reports are made with
};

// Each function looks at one thing and tells the diagnosis; none of them throws.

void checkIdentity(Diagnosis& diagnosis, const ConfigBase& config, const TlsConfig& tls, long long now);
void checkServerName(Diagnosis& diagnosis, const DaemonConfig& config);
void checkSiteKey(Diagnosis& diagnosis, const DaemonConfig& config);
void checkFolders(Diagnosis& diagnosis, const DaemonConfig& config);
void checkExposure(Diagnosis& diagnosis, const DaemonConfig& config);
void checkGroups(Diagnosis& diagnosis, const std::string& file);

void checkCentralStore(Diagnosis& diagnosis, const DaemonConfig& config, const DoctorWishes& wishes);
void checkQueue(Diagnosis& diagnosis, const WorkstationConfig& config, const DoctorWishes& wishes,
                long long now);

void checkListening(Diagnosis& diagnosis, const DaemonConfig& config);
/// Connects as the agent would, and tells how far it gets: name, port, certificates, services, clock, role.
void checkService(Diagnosis& diagnosis, const WorkstationConfig& config, const DoctorWishes& wishes);

}  // namespace qel::programs
