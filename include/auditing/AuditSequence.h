#pragma once

#include "auditing/Export.h"
#include "qelCore/Item.h"

namespace qel {

/// A handle on one sequence of events, kept in time order in the process's current item store under a path.
/// It owns the path only, never the events, and is cheap to copy. One handle may be used from several threads
/// as long as none of them changes its path; appends from any number of threads, handles and processes never
/// meet on one key.
///
/// An event is an item [name, parameter, …]; its key is the path followed by its time (microseconds since
/// 1970-01-01T00:00:00Z, unique in the store). A handle with an empty path is a null sequence: every
/// operation on it does nothing.
class QELAUDITING_EXPORT AuditSequence {
  public:
    /// How many events one call of deleteEventsBefore removes at most, so that trimming never holds up a
    /// thread that serves users; whoever wants more calls again.
    static constexpr int deleteBudget = 64;

    /// A null sequence.
    constexpr AuditSequence() noexcept = default;

    AuditSequence(const AuditSequence& other);
    AuditSequence(AuditSequence&& other) noexcept;
    AuditSequence& operator=(const AuditSequence& other);
    AuditSequence& operator=(AuditSequence&& other) noexcept;

    /// Stored events stay.
    ~AuditSequence();

    /// Takes a copy of `path`; an empty one makes this a null sequence. Its own path may be passed.
    void setPath(const Item& path);

    const Item& getPath() const { return path_; }

    /// Makes this a null sequence; stored events stay and are visible again once the path is set again.
    void clearPath();

    /// True when the path holds no encoded data.
    bool isNullSequence() const;

    /// Stores `event` as it is, whatever its shape, under the path and the present time. Durable on return or
    /// soon after, as the store was opened; what the store refuses (too large, disk full) is logged there and
    /// not reported here: a program that must know asks ItemStore::flush.
    void append(const Item& event) const;

    /// Removes up to deleteBudget events older than `time` (not included), the newest of them first. Events
    /// of a central log, whose keys end in a nested item, are never touched.
    void deleteEventsBefore(long long time) const;

    /// The sequence that application code appends interaction events to: the registered one, or a built-in
    /// null sequence (usable before any static initialiser has run, and until the library is unloaded) when
    /// there is none.
    static AuditSequence& Interaction();

    /// Registers `sequence`, which stays the caller's and must live while it is registered. A plain pointer
    /// store: call it before other threads use Interaction(). Registering again replaces; there is no way to
    /// unregister.
    static void setInteraction(AuditSequence& sequence);

    static const char* getStaticClassName();

  private:
    static AuditSequence default_;
    static AuditSequence* interaction_;

    Item path_;
};

}  // namespace qel
