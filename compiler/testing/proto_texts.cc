#include "compiler/testing/proto_texts.h"

#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <gtest/gtest.h>

#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"

namespace varnic::compiler::testing {

ProtoTexts::ProtoTexts() : importer_(this, this) {
  Add("rpc/event_subscription.proto",
      "syntax = \"proto3\"; package rpc; message EventSubscription {}");
  Add("rpc/identifiers.proto", "syntax = \"proto3\"; message ProfileId {}");
}

void ProtoTexts::Add(const std::string& path, const std::string& text) {
  texts_[path] = text;
}

const google::protobuf::FileDescriptor& ProtoTexts::X(const std::string& text) {
  Add("x.proto", absl::StrCat("syntax = \"proto3\"; import \"rpc/event_subscription.proto\"; ",
                              "import \"rpc/identifiers.proto\";\n", text));
  return File("x.proto");
}

const google::protobuf::FileDescriptor& ProtoTexts::File(const std::string& path) {
  const google::protobuf::FileDescriptor* file = importer_.Import(path);
  VARNIC_CHECK(file != nullptr);
  return *file;
}

google::protobuf::io::ZeroCopyInputStream* ProtoTexts::Open(const std::string& path) {
  const auto found = texts_.find(path);
  if (found == texts_.end()) return nullptr;
  return new google::protobuf::io::ArrayInputStream(found->second.data(),
                                                    static_cast<int>(found->second.size()));
}

void ProtoTexts::AddError(const std::string& path, int line, int /*column*/,
                          const std::string& text) {
  ADD_FAILURE() << path << ":" << line + 1 << ": " << text;
}

}  // namespace varnic::compiler::testing
