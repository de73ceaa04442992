#pragma once

#include <string>

namespace qel::programs {

/// The folder of a report page and the three files that it loads. The library writes into a folder of its own
/// inside and tells nothing of failed writes; only what proves whole is then moved to its place, so that an older
/// report stays as it was until a new one is complete. The destructor removes what was not published.
class ReportFolder {
  public:
    /// Makes the folder when it is missing. Throws Failure(73) when that cannot be.
    explicit ReportFolder(const std::string& folder);
    ~ReportFolder();
    ReportFolder(const ReportFolder&) = delete;
    ReportFolder& operator=(const ReportFolder&) = delete;

    /// Where the library shall write.
    const std::string& workPath() const { return work_; }

    /// Looks whether the page ends in its footer and its three files have the bytes of their resources, and moves
    /// all four into the folder. Returns the page's path. Throws Failure(74) with what is missing and why.
    std::string publish(const std::string& page) const;

  private:
    void requireWholePage(const std::string& page) const;
    void requireResource(const std::string& resource, const std::string& file) const;
    [[noreturn]] void reportLoss(const std::string& file) const;

    std::string folder_;
    std::string work_;
};

}  // namespace qel::programs
