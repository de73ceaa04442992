#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <vector>

#include "support/Child.h"

/// The floor of forwarding: nothing but TLS 1.3 over loopback with a window of 64 numbered events in flight, and a file
/// that each burst, which is what could be read without blocking, is appended to and that is flushed before the burst's
/// acknowledgements leave. One thread per connection; bursts that come while a flush is running share the next. What goes
/// one way goes in one TLS record.
namespace qel::bench {

/// Bytes of an event on the wire and in the file: its number and its content.
constexpr std::size_t floorEvent = 150;
/// Bytes of an acknowledgement, which begins with the number.
constexpr std::size_t floorAck = 24;
constexpr std::size_t floorWindow = 64;

/// Accepts `connections` connections on a free loopback port, says the port, and serves until all have closed.
void serveFloor(const Child::Line& line, int connections, const std::string& certificate,
                const std::string& key, const std::string& file);

/// Connects, says "ready", waits for a line, sends `events` events and says "done" when all are acknowledged.
void sendFloor(const Child::Line& line, int port, long events);

}  // namespace qel::bench
