#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace platform {

// A non-owning reference to a callable: one indirect call, no allocation. The callable
// must outlive the reference.
template <class Signature>
class FunctionRef;

template <class R, class... Args>
class FunctionRef<R(Args...)> {
 public:
  template <class F>
    requires(!std::is_same_v<std::remove_cvref_t<F>, FunctionRef> && std::is_invocable_r_v<R, F&, Args...>)
  FunctionRef(F&& callable) noexcept  // NOLINT(google-explicit-constructor): used like a function parameter
      : object_(const_cast<void*>(static_cast<const void*>(std::addressof(callable)))),
        invoke_([](void* object, Args... args) -> R {
          return (*static_cast<std::remove_reference_t<F>*>(object))(std::forward<Args>(args)...);
        }) {}

  R operator()(Args... args) const { return invoke_(object_, std::forward<Args>(args)...); }

 private:
  void* object_;
  R (*invoke_)(void*, Args...);
};

}  // namespace platform
