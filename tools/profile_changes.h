#ifndef TOOLS_PROFILE_CHANGES_H_
#define TOOLS_PROFILE_CHANGES_H_

#include <map>
#include <string>
#include <vector>

#include "rpc/host/browser_host.pb.h"
#include "tools/happening.h"

namespace varnic::tools {

// Finds out what has changed between the states that a host tells, also over a time without a
// connection. For people:
//
//   is there: Ada (default, running)       browser 1 is open: https://example.com/ "Title" (window)
//   created: "For work"                    browser 2 opened: about:blank "" (headless)
//   started, stopped, deleted              browser 1 shows https://example.org/ "Other"
//   renamed: Ada, is the default profile   browser 1 closed
//   is not there
//
// For programs, type "profile" with "change" ("present", "created", "started", "stopped",
// "renamed", "default", "deleted" or "absent") and the fields of rpc.ProfileInfo, without its id
// and its browsers, as "state"; and type "browser" with "change" ("present", "opened", "shows" or
// "closed") and the fields of rpc.BrowserInfo, without its profile, as "browser".
class ProfileChanges {
 public:
  // What to tell of `event`, in its order. The first event under a key tells what there is.
  std::vector<Happening> Take(const rpc::ProfilesChanged& event);

 private:
  std::map<std::string, rpc::ProfilesChanged> seen_;  // The last event under each key.
};

}  // namespace varnic::tools

#endif  // TOOLS_PROFILE_CHANGES_H_
