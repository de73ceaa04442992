#include "converter/AccessCharts.h"

namespace qel {

namespace {

/// The second half of a once-key: an identifier of one kind.
std::uint32_t lowHalf(std::uint32_t identifier, std::uint32_t kind) {
    return identifier << 1 | kind;
}

std::uint64_t placeKey(std::uint32_t prefix, std::uint32_t day) {
    return pairKey(prefix, day);
}

}  // namespace

void AccessCharts::count(std::uint32_t name, const Day& day, std::string_view study,
                         std::string_view series) {
    Viewer& viewer = viewerOf(name);
    const std::uint32_t visit = visitOf(viewer, name, day);
    countIdentifier(viewer, name, day, visit, series, seriesKind);
    countIdentifier(viewer, name, day, visit, study, studyKind);
}

AccessCharts::Viewer& AccessCharts::viewerOf(std::uint32_t name) {
    if (name >= viewers_.size())
        viewers_.resize(users_.nameCount());
    Viewer& viewer = viewers_[name];
    if (viewer.series < 0) {
        viewer.series = static_cast<int>(counts_.viewingUsers.size());
        counts_.viewingUsers.push_back(String(users_.name(name)));
    }
    return viewer;
}

std::uint32_t AccessCharts::visitOf(Viewer& viewer, std::uint32_t name, const Day& day) {
    if (viewer.lastDay != day.number) {
        viewer.lastDay = day.number;
        viewer.lastVisit = visitNumbers_.numberOf(pairKey(name, day.number));
        if (viewer.lastVisit > visits_.size())
            visits_.push_back(makeVisit(name, day));
    }
    return viewer.lastVisit;
}

AccessCharts::Visit AccessCharts::makeVisit(std::uint32_t name, const Day& day) {
    const auto dayOfMonth = static_cast<std::uint32_t>(day.day);
    const std::string user(users_.name(name));
    Visit visit;
    visit.inMonth = monthPlaces_.numberOf(
        placeKey(keys_.prefix(user), joinedDays_.numberOf(day.month, day.year, day.day)));
    visit.ofUser = userPlaces_.numberOf(placeKey(keys_.prefix(user + "-"), dayOfMonth));
    for (const std::uint32_t group : users_.groupsOf(name))
        visit.ofGroups.push_back(
            groupPlaces_.numberOf(placeKey(keys_.prefix(groupPrefix(group, name)), dayOfMonth)));
    return visit;
}

void AccessCharts::countIdentifier(Viewer& viewer, std::uint32_t name, const Day& day, std::uint32_t visit,
                                   std::string_view identifier, Kind kind) {
    const std::uint32_t low = lowHalf(identifiers_.numberOf(identifier), kind);
    if (!seen_.insert(pairKey(visit, low)))
        return;  // the very same access: no chart counts it twice
    if (kind == seriesKind)
        counts_.viewedPerUserPerMonth.increaseByOne(day.month, day.year, viewer.series);
    if (AccessKeys::isPlain(day.day, identifier))
        countPlain(viewer, name, day, visits_[visit - 1], low, kind);
    else
        countJoined(viewer, name, day, identifier, kind);
}

void AccessCharts::countPlain(Viewer& viewer, std::uint32_t name, const Day& day, const Visit& visit,
                              std::uint32_t low, Kind kind) {
    if (seenInMonth_.insert(pairKey(visit.inMonth, low)))
        counts_.viewedPerMonth.increaseByOne(day.month, day.year, static_cast<int>(kind));
    if (seenByUser_.insert(pairKey(visit.ofUser, low)))
        ++viewer.totals[kind];
    const std::vector<std::uint32_t>& groups = users_.groupsOf(name);
    for (std::size_t i = 0; i < groups.size(); ++i)
        if (seenByGroup_.insert(pairKey(visit.ofGroups[i], low)))
            countForGroup(groups[i], kind);
}

void AccessCharts::countJoined(Viewer& viewer, std::uint32_t name, const Day& day,
                               std::string_view identifier, Kind kind) {
    const std::string user(users_.name(name));
    AccessKeys::Key key = keys_.keyOf(user, day.day, identifier);
    const std::uint32_t inMonth =
        monthPlaces_.numberOf(placeKey(key.prefix, joinedDays_.numberOf(day.month, day.year, key.day)));
    if (seenInMonth_.insert(pairKey(inMonth, lowHalf(key.identifier, kind))))
        counts_.viewedPerMonth.increaseByOne(day.month, day.year, static_cast<int>(kind));

    key = keys_.keyOf(user + "-", day.day, identifier);
    const std::uint32_t ofUser =
        userPlaces_.numberOf(placeKey(key.prefix, static_cast<std::uint32_t>(key.day)));
    if (seenByUser_.insert(pairKey(ofUser, lowHalf(key.identifier, kind))))
        ++viewer.totals[kind];

    for (const std::uint32_t group : users_.groupsOf(name)) {
        key = keys_.keyOf(groupPrefix(group, name), day.day, identifier);
        const std::uint32_t ofGroup =
            groupPlaces_.numberOf(placeKey(key.prefix, static_cast<std::uint32_t>(key.day)));
        if (seenByGroup_.insert(pairKey(ofGroup, lowHalf(key.identifier, kind))))
            countForGroup(group, kind);
    }
}

std::string AccessCharts::groupPrefix(std::uint32_t group, std::uint32_t name) const {
    return std::string(users_.group(group)) + "-" + std::string(users_.name(name));
}

void AccessCharts::countForGroup(std::uint32_t group, Kind kind) {
    if (group >= groups_.size())
        groups_.resize(users_.groupCount());
    ++groups_[group][kind];
}

void AccessCharts::finish() {
    for (int kind = 0; kind < static_cast<int>(kinds); ++kind) {
        const auto at = static_cast<std::size_t>(kind);
        for (std::uint32_t name = 0; name < viewers_.size(); ++name)
            counts_.viewedPerUser.increaseBy(String(users_.name(name)).c_str(), kind,
                                             viewers_[name].totals[at]);
        for (std::uint32_t group = 0; group < groups_.size(); ++group)
            counts_.viewedPerGroup.increaseBy(String(users_.group(group)).c_str(), kind, groups_[group][at]);
    }
}

}  // namespace qel
