// A host of profiles and browsers that are nothing but entries in a list, for clients that ask for
// them and watch them. See serve_program.h for its arguments.

#include <string>

#include "core/host/browser_host_service.h"
#include "core/host/profile_host.h"
#include "core/host/testing/fake_profiles.h"
#include "core/server/rpc_server.h"
#include "tests/programs/serve_program.h"

namespace varnic::host {
namespace {

// SetAcceptLanguage lets the profile's first browser show a page with that title, and gives the
// profile that name if it has no browser.
class ListedProfiles : public testing::FakeProfiles {
 public:
  void SetAcceptLanguage(const std::string& id, const std::string& text,
                         Reply<Done> reply) override {
    rpc::ProfileInfo* profile = Find(id);
    if (profile == nullptr) return reply(absl::NotFoundError("there is no profile " + id));
    if (profile->browsers().empty()) {
      profile->set_name(text);
    } else {
      profile->mutable_browsers(0)->set_url("https://example.com/");
      profile->mutable_browsers(0)->set_title(text);
    }
    Changed();
    reply(Done());
  }
};

}  // namespace
}  // namespace varnic::host

int main(int argc, char** argv) {
  varnic::ServerOptions options;
  options.serve_reflection = true;
  varnic::RpcServer server(options);
  varnic::host::ListedProfiles profiles;
  varnic::host::ProfileHost profile_host(profiles);
  varnic::host::BrowserHostService browser_host(profiles, server.scheduler());
  server.AddService(profile_host);
  server.AddService(browser_host);
  return varnic::ServeProgram(server, argc, argv);
}
