#include "core/net/lifetime.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace varnic::net {
namespace {

struct Owner {
  int calls = 0;
  Lifetime lifetime;
};

TEST(LifetimeTest, AGuardedCallbackRunsWhileItsObjectLives) {
  Owner owner;
  std::string heard;
  auto callback = owner.lifetime.Guard([&](int number, std::string text) {
    ++owner.calls;
    heard = std::to_string(number) + std::move(text);
  });

  callback(7, "x");
  callback(8, "y");

  EXPECT_EQ(owner.calls, 2);
  EXPECT_EQ(heard, "8y");
}

TEST(LifetimeTest, AGuardedCallbackDoesNothingAfterItsObject) {
  bool called = false;
  std::function<void()> callback;
  {
    const Owner owner;
    callback = owner.lifetime.Guard([&] { called = true; });
  }

  callback();

  EXPECT_FALSE(called);
}

TEST(LifetimeTest, ACallbackMayDestroyItsObject) {
  auto owner = std::make_unique<Owner>();
  std::function<void()> callback = owner->lifetime.Guard([&] { owner = nullptr; });

  callback();
  callback();

  EXPECT_EQ(owner, nullptr);
}

TEST(LifetimeTest, ACallbackMayTakeWhatCanOnlyBeMoved) {
  const Owner owner;
  int value = 0;
  auto callback = owner.lifetime.Guard([&](std::unique_ptr<int> number) { value = *number; });

  callback(std::make_unique<int>(42));

  EXPECT_EQ(value, 42);
}

}  // namespace
}  // namespace varnic::net
