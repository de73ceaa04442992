#pragma once

#include "qelCore/ConstByteSpan.h"
#include "qelCore/Export.h"
#include "qelCore/Vector.h"

namespace qel {

/// Bytes in memory that it owns: what was loaded from a resource of the host. A value type; separate buffers
/// may be used from separate threads at once.
class QELCORE_EXPORT Buffer {
  public:
    Buffer() = default;

    /// Replaces the content by a copy of the resource `name` (qelCore/Resources.h). With `zeroTerminated`,
    /// one zero byte that does not count follows the content, for readers of C strings. False, with the
    /// content as it was, when the host has no resource of that name.
    bool loadFromResource(const char* name, bool zeroTerminated);

    /// The content, null before a first load; valid until the next load, assignment or the end of this
    /// buffer.
    ConstByteSpan getConstByteSpan() const noexcept {
        return loaded_ ? ConstByteSpan(bytes_.data(), size_) : nullptr;
    }

  private:
    Vector<unsigned char> bytes_;
    std::size_t size_ = 0;
    bool loaded_ = false;
};

}  // namespace qel
