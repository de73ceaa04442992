#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

namespace qel {

/// Holds one reference on a reference-counted object and gives it back at the end. A value type like
/// std::shared_ptr, for any class derived from Object; one Ref may be used by one thread at a time, the
/// object's count by many.
template <class T>
class Ref {
  public:
    Ref() noexcept = default;
    Ref(std::nullptr_t) noexcept {}
    Ref(const Ref& other) noexcept : object_(other.object_) { increase(); }
    Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    template <class U>
    requires std::is_convertible_v<U*, T*> Ref(const Ref<U>& other)
    noexcept : object_(other.get()) { increase(); }
    Ref& operator=(Ref other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Ref() {
        if (object_ != nullptr)
            object_->decreaseReferenceCount();
    }

    /// Takes over the reference that the creator of a new object holds. Null makes an empty Ref.
    static Ref adopt(T* object) noexcept {
        Ref ref;
        ref.object_ = object;
        return ref;
    }
    /// Adds a reference to one that somebody else keeps. Null makes an empty Ref.
    static Ref share(T* object) noexcept {
        Ref ref = adopt(object);
        ref.increase();
        return ref;
    }

    T* get() const noexcept { return object_; }
    T* operator->() const noexcept { return object_; }
    T& operator*() const noexcept { return *object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }
    /// Hands the reference to the caller, who gives it back with `decreaseReferenceCount`.
    T* release() noexcept { return std::exchange(object_, nullptr); }
    void reset() noexcept { *this = Ref(); }

    friend bool operator==(const Ref& a, const Ref& b) noexcept { return a.object_ == b.object_; }
    friend bool operator==(const Ref& a, std::nullptr_t) noexcept { return a.object_ == nullptr; }

  private:
    void increase() const noexcept {
        if (object_ != nullptr)
            object_->increaseReferenceCount();
    }

    T* object_ = nullptr;
};

/// A new object and its first reference.
template <class T, class... Args>
Ref<T> makeRef(Args&&... args) {
    return Ref<T>::adopt(new T(std::forward<Args>(args)...));
}

}  // namespace qel
