#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "qelNet/Export.h"

namespace qel {

/// 32 bytes that stand for one name of a peer: HMAC-SHA-256 under the site key.
using IdentityBlock = std::array<unsigned char, 32>;

/// The secret that all daemons of one site share. Identity blocks, and so the pseudonyms of anonymous logs,
/// are made under it: they survive the renewal of certificates and nobody without the key can compute them.
/// A plain value; safe to copy and to read from any thread.
class QELNET_EXPORT SiteKey {
  public:
    /// A key of no bytes, as workstations have it: blocks can be made, but are no secret.
    SiteKey() = default;

    /// Reads a key file (64 hexadecimal digits). Returns false and says why in `error`, in one sentence, when
    /// the file is missing, malformed, or readable by others than its owner (a service manager's credentials
    /// directory, named by CREDENTIALS_DIRECTORY, may be readable by the group).
    bool load(const std::string& file, std::string& error);

    /// Makes a fresh random key and writes it to `file` with mode 0600; an existing file is never replaced.
    static bool create(const std::string& file, std::string& error);

    /// The key of the given bytes, for tests and for hosts that keep keys elsewhere.
    static SiteKey fromBytes(const std::vector<unsigned char>& bytes);

    bool isEmpty() const { return bytes_.empty(); }

    /// 16 hexadecimal digits that tell keys apart without giving anything of the key away.
    std::string getFingerprint() const;

    /// HMAC-SHA-256(key, kind + "\0" + name), kind being "user" or "device".
    IdentityBlock makeBlock(std::string_view kind, std::string_view name) const;

  private:
    std::vector<unsigned char> bytes_;
};

/// Who a peer is: the two names of its certificate and the two blocks made from them. A plain value.
struct QELNET_EXPORT Identity {
    std::string user;
    std::string device;
    IdentityBlock userBlock{};
    IdentityBlock deviceBlock{};

    static Identity make(std::string userName, std::string deviceName, const SiteKey& key);
};

}  // namespace qel
