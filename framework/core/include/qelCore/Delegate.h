#pragma once

#include <type_traits>
#include <utility>

#include "qelCore/Object.h"
#include "qelCore/PointerOwner.h"
#include "qelCore/Ref.h"

namespace qel {

template <class Signature>
class Delegate;

/// A question that a class asks and its host answers: the class derives from (or holds) a delegate and
/// invokes it, the host connects a function to it. Begins unbound; invoked so, it returns `R{}` and does
/// nothing else. The function belongs to the delegate and is released with it; a copy shares it. One thread
/// at a time.
template <class R, class... Args>
class Delegate<R(Args...)> : public Object {
    QEL_CLASS(Delegate, Object)

    Delegate() = default;

    /// Answers by a function object, which is copied or moved in. Replaces what was connected before.
    template <class F>
    requires std::is_invocable_r_v < R, std::decay_t<F>
    &, Args... > void connect(F&& function) {
        target_.own(new FunctionTarget<std::decay_t<F>>(std::forward<F>(function)));
    }
    /// Answers by a method of `object`, which is not owned and must outlive the connection.
    template <class T, class Method>
    requires std::is_member_function_pointer_v<Method>
    void connect(T& object, Method method) {
        connect(
            [&object, method](Args... args) -> R { return (object.*method)(std::forward<Args>(args)...); });
    }
    /// Answers by a method of `object`, on which the delegate keeps a reference while connected.
    template <class T, class Method>
    requires std::is_member_function_pointer_v<Method>
    void connect(Ref<T> object, Method method) {
        connect(
            [object, method](Args... args) -> R { return ((*object).*method)(std::forward<Args>(args)...); });
    }
    void disconnect() noexcept { target_.release(); }
    bool isConnected() const noexcept { return target_.get() != nullptr; }

    /// The function may connect another one meanwhile; it stays alive until it has returned.
    R operator()(Args... args) const {
        if (!isConnected())
            return R();
        const Ref<Object> running = Ref<Object>::share(target_.get());
        return static_cast<Target&>(*running).invoke(std::forward<Args>(args)...);
    }

  private:
    class Target : public Object {
      public:
        virtual R invoke(Args... args) = 0;
    };
    template <class F>
    class FunctionTarget final : public Target {
      public:
        explicit FunctionTarget(F function) : function_(std::move(function)) {}
        R invoke(Args... args) override { return function_(std::forward<Args>(args)...); }

      private:
        F function_;
    };

    PointerOwner target_;
};

}  // namespace qel
