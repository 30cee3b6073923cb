#include "core/server/server_controller.h"

#include <google/protobuf/stubs/callback.h>
#include <gtest/gtest.h>

#include <memory>

namespace varnic {
namespace {

// Counts how often it runs, and sees whether the call was cancelled then.
class Notification : public google::protobuf::Closure {
 public:
  explicit Notification(const ServerController& controller) : controller_(controller) {}

  void Run() override {
    ++runs;
    cancelled = controller_.IsCanceled();
  }

  int runs = 0;
  bool cancelled = false;

 private:
  const ServerController& controller_;
};

TEST(ServerControllerTest, HasNotFailedAtFirst) {
  const ServerController controller;

  EXPECT_FALSE(controller.Failed());
  EXPECT_FALSE(controller.IsCanceled());
  EXPECT_EQ(controller.ErrorText(), "");
  EXPECT_EQ(controller.status(), absl::OkStatus());
  EXPECT_EQ(controller.deadline(), absl::InfiniteFuture());
}

TEST(ServerControllerTest, KnowsItsDeadline) {
  const absl::Time deadline = absl::FromUnixSeconds(1'000'000);

  EXPECT_EQ(ServerController(deadline).deadline(), deadline);
}

TEST(ServerControllerTest, KnowsWhatTheClientSaysOfTheCall) {
  net::Metadata metadata;
  ASSERT_TRUE(metadata.Add("x-trace", "7").ok());

  const ServerController controller(absl::InfiniteFuture(), nullptr, "",
                                    std::make_shared<const net::Metadata>(metadata));

  EXPECT_EQ(controller.metadata().Find("x-trace"), "7");
  EXPECT_TRUE(ServerController().metadata().empty());
}

TEST(ServerControllerTest, KeepsWhatTheAnswerIsToSay) {
  ServerController controller;

  EXPECT_TRUE(controller.AddInitialMetadata("x-first", "1").ok());
  EXPECT_TRUE(controller.AddTrailingMetadata("x-last", "2").ok());
  EXPECT_FALSE(controller.AddInitialMetadata("grpc-status", "0").ok());

  EXPECT_EQ(controller.initial_metadata().Find("x-first"), "1");
  EXPECT_EQ(controller.initial_metadata().entries().size(), 1u);
  EXPECT_EQ(controller.trailing_metadata().Find("x-last"), "2");
}

TEST(ServerControllerTest, SetFailedAloneIsUnknown) {
  ServerController controller;

  controller.SetFailed("it failed");

  EXPECT_TRUE(controller.Failed());
  EXPECT_EQ(controller.ErrorText(), "it failed");
  EXPECT_EQ(controller.status(), absl::UnknownError("it failed"));
}

TEST(ServerControllerTest, FailureWithoutTextIsOneToo) {
  ServerController controller;

  controller.SetFailed("");

  EXPECT_TRUE(controller.Failed());
}

TEST(ServerControllerTest, OverrideFailsItsCallWithAnyStatus) {
  ServerController controller;
  google::protobuf::RpcController* seen_by_override = &controller;

  ServerController::From(seen_by_override).SetStatus(absl::NotFoundError("no such profile"));

  EXPECT_TRUE(seen_by_override->Failed());
  EXPECT_EQ(seen_by_override->ErrorText(), "no such profile");
  EXPECT_EQ(controller.status(), absl::NotFoundError("no such profile"));
}

TEST(ServerControllerTest, LastFailureCounts) {
  ServerController controller;

  controller.SetStatus(absl::NotFoundError("first"));
  controller.SetFailed("second");
  EXPECT_EQ(controller.status(), absl::UnknownError("second"));

  controller.SetStatus(absl::OkStatus());
  EXPECT_FALSE(controller.Failed());
}

TEST(ServerControllerTest, ResetTakesTheFailureBack) {
  ServerController controller;
  controller.SetFailed("it failed");

  controller.Reset();

  EXPECT_FALSE(controller.Failed());
  EXPECT_EQ(controller.ErrorText(), "");
}

TEST(ServerControllerTest, CancellationRunsTheClosureOnce) {
  auto controller = std::make_unique<ServerController>();
  Notification notification(*controller);
  controller->NotifyOnCancel(&notification);
  EXPECT_EQ(notification.runs, 0);

  controller->Cancel();
  EXPECT_EQ(notification.runs, 1);
  EXPECT_TRUE(notification.cancelled);

  controller->Cancel();
  controller = nullptr;
  EXPECT_EQ(notification.runs, 1);
}

TEST(ServerControllerTest, ClosureThatComesAfterTheCancellationRunsAtOnce) {
  auto controller = std::make_unique<ServerController>();
  controller->Cancel();
  Notification notification(*controller);

  controller->NotifyOnCancel(&notification);
  EXPECT_EQ(notification.runs, 1);

  controller = nullptr;
  EXPECT_EQ(notification.runs, 1);
}

TEST(ServerControllerTest, ClosureRunsAtTheEndOfACallThatWasNotCancelled) {
  auto controller = std::make_unique<ServerController>();
  Notification notification(*controller);
  controller->NotifyOnCancel(&notification);

  controller = nullptr;

  EXPECT_EQ(notification.runs, 1);
  EXPECT_FALSE(notification.cancelled);
}

TEST(ServerControllerTest, ClosureMayEndTheCall) {
  // As the override does that answers inside: the call's completion destroys the controller.
  auto* controller = new ServerController;
  controller->NotifyOnCancel(google::protobuf::NewCallback(
      +[](ServerController* ended) { delete ended; }, controller));

  controller->Cancel();
}

TEST(ServerControllerTest, CancellingIsTheClientsRightAlone) {
  ServerController controller;

  controller.StartCancel();

  EXPECT_FALSE(controller.IsCanceled());
}

TEST(ServerControllerDeathTest, SecondClosureIsFatalWhileTheFirstWaits) {
  ServerController controller;
  Notification first(controller);
  Notification second(controller);
  controller.NotifyOnCancel(&first);

  EXPECT_DEATH(controller.NotifyOnCancel(&second), "on_cancel_ == nullptr");
  controller.Cancel();  // While the first is still there to run.
}

}  // namespace
}  // namespace varnic
