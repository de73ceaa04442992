#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <vector>

#include "support/Child.h"

/// The floor of forwarding: nothing but TLS 1.3 over loopback with a window of 64 numbered events, and a file that they
/// are appended to, one by one, and that is flushed before their acknowledgements leave, each with its number. Whatever
/// can be read without blocking, from all connections, shares one flush; what goes one way goes in one TLS record.
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
