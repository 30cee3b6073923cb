#ifndef CORE_HOST_BROWSER_TESTING_FAKE_TARGETS_H_
#define CORE_HOST_BROWSER_TESTING_FAKE_TARGETS_H_

#include <functional>
#include <map>
#include <string>

#include "nlohmann/json.hpp"

namespace varnic::host::testing {

// The windows, contexts and settings of a fake browser.
//
// Page.navigate to one of these does more than to go there:
//   popup:        opens a window
//   crash-page:   the page crashes
//   no-address:   is refused
class FakeTargets {
 public:
  using Json = nlohmann::json;

  // `send` takes events.
  explicit FakeTargets(std::function<void(const Json& event)> send) : send_(std::move(send)) {}

  // A page comes after the answer to the command that makes it, rather than before.
  void set_attaches_late(bool attaches_late) { attaches_late_ = attaches_late; }
  // So many scripts fail before the settings answer.
  void set_settings_failures(int failures) { settings_failures_ = failures; }

  // What is answered: {"result": …} or {"error": …}; null for other commands.
  Json Answer(const std::string& method, const Json& params, const std::string& session);
  // To be called after the answer is sent.
  void AfterAnswer();

 private:
  struct Target {
    std::string session;
    std::string context;
    std::string url;
  };

  std::string Add(const Json& params, const std::string& opener);
  void Attach(const std::string& id, const std::string& opener);
  Json Close(const std::string& id);
  void DisposeContext(const std::string& context);
  Json Navigate(const std::string& url, const std::string& session);
  Json Evaluate(const std::string& script);
  Json InfoOf(const std::string& id) const;

  const std::function<void(const Json&)> send_;
  bool attaches_late_ = false;
  int settings_failures_ = 0;
  std::string languages_ = "en-US,en";
  int targets_made_ = 0;
  int contexts_made_ = 0;
  std::string late_;  // A target that is to be attached.
  std::map<std::string, Target> targets_;
};

}  // namespace varnic::host::testing

#endif  // CORE_HOST_BROWSER_TESTING_FAKE_TARGETS_H_
