#pragma once

#include <cstdint>
#include <string_view>

#include "converter/Calendar.h"
#include "converter/UsageCounts.h"

namespace qel {

/// What was passed on, by kind of target: every share, and every shared study once a month, from the
/// "DataShare" lines of the audit log.
class SharingCharts {
  public:
    explicit SharingCharts(UsageCounts& counts) : counts_(counts) {}

    void count(const Day& day, std::uint32_t month, std::string_view study, std::string_view target);

  private:
    UsageCounts& counts_;
    TextNumbers studies_;
    OnceSet monthsOfStudies_;
};

}  // namespace qel
