#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qel::storage {

/// How the database is reached, made from a store URL. Besides what the database's own client library takes, a URL may
/// hold `password_file=PATH`, `writers=N`, `allow_plain=1` and `allow_unsafe_commit=1`.
class PostgresSettings {
  public:
    static constexpr unsigned mostWriters = 16;

    enum class Files { read, leave };

    /// False with a sentence: no such URL, a password in it, a remote host without encryption, an unreadable file.
    bool parse(std::string_view url, std::string& reason) { return parse(url, Files::read, reason); }
    /// The same, without looking at the password's file where `files` says so.
    bool parse(std::string_view url, Files files, std::string& reason);

    static bool isUrl(std::string_view url);

    /// Keywords and values for a connection; the password is among them.
    const std::vector<std::pair<std::string, std::string>>& parameters() const { return parameters_; }
    /// The database in words, without secrets.
    const std::string& place() const { return place_; }
    unsigned writers() const { return writers_; }
    bool allowsUnsafeCommit() const { return allowsUnsafeCommit_; }

  private:
    bool takeOwn(std::string_view name, const std::string& value, std::string& reason);
    std::string withoutOwn(std::string_view url, std::string& reason);
    bool readPassword(std::string& reason);
    bool requireEncryption(std::string& reason);
    void addDefault(const char* name, const std::string& value);
    const std::string* find(std::string_view name) const;
    void describe();

    std::vector<std::pair<std::string, std::string>> parameters_;
    std::string place_;
    std::string passwordFile_;
    unsigned writers_ = 4;
    bool allowsPlain_ = false;
    bool allowsUnsafeCommit_ = false;
};

}  // namespace qel::storage
