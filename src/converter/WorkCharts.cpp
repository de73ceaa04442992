#include "converter/WorkCharts.h"

#include <algorithm>
#include <iterator>
#include <string>

#include "converter/NumberScan.h"
#include "qelCore/logging/MessageStream.h"

namespace qel {

namespace {

/// The chart of photo counts has a series for every number up to the largest: without a bound one line of a
/// log could ask for more memory than there is. Nobody assigns ten thousand photos to one study.
constexpr int largestPhotoCount = 10000;

/// How many dropped photo counts are logged one by one.
constexpr std::uint64_t droppedCountsShown = 5;

enum class Work { none, viewing, query, retrieve, chat, photodocDone, photosAssigned, photosViewed, tagging };

struct NamedWork {
    std::string_view event;
    Work work;
};

constexpr NamedWork namedWork[] = {
    {"SeriesOpened", Work::viewing},          {"ViewPreviousSeries", Work::viewing},
    {"ViewNextSeries", Work::viewing},        {"ApplicationPacsSearch", Work::query},
    {"QRRetrieve", Work::retrieve},           {"ChatSendMessage", Work::chat},
    {"PDConfirmDone", Work::photodocDone},    {"PDReviewAssignPhotos", Work::photosAssigned},
    {"PDReviewOpenView", Work::photosViewed}, {"PDTaggingUsed", Work::tagging},
};

constexpr std::string_view shareKinds[] = {"Series", "Study"};
constexpr std::string_view messageKinds[] = {"Audio", "Photo", "Text"};

Work workOf(std::string_view event) {
    for (const NamedWork& named : namedWork)
        if (named.event == event)
            return named.work;
    return Work::none;
}

template <std::size_t size>
bool isOneOf(const std::string_view (&kinds)[size], std::string_view text) {
    return std::find(std::begin(kinds), std::end(kinds), text) != std::end(kinds);
}

}  // namespace

void WorkCharts::count(const LineView& line, std::uint32_t name, const Day& day) {
    switch (workOf(line.event)) {
        case Work::viewing:
            return counts_.seriesViewed.increaseByOne(day.month, day.year, 0);
        case Work::query:
            return counts_.queries.increaseByOne(day.month, day.year, 0);
        case Work::retrieve:
            return countRetrieve(line, day);
        case Work::chat:
            return countChatMessage(line, day);
        case Work::photodocDone:
            return countPhotodoc(name, day);
        case Work::photosAssigned:
            return countAssignedPhotos(line, day);
        case Work::photosViewed:
            if (withPhotodocDetails_)
                counts_.photosViewed.increaseByOne(day.month, day.year, 0);
            return;
        case Work::tagging:
            if (withPhotodocDetails_)
                counts_.taggingUsed.increaseByOne(day.month, day.year, 0);
            return;
        case Work::none:
            return;
    }
}

void WorkCharts::countRetrieve(const LineView& line, const Day& day) {
    const std::string_view what = line.param(0);
    if (what == "Series")
        counts_.retrieved.increaseByOne(day.month, day.year, 0);
    else if (what == "Study")
        counts_.retrieved.increaseByOne(day.month, day.year, 1);
}

void WorkCharts::countChatMessage(const LineView& line, const Day& day) {
    const std::string_view sent = line.param(1);
    if (isOneOf(shareKinds, sent))
        counts_.chatMessages.increaseByOne(day.month, day.year, 1);
    else if (isOneOf(messageKinds, sent))
        counts_.chatMessages.increaseByOne(day.month, day.year, 0);
}

void WorkCharts::countPhotodoc(std::uint32_t name, const Day& day) {
    counts_.photodocs.increaseByOne(day.month, day.year, 0);
    counts_.photodocsPerUser.increaseByOne(day.month, day.year, photodocUser(name));
}

int WorkCharts::photodocUser(std::uint32_t name) {
    if (name >= photodocSeries_.size())
        photodocSeries_.resize(users_.nameCount(), 0);
    if (photodocSeries_[name] == 0) {
        counts_.photodocUsers.push_back(String(users_.name(name)));
        photodocSeries_[name] = static_cast<int>(counts_.photodocUsers.size());
    }
    return photodocSeries_[name] - 1;
}

void WorkCharts::countAssignedPhotos(const LineView& line, const Day& day) {
    if (!withPhotodocDetails_ || !line.hasParam(0))
        return;
    int photos = 0;
    NumberScan scan(line.param(0));
    scan.number(photos);
    if (photos < 0)
        return;
    if (photos > largestPhotoCount)
        return dropPhotoCount(line.param(0));
    while (counts_.photoCountTexts.size() <= static_cast<std::size_t>(photos))
        counts_.photoCountTexts.push_back(std::to_string(counts_.photoCountTexts.size()));
    counts_.photosAssigned.increaseByOne(day.month, day.year, photos);
}

void WorkCharts::dropPhotoCount(std::string_view text) {
    if (++droppedPhotoCounts_ <= droppedCountsShown)
        logging::MessageStream(3, 2) << "number of assigned photos not counted, at most " << largestPhotoCount
                                     << " are: " << text.substr(0, 40);
}

void WorkCharts::finish() const {
    if (droppedPhotoCounts_ > droppedCountsShown)
        logging::MessageStream(3, 2) << "numbers of assigned photos not counted in all: "
                                     << droppedPhotoCounts_;
}

}  // namespace qel
