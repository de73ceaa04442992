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
    enqueue(name, day, visit, series, seriesKind);
    // Series of one study are mostly looked at one after the other; the study is counted with the first.
    if (viewer.lastStudy.data() == nullptr || viewer.lastStudy != study)
        enqueue(name, day, visit, study, studyKind);
    viewer.lastStudy = study;
}

void AccessCharts::enqueue(std::uint32_t name, const Day& day, std::uint32_t visit,
                           std::string_view identifier, Kind kind) {
    // cppcheck-suppress unreadVariable ; it is handed on below
    const std::uint32_t hash = TextNumbers::hashOf(identifier);
    identifiers_.callSlot(hash);
    pending_.push_back({name, visit, day, identifier, kind, hash, 0, false, false});
    if (pending_.size() >= batchSize)
        countBatch();
}

void AccessCharts::countBatch() {
    for (const Pending& access : pending_)
        identifiers_.callEntry(access.hash);
    for (const Pending& access : pending_)
        identifiers_.callText(access.hash);
    bool arePlain = true;
    for (Pending& access : pending_) {
        access.isPlain = AccessKeys::isPlain(access.day.day, access.identifier);
        arePlain = arePlain && access.isPlain;
        access.low = lowHalf(identifiers_.numberOf(access.identifier, access.hash), access.kind);
        seen_.call(pairKey(access.visit, access.low));
    }
    if (!arePlain)
        separateKeys();
    for (Pending& access : pending_) {
        // The very same access again: no chart counts it twice.
        access.isNew = seen_.insert(pairKey(access.visit, access.low));
        if (access.isNew)
            callForSets(access);
    }
    for (const Pending& access : pending_)
        if (access.isNew)
            countNew(access);
    pending_.clear();
}

void AccessCharts::callForSets(const Pending& access) const {
    const Visit& visit = visits_[access.visit - 1];
    seenByUser_.call(pairKey(visit.ofUser, access.low));
    if (!keysMayMeet_)
        return;
    seenInMonth_.call(pairKey(visit.inMonth, access.low));
    for (const std::uint32_t group : visit.ofGroups)
        seenByGroup_.call(pairKey(group, access.low));
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
        viewer.lastStudy = {};
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
    if (visit.ofUser > visitOfUserPlace_.size())
        visitOfUserPlace_.push_back(static_cast<std::uint32_t>(visits_.size()));
    for (const std::uint32_t group : users_.groupsOf(name))
        visit.ofGroups.push_back(groupPlace(group, name, dayOfMonth));
    return visit;
}

std::uint32_t AccessCharts::groupPlace(std::uint32_t group, std::uint32_t name, std::uint32_t dayOfMonth) {
    const std::uint32_t prefix = keys_.prefix(groupPrefix(group, name));
    // Group "a-b" with user "c" joins to the same text as group "a" with user "b-c".
    if (ownerOfPrefix_.try_emplace(prefix, pairKey(group, name)).first->second != pairKey(group, name))
        separateKeys();
    return groupPlaces_.numberOf(placeKey(prefix, dayOfMonth));
}

void AccessCharts::separateKeys() {
    if (keysMayMeet_)
        return;
    keysMayMeet_ = true;
    seen_.forEach([&](std::uint64_t key) {
        // Called before the first access that is not plain is entered anywhere: these are all plain.
        seenInMonth_.insert(pairKey(visits_[highOf(key) - 1].inMonth, lowOf(key)));
    });
    seenByUser_.forEach([&](std::uint64_t key) {
        for (const std::uint32_t place : visits_[visitOfUserPlace_[highOf(key) - 1]].ofGroups)
            seenByGroup_.insert(pairKey(place, lowOf(key)));
    });
}

void AccessCharts::countNew(const Pending& access) {
    if (access.kind == seriesKind)
        counts_.viewedPerUserPerMonth.increaseByOne(access.day.month, access.day.year,
                                                    viewers_[access.name].series);
    if (access.isPlain)
        countPlain(access);
    else
        countJoined(access);
}

void AccessCharts::countPlain(const Pending& access) {
    const Visit& visit = visits_[access.visit - 1];
    if (!keysMayMeet_ || seenInMonth_.insert(pairKey(visit.inMonth, access.low)))
        counts_.viewedPerMonth.increaseByOne(access.day.month, access.day.year,
                                             static_cast<int>(access.kind));
    const bool isNewToUser = seenByUser_.insert(pairKey(visit.ofUser, access.low));
    if (isNewToUser)
        ++viewers_[access.name].totals[access.kind];
    if (isNewToUser || keysMayMeet_)
        countForGroups(access, visit);
}

void AccessCharts::countForGroups(const Pending& access, const Visit& visit) {
    const std::vector<std::uint32_t>& groups = users_.groupsOf(access.name);
    for (std::size_t i = 0; i < groups.size(); ++i)
        if (!keysMayMeet_ || seenByGroup_.insert(pairKey(visit.ofGroups[i], access.low)))
            countForGroup(groups[i], access.kind);
}

void AccessCharts::countJoined(const Pending& access) {
    const Day& day = access.day;
    const std::string user(users_.name(access.name));
    AccessKeys::Key key = keys_.keyOf(user, day.day, access.identifier);
    const std::uint32_t inMonth =
        monthPlaces_.numberOf(placeKey(key.prefix, joinedDays_.numberOf(day.month, day.year, key.day)));
    if (seenInMonth_.insert(pairKey(inMonth, lowHalf(key.identifier, access.kind))))
        counts_.viewedPerMonth.increaseByOne(day.month, day.year, static_cast<int>(access.kind));

    key = keys_.keyOf(user + "-", day.day, access.identifier);
    const std::uint32_t ofUser =
        userPlaces_.numberOf(placeKey(key.prefix, static_cast<std::uint32_t>(key.day)));
    if (seenByUser_.insert(pairKey(ofUser, lowHalf(key.identifier, access.kind))))
        ++viewers_[access.name].totals[access.kind];

    for (const std::uint32_t group : users_.groupsOf(access.name)) {
        key = keys_.keyOf(groupPrefix(group, access.name), day.day, access.identifier);
        const std::uint32_t ofGroup =
            groupPlaces_.numberOf(placeKey(key.prefix, static_cast<std::uint32_t>(key.day)));
        if (seenByGroup_.insert(pairKey(ofGroup, lowHalf(key.identifier, access.kind))))
            countForGroup(group, access.kind);
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
    countBatch();
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
