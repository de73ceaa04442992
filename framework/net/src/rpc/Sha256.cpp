#include "rpc/Sha256.h"

#include <openssl/evp.h>

#include <stdexcept>

namespace qel::rpc {

struct Sha256::Inner {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    ~Inner() { EVP_MD_CTX_free(context); }

    void begin() {
        if (context == nullptr || EVP_DigestInit_ex(context, EVP_sha256(), nullptr) != 1)
            throw std::runtime_error("SHA-256 is not available");
    }
};

Sha256::Sha256() : inner_(std::make_unique<Inner>()) {
    inner_->begin();
}
Sha256::~Sha256() = default;
Sha256::Sha256(Sha256&&) noexcept = default;
Sha256& Sha256::operator=(Sha256&&) noexcept = default;

void Sha256::add(const void* data, std::size_t size) {
    EVP_DigestUpdate(inner_->context, data, size);
}

std::string Sha256::finish() {
    std::string digest(32, '\0');
    EVP_DigestFinal_ex(inner_->context, reinterpret_cast<unsigned char*>(digest.data()), nullptr);
    inner_->begin();
    return digest;
}

}  // namespace qel::rpc
