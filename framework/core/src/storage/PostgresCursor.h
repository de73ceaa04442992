#pragma once

#include <memory>
#include <string>

#include "storage/Engine.h"
#include "storage/PostgresConnection.h"
#include "storage/PostgresPage.h"

namespace qel::storage {

class PostgresEngine;

/// A connection that stays in one transaction, so that all it reads is of one moment.
struct PostgresSnapshot {
    std::unique_ptr<PostgresConnection> connection;
    /// Gone for good: another would be of another moment.
    bool lost = false;
    /// The page that is under way already: so many entries from there upwards; none when that is 0.
    std::string aheadFrom;
    std::size_t aheadRows = 0;
};

/// A place in the database with a page of entries around it, read ahead: small after a jump, larger from page to page of
/// a walk. What others commit is seen within `maxAge`, what this process commits at once; where
/// it keeps to a snapshot, neither ever.
class PostgresCursor final : public EngineCursor {
  public:
    static constexpr std::chrono::milliseconds maxAge{200};

    enum class Keeps { newest, snapshot };

    explicit PostgresCursor(PostgresEngine& engine, Keeps keeps = Keeps::newest)
        : engine_(engine), steady_(keeps == Keeps::snapshot) {}

    Refreshed refresh() override;
    void rest() override;
    void retire() override;
    bool isLost() const override { return snapshot_.lost; }
    bool seek(Bytes key) override;
    bool seekBefore(Bytes key) override;
    bool stepBack() override;

  private:
    bool stepFurther() override;
    bool standAt(std::size_t row);
    bool standNowhere();
    bool readFrom(Bytes key);
    bool readBefore(Bytes key);
    void forget();
    void chooseSize(Bytes key);
    void grow();
    std::size_t rowsToRead() const;

    bool readPage(const std::string& bound, bool forward);

    PostgresEngine& engine_;
    const bool steady_;
    PostgresSnapshot snapshot_;
    PostgresPage page_;
    std::size_t row_ = 0;
    // Where a walk stood when its page was given up.
    std::string resumeKey_;
    std::size_t pageRows_ = 0;
    std::size_t meanBytes_ = 0;
};

}  // namespace qel::storage
