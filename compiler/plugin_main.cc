// protoc-gen-varnic: protoc runs it for --varnic_out, and speaks to it on its standard streams.

#include <google/protobuf/compiler/plugin.h>

#include "compiler/generator.h"

int main(int argc, char** argv) {
  const varnic::compiler::Generator generator;
  return google::protobuf::compiler::PluginMain(argc, argv, &generator);
}
