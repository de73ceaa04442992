#include "doctor/Diagnosis.h"

#include <algorithm>

namespace qel::programs {

std::size_t Diagnosis::faults() const {
    return static_cast<std::size_t>(std::count_if(findings_.begin(), findings_.end(),
                                                  [](const Finding& one) { return !one.cause.empty(); }));
}

}  // namespace qel::programs
