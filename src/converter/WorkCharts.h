#pragma once

#include <cstdint>
#include <vector>

#include "converter/Calendar.h"
#include "converter/LineView.h"
#include "converter/UsageCounts.h"
#include "converter/UserDirectory.h"

namespace qel {

/// What was done in the viewer: viewing, queries, retrieval, chat and photo documentation, from the dated
/// lines of the interaction log. At most one kind of event matches a line.
class WorkCharts {
  public:
    WorkCharts(UsageCounts& counts, const UserDirectory& users, bool withPhotodocDetails)
        : counts_(counts), users_(users), withPhotodocDetails_(withPhotodocDetails) {}

    void count(const LineView& line, std::uint32_t name, const Day& day);
    /// Logs how many numbers of photos were dropped, if any.
    void finish() const;

  private:
    void countRetrieve(const LineView& line, const Day& day);
    void countChatMessage(const LineView& line, const Day& day);
    void countPhotodoc(std::uint32_t name, const Day& day);
    void countAssignedPhotos(const LineView& line, const Day& day);
    void dropPhotoCount(std::string_view text);
    int photodocUser(std::uint32_t name);

    UsageCounts& counts_;
    const UserDirectory& users_;
    bool withPhotodocDetails_;
    std::vector<int> photodocSeries_;  // by name, plus one; 0 while the user has none
    std::uint64_t droppedPhotoCounts_ = 0;
};

}  // namespace qel
