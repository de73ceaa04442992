#pragma once

#include "qelNet/Export.h"

namespace qel {

/// Receives the figures of a running service, one by one, from Service::report. Called on the caller's
/// thread.
class QELNET_EXPORT ReportGenerator {
  public:
    virtual ~ReportGenerator() = default;

    /// `subject` is the name of the service, `figure` what is counted.
    virtual void add(const char* subject, const char* figure, long long value) = 0;
};

}  // namespace qel
