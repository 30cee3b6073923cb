#ifndef CORE_HOST_BROWSER_INCOGNITO_CONTEXTS_H_
#define CORE_HOST_BROWSER_INCOGNITO_CONTEXTS_H_

#include <functional>
#include <map>
#include <string>

#include "absl/status/statusor.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/net/lifetime.h"

namespace varnic::host {

// The incognito contexts that were made in one browser. Each stays as long as somebody uses it: a
// window, or one that is being opened.
//
// Lives on the loop's thread; the pipe outlives it.
class IncognitoContexts {
 public:
  // `on_closed` runs once for each context that has gone.
  IncognitoContexts(DevToolsPipe& devtools, bool deny_downloads,
                    std::function<void(const std::string& context)> on_closed);
  IncognitoContexts(const IncognitoContexts&) = delete;
  IncognitoContexts& operator=(const IncognitoContexts&) = delete;

  // Makes one, and gives its id: whoever takes it has used it once. `on_made` runs once, unless
  // this is destroyed before.
  void Make(std::function<void(absl::StatusOr<std::string>)> on_made);
  bool Has(const std::string& context) const { return uses_.count(context) != 0; }
  // The context of that browser context: itself, or empty if it is not one of these. So a private
  // window that a person opens counts as one of the persistent profile.
  std::string ContextOf(const std::string& browser_context) const;

  // Nothing for the empty context.
  void Use(const std::string& context);
  void EndUse(const std::string& context);
  // Gives up one that Make() has given, and that nobody has heard of: `on_closed` does not run.
  void Drop(const std::string& context);
  // The browser is gone.
  void CloseAll();

 private:
  void DenyDownloads(const std::string& context);

  DevToolsPipe& devtools_;
  const bool deny_downloads_;
  const std::function<void(const std::string&)> on_closed_;
  std::map<std::string, int> uses_;  // By context; at least 1.
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_INCOGNITO_CONTEXTS_H_
