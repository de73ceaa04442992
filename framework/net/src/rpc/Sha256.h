#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace qel::rpc {

/// The SHA-256 of bytes that come piece by piece. One thread at a time.
class Sha256 {
  public:
    Sha256();
    ~Sha256();
    Sha256(Sha256&&) noexcept;
    Sha256& operator=(Sha256&&) noexcept;

    void add(const void* data, std::size_t size);
    /// The 32 bytes; afterwards a new one begins.
    std::string finish();

  private:
    struct Inner;
    std::unique_ptr<Inner> inner_;
};

}  // namespace qel::rpc
