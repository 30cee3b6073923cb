#include "tests/programs/serve_program.h"

#include <cstdio>
#include <string_view>
#include <utility>

#include "absl/time/time.h"
#include "core/net/event_loop.h"

namespace varnic {

int ServeProgram(RpcServer& server, int argc, char** argv) {
  ListenOptions options;
  int next = 1;
  if (argc > 4 && std::string_view(argv[1]) == "--tls") {
    net::TlsServerOptions tls;
    tls.certificate_file = argv[2];
    tls.key_file = argv[3];
    tls.client_ca_file = argv[4];
    options.tls = std::move(tls);
    next = 5;
  }
  for (int i = next; i < argc; ++i) {
    const auto address = server.Listen(argv[i], options);
    if (!address.ok()) {
      std::fprintf(stderr, "%s: %s\n", argv[0], address.status().ToString().c_str());
      return 1;
    }
    std::printf("Listening on %s\n", address->c_str());
  }
  const net::StopSignals signals(server.loop(),
                                 [&](int /*signal*/) { server.Drain(absl::InfiniteDuration()); });
  std::puts("Try: -");
  std::fflush(stdout);
  server.Run();
  return 0;
}

}  // namespace varnic
