#pragma once

#include <array>
#include <atomic>

#include "qelCore/Export.h"

/// The class-name operations that every polymorphic class of the framework has, once. Stands first in the
/// class; what follows it is public. `fillClassChain` lets the base fill first, then writes the own name
/// behind; the sixteenth place stays null, so that a null always ends the chain.
#define QEL_CLASS(Name, Base)                                                                   \
  public:                                                                                       \
    static const char* getStaticClassName() {                                                   \
        return #Name;                                                                           \
    }                                                                                           \
    static std::array<const char*, 16> getStaticClassChain() {                                  \
        std::array<const char*, 16> chain{};                                                    \
        fillClassChain(chain, 0);                                                               \
        return chain;                                                                           \
    }                                                                                           \
    const char* getDynamicClassName() const override {                                          \
        return getStaticClassName();                                                            \
    }                                                                                           \
    std::array<const char*, 16> getDynamicClassChain() const override {                         \
        return getStaticClassChain();                                                           \
    }                                                                                           \
                                                                                                \
  protected:                                                                                    \
    static int fillClassChain(std::array<const char*, 16>& chain, int index) {                  \
        return ::qel::Object::enterClassName(chain, Base::fillClassChain(chain, index), #Name); \
    }                                                                                           \
                                                                                                \
  public:

namespace qel {

/// The root of the framework's polymorphic classes: a reference count and the class's name and chain of
/// bases. It is created with one reference, which its creator holds; the count may be changed from any
/// thread, and `decreaseReferenceCount` of the last reference deletes the object. An object on the stack or
/// inside another one keeps its first reference until its scope ends. A copy is a new object with one
/// reference of its own.
class QELCORE_EXPORT Object {
  public:
    static const char* getStaticClassName() { return "Object"; }
    static std::array<const char*, 16> getStaticClassChain() {
        std::array<const char*, 16> chain{};
        fillClassChain(chain, 0);
        return chain;
    }
    // The first three virtual operations of every class, in this order.
    virtual const char* getDynamicClassName() const { return getStaticClassName(); }
    virtual std::array<const char*, 16> getDynamicClassChain() const { return getStaticClassChain(); }
    virtual ~Object();

    Object() noexcept = default;
    Object(const Object&) noexcept {}
    Object& operator=(const Object&) noexcept { return *this; }

    void increaseReferenceCount() const noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
    void decreaseReferenceCount() const noexcept {
        if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }
    /// For diagnosis and tests: the count at this moment.
    int getReferenceCount() const noexcept { return references_.load(std::memory_order_acquire); }

  protected:
    static int fillClassChain(std::array<const char*, 16>& chain, int index) {
        return enterClassName(chain, index, "Object");
    }
    /// Writes `name` at `index` and returns the next index; the last place is never written.
    static int enterClassName(std::array<const char*, 16>& chain, int index, const char* name) noexcept {
        if (index < 0 || index >= static_cast<int>(chain.size()) - 1)
            return index;
        chain[static_cast<std::size_t>(index)] = name;
        return index + 1;
    }

  private:
    mutable std::atomic<int> references_{1};
};

}  // namespace qel
