#include "qelNet/Identity.h"

#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <sys/stat.h>

#include "wire/SecretFile.h"

namespace qel {
namespace {

constexpr std::size_t keyBytes = 32;

std::string toHex(const unsigned char* bytes, std::size_t count) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

bool fromHex(std::string_view text, std::vector<unsigned char>& bytes) {
    if (text.size() != 2 * keyBytes)
        return false;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = hexDigit(text[i]);
        const int low = hexDigit(text[i + 1]);
        if (high < 0 || low < 0)
            return false;
        bytes.push_back(static_cast<unsigned char>(high << 4 | low));
    }
    return true;
}

IdentityBlock hmac(const std::vector<unsigned char>& key, std::string_view text) {
    static const unsigned char none = 0;
    IdentityBlock block{};
    unsigned length = 0;
    HMAC(EVP_sha256(), key.empty() ? &none : key.data(), static_cast<int>(key.size()),
         reinterpret_cast<const unsigned char*>(text.data()), text.size(), block.data(), &length);
    return block;
}

}  // namespace

bool SiteKey::load(const std::string& file, std::string& error) {
    std::string content;
    if (!tls::readSecretFile(file, content, error))
        return false;
    while (!content.empty() && (content.back() == '\n' || content.back() == '\r' || content.back() == ' '))
        content.pop_back();
    std::vector<unsigned char> bytes;
    if (!fromHex(content, bytes)) {
        error = "the site key in " + file + " is not made of 64 hexadecimal digits";
        return false;
    }
    bytes_ = std::move(bytes);
    return true;
}

bool SiteKey::create(const std::string& file, std::string& error) {
    struct stat status {};
    if (::lstat(file.c_str(), &status) == 0) {
        error = "there is a file " + file + " already; a site key is never replaced";
        return false;
    }
    unsigned char bytes[keyBytes];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        error = "the machine gives no random bytes for a site key";
        return false;
    }
    return tls::writeFile(file, toHex(bytes, sizeof bytes) + "\n", 0600, error);
}

SiteKey SiteKey::fromBytes(const std::vector<unsigned char>& bytes) {
    SiteKey key;
    key.bytes_ = bytes;
    return key;
}

std::string SiteKey::getFingerprint() const {
    return toHex(hmac(bytes_, "fingerprint").data(), 8);
}

IdentityBlock SiteKey::makeBlock(std::string_view kind, std::string_view name) const {
    std::string text(kind);
    text += '\0';
    text += name;
    return hmac(bytes_, text);
}

Identity Identity::make(std::string userName, std::string deviceName, const SiteKey& key) {
    Identity identity;
    identity.userBlock = key.makeBlock("user", userName);
    identity.deviceBlock = key.makeBlock("device", deviceName);
    identity.user = std::move(userName);
    identity.device = std::move(deviceName);
    return identity;
}

}  // namespace qel
