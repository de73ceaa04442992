#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "converter/AccessKeys.h"
#include "converter/Calendar.h"
#include "converter/UsageCounts.h"
#include "converter/UserDirectory.h"

namespace qel {

/// What was looked at: series and studies per month, per user, per group and per user and month, from the
/// "DataAccess" lines of the audit log.
///
/// Four charts have once-rules over user, day and identifier. As long as no two of their joined keys can meet, two
/// sets decide all four: an access that is new on its day is new in its month, and one that is new to its user is new
/// to each group of the user. The first access or group whose key might meet another one makes the remaining two
/// sets, out of the first two, and from then on each chart asks its own.
class AccessCharts {
  public:
    AccessCharts(UsageCounts& counts, UserDirectory& users) : counts_(counts), users_(users) {}

    void count(std::uint32_t name, const Day& day, std::string_view study, std::string_view series);
    /// Hands over what was gathered per user and group.
    void finish();

  private:
    enum Kind : std::uint32_t { seriesKind = 0, studyKind = 1 };
    static constexpr std::size_t kinds = 2;
    using Totals = std::array<std::int32_t, kinds>;

    /// One user on one day: the first halves of the once-keys of what is looked at then.
    struct Visit {
        std::uint32_t inMonth = 0;
        std::uint32_t ofUser = 0;
        std::vector<std::uint32_t> ofGroups;  // in the order of the user's groups
    };
    struct Viewer {
        int series = -1;  ///< of chart 9; negative while the user has viewed nothing
        std::uint32_t lastDay = 0;
        std::uint32_t lastVisit = 0;
        std::string_view lastStudy;  ///< of the last visit
        Totals totals{};
    };

    /// One identifier of an access that waits to be counted. They are worked off in batches, step by step, since
    /// a step of a single one would mostly wait for memory.
    struct Pending {
        std::uint32_t name;
        std::uint32_t visit;
        Day day;
        std::string_view identifier;
        Kind kind;
        std::uint32_t hash;
        std::uint32_t low;  ///< second half of the once-keys
        bool isPlain;
        bool isNew;
    };
    static constexpr std::size_t batchSize = 128;

    void enqueue(std::uint32_t name, const Day& day, std::uint32_t visit, std::string_view identifier,
                 Kind kind);
    void countBatch();
    void callForSets(const Pending& access) const;
    void countNew(const Pending& access);

    Viewer& viewerOf(std::uint32_t name);
    std::uint32_t visitOf(Viewer& viewer, std::uint32_t name, const Day& day);
    Visit makeVisit(std::uint32_t name, const Day& day);
    void countPlain(const Pending& access);
    void countForGroups(const Pending& access, const Visit& visit);
    void separateKeys();
    std::uint32_t groupPlace(std::uint32_t group, std::uint32_t name, std::uint32_t dayOfMonth);
    void countJoined(const Pending& access);
    std::string groupPrefix(std::uint32_t group, std::uint32_t name) const;
    void countForGroup(std::uint32_t group, Kind kind);

    UsageCounts& counts_;
    UserDirectory& users_;
    TextNumbers identifiers_;
    AccessKeys keys_{identifiers_};
    std::vector<Pending> pending_;
    Calendar joinedDays_;
    KeyNumbers visitNumbers_;
    std::vector<Visit> visits_;
    std::vector<Viewer> viewers_;  // by name
    std::vector<Totals> groups_;   // by group
    KeyNumbers monthPlaces_;
    KeyNumbers userPlaces_;
    KeyNumbers groupPlaces_;
    OnceSet seen_;  // user, day and identifier, as they come
    OnceSet seenByUser_;
    bool keysMayMeet_ = false;  // only then the two below are kept
    OnceSet seenInMonth_;
    OnceSet seenByGroup_;
    std::vector<std::uint32_t> visitOfUserPlace_;                     // one of the visits that have the place
    std::unordered_map<std::uint32_t, std::uint64_t> ownerOfPrefix_;  // group and user that join to it
};

}  // namespace qel
