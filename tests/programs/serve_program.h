#ifndef TESTS_PROGRAMS_SERVE_PROGRAM_H_
#define TESTS_PROGRAMS_SERVE_PROGRAM_H_

#include "core/server/rpc_server.h"

namespace varnic {

// The rest of a test host's main():
//   NAME [--tls CERTIFICATE KEY CLIENT-CA] ADDRESS...
// Listens, says where, as varnic-host does, and serves until SIGTERM drains the server. Returns the
// exit status.
int ServeProgram(RpcServer& server, int argc, char** argv);

}  // namespace varnic

#endif  // TESTS_PROGRAMS_SERVE_PROGRAM_H_
