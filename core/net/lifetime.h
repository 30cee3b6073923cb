#ifndef CORE_NET_LIFETIME_H_
#define CORE_NET_LIFETIME_H_

#include <memory>
#include <utility>

namespace varnic::net {

// For callbacks that may come after their object is gone: a guarded one then does nothing. A member
// of the object, declared last, so that it ends first. One thread only.
class Lifetime {
 public:
  template <class Callback>
  auto Guard(Callback callback) const {
    return [alive = std::weak_ptr<const char>(token_),
            callback = std::move(callback)](auto&&... arguments) mutable {
      if (!alive.expired()) callback(std::forward<decltype(arguments)>(arguments)...);
    };
  }

 private:
  std::shared_ptr<const char> token_ = std::make_shared<const char>();
};

}  // namespace varnic::net

#endif  // CORE_NET_LIFETIME_H_
