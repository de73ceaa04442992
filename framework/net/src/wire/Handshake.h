#pragma once

#include <string>

#include "wire/Frame.h"

namespace qel {

constexpr std::uint16_t oldestProtocolVersion = 1;
constexpr std::uint16_t newestProtocolVersion = 1;

/// The first frame of a client. Bytes behind the known ones are ignored: later versions may add to it.
struct Hello {
    std::uint16_t oldestVersion = oldestProtocolVersion;
    std::uint16_t newestVersion = newestProtocolVersion;
    std::uint32_t frameBytes = 0;
    std::uint32_t valueBytes = 0;
    std::uint32_t idleSeconds = 0;

    void write(std::string& out) const;
    /// False and a sentence when the payload is no hello.
    bool read(ConstByteSpan payload, std::string& error);
    /// The newest version that both ends speak; 0 and a sentence when there is none.
    std::uint16_t chooseVersion(std::string& error) const;
};

/// The answer of a service, likewise.
struct Welcome {
    std::uint16_t version = newestProtocolVersion;
    std::uint32_t frameBytes = 0;
    std::uint32_t valueBytes = 0;
    std::uint32_t idleSeconds = 0;

    void write(std::string& out) const;
    bool read(ConstByteSpan payload, std::string& error);
};

/// A client's wish for a session.
struct Open {
    std::uint32_t channel = 0;
    short sessionType = 0;
    std::string service;

    void write(std::string& out) const;
    bool read(ConstByteSpan payload, std::string& error);
};

}  // namespace qel
