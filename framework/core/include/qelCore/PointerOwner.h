#pragma once

#include "qelCore/Object.h"
#include "qelCore/Ref.h"

namespace qel {

/// Keeps one object of any framework class alive, without knowing which: it holds one reference and gives it
/// back when it takes another object, is released or ends. A copy holds a reference of its own. One thread at
/// a time.
class PointerOwner {
  public:
    /// Takes over the reference that the creator of `object` holds, and gives back the one held so far.
    void own(Object* object) noexcept { held_ = Ref<Object>::adopt(object); }
    /// Adds a reference to `object`, and gives back the one held so far.
    void share(Object* object) noexcept { held_ = Ref<Object>::share(object); }
    void release() noexcept { held_.reset(); }
    Object* get() const noexcept { return held_.get(); }

  private:
    Ref<Object> held_;
};

}  // namespace qel
