#include "compiler/generator.h"

#include <gmock/gmock.h>
#include <google/protobuf/compiler/importer.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "compiler/testing/proto_texts.h"

namespace varnic::compiler {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using testing::ProtoTexts;

// Keeps what is written.
class Files : public google::protobuf::compiler::GeneratorContext {
 public:
  google::protobuf::io::ZeroCopyOutputStream* Open(const std::string& path) override {
    return new google::protobuf::io::StringOutputStream(&texts_[path]);
  }
  const std::map<std::string, std::string>& texts() const { return texts_; }

 private:
  std::map<std::string, std::string> texts_;
};

std::string Read(const std::string& path) {
  std::ifstream file(path);
  EXPECT_TRUE(file.is_open()) << path;
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

TEST(GeneratorTest, WritesAHeaderAndASourceForAService) {
  ProtoTexts protos;
  Files files;
  std::string error;

  EXPECT_TRUE(Generator().Generate(&protos.X("service S {}"), "", &files, &error));

  EXPECT_EQ(error, "");
  EXPECT_THAT(files.texts(), ElementsAre(Key("x.rpc.cc"), Key("x.rpc.h")));
}

TEST(GeneratorTest, WritesNothingForAFileWithoutAService) {
  ProtoTexts protos;
  Files files;
  std::string error;

  EXPECT_TRUE(Generator().Generate(&protos.X("message M {}"), "", &files, &error));

  EXPECT_EQ(error, "");
  EXPECT_THAT(files.texts(), IsEmpty());
}

TEST(GeneratorTest, WritesNothingForAServiceThatItCannotServe) {
  ProtoTexts protos;
  Files files;
  std::string error;

  EXPECT_FALSE(Generator().Generate(&protos.X("service A {}\nservice B {}"), "", &files, &error));

  EXPECT_EQ(error, "x.proto:3: B is the file's second service after A; give it a file of its own");
  EXPECT_THAT(files.texts(), IsEmpty());
}

TEST(GeneratorTest, OptionThatItDoesNotKnowIsAnError) {
  ProtoTexts protos;
  Files files;
  std::string error;

  EXPECT_FALSE(Generator().Generate(&protos.X("service S {}"), "fast", &files, &error));

  EXPECT_EQ(error, "there is no option \"fast\"");
}

// The skeleton in the tree is the example of what is written, and has to stay so.
TEST(GeneratorTest, SkeletonOfTheProfileServiceIsTheOneInTheTree) {
  google::protobuf::compiler::DiskSourceTree tree;
  tree.MapPath("", VARNIC_PROTO_ROOT);
  tree.MapPath("", VARNIC_WELL_KNOWN_PROTO_ROOT);
  google::protobuf::compiler::Importer importer(&tree, nullptr);
  const auto* file = importer.Import("rpc/profile/profile.proto");
  ASSERT_NE(file, nullptr);
  Files files;
  std::string error;

  ASSERT_TRUE(Generator().Generate(file, "", &files, &error)) << error;

  const std::string stem = VARNIC_PROTO_ROOT "/rpc/profile/profile.rpc";
  EXPECT_EQ(files.texts().at("rpc/profile/profile.rpc.h"), Read(stem + ".h"));
  EXPECT_EQ(files.texts().at("rpc/profile/profile.rpc.cc"), Read(stem + ".cc"));
}

}  // namespace
}  // namespace varnic::compiler
