#ifndef BENCH_SIDE_BY_SIDE_GRPC_SERVER_PROGRAM_H_
#define BENCH_SIDE_BY_SIDE_GRPC_SERVER_PROGRAM_H_

#include <grpcpp/server_builder.h>

#include <cstdio>
#include <memory>
#include <string>

namespace varnic::bench {

// Makes `builder` listen on `address`, starts it, and prints the address. Null if it cannot.
inline std::unique_ptr<grpc::Server> StartGrpcServer(grpc::ServerBuilder& builder,
                                                     const std::string& address) {
  int port = 0;
  builder.AddListeningPort(address, grpc::InsecureServerCredentials(), &port);
  std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
  if (server == nullptr) return nullptr;
  const bool is_file = address.rfind("unix:", 0) == 0;
  std::printf("%s\n",
              is_file ? address.c_str()
                      : (address.substr(0, address.rfind(':') + 1) + std::to_string(port)).c_str());
  std::fflush(stdout);
  return server;
}

}  // namespace varnic::bench

#endif  // BENCH_SIDE_BY_SIDE_GRPC_SERVER_PROGRAM_H_
