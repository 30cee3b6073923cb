// A host of two services, for clients that are not ours; see two_services.h for what they do, and
// serve_program.h for its arguments.

#include "core/server/rpc_server.h"
#include "tests/programs/serve_program.h"
#include "tests/programs/two_services.h"

int main(int argc, char** argv) {
  varnic::RpcServer server;
  const varnic::TwoServices services(server);
  return varnic::ServeProgram(server, argc, argv);
}
