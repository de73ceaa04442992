#pragma once

#include <string>
#include <vector>

namespace qel::programs {

/// One thing that was looked at. Plain record.
struct Finding {
    std::string check;  // "certificate", "clock", …
    std::string cause;  // one sentence; empty when all is well
    std::string cure;   // what to do, one sentence
};

/// What the doctor found, in the order of looking. Used by one thread.
class Diagnosis {
  public:
    void well(const std::string& check) { findings_.push_back({check, {}, {}}); }
    void fault(const std::string& check, const std::string& cause, const std::string& cure) {
        findings_.push_back({check, cause, cure});
    }
    /// A fault when `cause` says something, otherwise well.
    void judge(const std::string& check, const std::string& cause, const std::string& cure) {
        findings_.push_back({check, cause, cause.empty() ? std::string() : cure});
    }

    const std::vector<Finding>& findings() const { return findings_; }
    std::size_t faults() const;

  private:
    std::vector<Finding> findings_;
};

}  // namespace qel::programs
