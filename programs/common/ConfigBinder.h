#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qel::programs {

/// Walks the keys of a configuration record: each record declares every key once, and reading, printing and
/// the list of known keys are different walkers over that one declaration. Used by one thread.
class ConfigBinder {
  public:
    virtual ~ConfigBinder() = default;

    /// The keys that follow belong to [name]; `help` is one sentence about the section.
    virtual void section(const char* name, const char* help) = 0;
    virtual void text(const char* key, std::string& value, const char* help) = 0;
    /// A file or folder, relative to the configuration's folder.
    virtual void path(const char* key, std::string& value, const char* help) = 0;
    /// One of the words in `choices`.
    virtual void choice(const char* key, std::string& value, const std::vector<std::string>& choices,
                        const char* help) = 0;
    /// Both bounds included.
    virtual void integer(const char* key, std::int64_t& value, std::int64_t lowest, std::int64_t highest,
                         const char* help) = 0;
    virtual void flag(const char* key, bool& value, const char* help) = 0;
    /// An array of strings; a single string stands for an array of one.
    virtual void list(const char* key, std::vector<std::string>& value, const char* help) = 0;
    /// "HOST:PORT", or nothing when `mayBeEmpty`.
    virtual void endpoint(const char* key, std::string& value, bool mayBeEmpty, const char* help) = 0;
    /// One "HOST:PORT" or an array of them.
    virtual void endpoints(const char* key, std::vector<std::string>& value, const char* help) = 0;
};

/// Splits "HOST:PORT" ("[::1]:7443" for IPv6 addresses); false when it is neither.
bool splitEndpoint(const std::string& text, std::string& host, std::uint16_t& port);

}  // namespace qel::programs
