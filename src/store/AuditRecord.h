#pragma once

#include <cstddef>

#include "qelCore/Item.h"

/// The shapes of keys and values in queues and central logs: their one home. They lie on disk and are kept for good.
namespace qel::record {

/// The second integer of a central key, the origin checksum, is never below or above these.
constexpr long long lowestOrigin = 0;
constexpr long long highestOrigin = 4294967295;

/// The key of an event in a queue: path, time.
Item queueKey(const Item& path, long long time);

/// The key of a record in a central log: path, [time, origin].
Item centralKey(const Item& path, long long time, long long origin);

/// A key before all central keys of `time`, whatever their origin, and behind all of earlier times.
Item centralKeyBeforeAll(const Item& path, long long time);

/// The seed of the origin checksum, and no inversion at its end: pseudonyms and keys depend on it.
constexpr unsigned originSeed = 0xFFFFFFFFU;

/// The origin checksum: the CRC-32C register over the two 32-byte identity blocks of a peer.
unsigned originChecksum(const unsigned char* userBlock, const unsigned char* deviceBlock);

/// The first two elements of every record of a central log: [user, device], or, where the log is anonymous,
/// [the checksum in decimal, "***"].
Item origin(const char* user, const char* device, unsigned checksum, bool anonymous);

/// The record of a central log: the origin followed by the elements of the event.
Item centralValue(const Item& origin, const Item& event);

/// Whether a stored value begins with two strings, as every record of a central log does.
bool hasOrigin(ConstByteSpan value);

/// Reads the time from the last element of a queue's key. False when that is not an integer.
bool readQueueTime(const Item& key, long long& time);
/// The same for a key one element below a path of `pathSize` bytes: what a walk over a whole queue can afford.
bool readQueueTime(const Item& key, std::size_t pathSize, long long& time);

/// Reads both integers from the last element of a central key. False when it has another shape; `time` then holds what
/// could be read of it, or stays as it was.
bool readCentralKey(const Item& key, long long& time, long long& origin);

}  // namespace qel::record
