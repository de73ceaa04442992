#include "storage/PostgresCursor.h"

#include <algorithm>

#include "storage/PostgresEngine.h"

namespace qel::storage {

namespace {

// A look at one place wants few entries; a walk soon reads thousands at a time.
constexpr std::size_t firstPage = 8;
constexpr std::size_t largestPage = 4096;
constexpr std::size_t growth = 4;
// Pages of large values have fewer entries.
constexpr std::size_t pageBytes = std::size_t{4} << 20;

}  // namespace

Refreshed PostgresCursor::refresh() {
    touched.store(true, std::memory_order_relaxed);
    if (steady_) {
        live_ = true;
        return Refreshed::ok;
    }
    if (live_ && PostgresPage::Clock::now() - page_.readAt <= maxAge) {
        engine_.tellWritten(page_);
        if (positioned_ && page_.wasWritten(key_))
            forget();
        return Refreshed::ok;
    }
    forget();
    live_ = true;
    return Refreshed::ok;
}

void PostgresCursor::forget() {
    if (positioned_)
        resumeKey_.assign(key_);
    positioned_ = false;
    page_.clear();
    page_.readAt = PostgresPage::Clock::now();
    page_.commits = engine_.commitCount();
}

void PostgresCursor::rest() {
    if (steady_)
        return;
    positioned_ = false;
    page_ = {};
    live_ = false;
}

void PostgresCursor::retire() {
    positioned_ = false;
    page_ = {};
    live_ = false;
    snapshot_.connection.reset();
    closed = true;
}

bool PostgresCursor::standAt(std::size_t row) {
    row_ = row;
    key_ = page_.key(row);
    value_ = page_.value(row);
    positioned_ = true;
    return true;
}

bool PostgresCursor::standNowhere() {
    positioned_ = false;
    return false;
}

void PostgresCursor::chooseSize(Bytes key) {
    if (pageRows_ == 0 || key != resumeKey_)
        pageRows_ = firstPage;
}

void PostgresCursor::grow() {
    pageRows_ = std::min(std::max(pageRows_, firstPage) * growth, largestPage);
}

std::size_t PostgresCursor::rowsToRead() const {
    return meanBytes_ == 0 ? pageRows_ : std::clamp<std::size_t>(pageBytes / meanBytes_, 1, pageRows_);
}

bool PostgresCursor::readPage(const std::string& bound, bool forward) {
    return steady_ ? engine_.readPage(snapshot_, page_, bound, rowsToRead(), forward)
                   : engine_.readPage(page_, bound, rowsToRead(), forward);
}

bool PostgresCursor::readFrom(Bytes key) {
    const std::string from(key);
    if (!readPage(from, true))
        return standNowhere();
    if (page_.size() == 0)
        return standNowhere();
    meanBytes_ = page_.bytes() / page_.size();
    return standAt(0);
}

bool PostgresCursor::readBefore(Bytes key) {
    const std::string before(key);
    if (!readPage(before, false))
        return standNowhere();
    if (page_.size() == 0)
        return standNowhere();
    meanBytes_ = page_.bytes() / page_.size();
    return standAt(page_.size() - 1);
}

bool PostgresCursor::seek(Bytes key) {
    if (page_.knows(key) && !page_.isStale()) {
        const std::size_t row = page_.lowerBound(key);
        if (row < page_.size())
            return standAt(row);
        if (page_.isEndless())
            return standNowhere();
    }
    chooseSize(key);
    return readFrom(key);
}

bool PostgresCursor::seekBefore(Bytes key) {
    if (page_.knowsBefore(key) && !page_.isStale()) {
        const std::size_t row = page_.lowerBound(key);
        if (row > 0)
            return standAt(row - 1);
        if (page_.isFromStart())
            return standNowhere();
    }
    chooseSize(key);
    return readBefore(key);
}

bool PostgresCursor::stepFurther() {
    if (page_.isStale())
        return readFrom(std::string(key_) + '\0');
    if (row_ + 1 < page_.size())
        return standAt(row_ + 1);
    if (page_.isEndless())
        return standNowhere();
    grow();
    if (!readFrom(page_.high()))
        return false;
    // A walk through a snapshot: the database reads on while this page is used.
    if (steady_ && !page_.isEndless())
        engine_.askAhead(snapshot_, std::string(page_.high()), rowsToRead());
    return true;
}

bool PostgresCursor::stepBack() {
    if (page_.isStale())
        return readBefore(key_);
    if (row_ > 0)
        return standAt(row_ - 1);
    if (page_.isFromStart())
        return standNowhere();
    grow();
    return readBefore(page_.low());
}

}  // namespace qel::storage
