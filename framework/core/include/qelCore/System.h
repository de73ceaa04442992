#pragma once

#include <memory>

#include "qelCore/Export.h"

namespace qel {

/// A point of time: microseconds since 1970-01-01T00:00:00 UTC, leap seconds not counted. Stored in keys, so
/// for good.
using UTCDateTime = long long;

constexpr UTCDateTime microsecondsPerSecond = 1'000'000;

/// Tells the present. A test hands its own to `System::setClock`.
class QELCORE_EXPORT Clock {
  public:
    virtual ~Clock();
    /// Called from any thread; may step back.
    virtual UTCDateTime now() = 0;
};

/// Gives out times that no process gives out again. An open item store installs one, so that times stay
/// unique across all processes that use the store, across restarts and clock steps.
class QELCORE_EXPORT UniqueTimeSource {
  public:
    virtual ~UniqueTimeSource();
    /// A time greater than every one given out before by this source, in any process, and not smaller than
    /// `atLeast`; `now` is the clock's present, which the result should stay near. Called under a lock, by
    /// one thread of this process at a time, and for every event: it must be quick and must not ask System
    /// for a time.
    virtual UTCDateTime next(UTCDateTime now, UTCDateTime atLeast) = 0;
};

/// The process's system object: its clock. Every operation may be called from any thread, also before other
/// static initialisers have run.
class QELCORE_EXPORT System {
  public:
    static const char* getStaticClassName() { return "System"; }
    static System& instance();

    /// The present.
    static UTCDateTime getUTCDateTime();

    /// The present, or the next free microsecond after it: strictly increasing in the process, whatever the
    /// clock does, and never the same in two processes while a unique time source of a common store is
    /// installed.
    static UTCDateTime getUTCDateTimeUnique();

    /// Replaces the clock; null takes the machine's again. Times already given out as unique stay behind.
    static void setClock(std::shared_ptr<Clock> clock);

    /// Replaces the source of unique times; null goes back to counting in the process alone. The first time
    /// from a new source is greater than all that this process has given out.
    static void setUniqueTimeSource(std::shared_ptr<UniqueTimeSource> source);
    static std::shared_ptr<UniqueTimeSource> getUniqueTimeSource();

  private:
    System() = default;
};

}  // namespace qel
