#include "compiler/generator.h"

#include <gmock/gmock.h>
#include <google/protobuf/compiler/importer.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
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

TEST(GeneratorTest, WritesAHeaderAndASourceForEachPartOfAService) {
  ProtoTexts protos;
  Files files;
  std::string error;

  EXPECT_TRUE(Generator().Generate(&protos.X("service S {}"), "", &files, &error));

  EXPECT_EQ(error, "");
  EXPECT_THAT(files.texts(),
              ElementsAre(Key("x.client.cc"), Key("x.client.h"), Key("x.rpc.cc"), Key("x.rpc.h")));
}

TEST(GeneratorTest, WritesOnlyThePartThatItIsAskedFor) {
  ProtoTexts protos;
  const auto& file = protos.X("service S {}");
  Files skeleton;
  Files client;
  std::string error;

  EXPECT_TRUE(Generator().Generate(&file, "skeleton", &skeleton, &error)) << error;
  EXPECT_TRUE(Generator().Generate(&file, "client", &client, &error)) << error;

  EXPECT_THAT(skeleton.texts(), ElementsAre(Key("x.rpc.cc"), Key("x.rpc.h")));
  EXPECT_THAT(client.texts(), ElementsAre(Key("x.client.cc"), Key("x.client.h")));
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

  EXPECT_EQ(error, "there is no option \"fast\", only \"skeleton\" and \"client\"");
  EXPECT_THAT(files.texts(), IsEmpty());
}

TEST(GeneratorTest, TellsWhatIsWrongWithEachFile) {
  ProtoTexts protos;
  protos.Add("y.proto", "syntax = \"proto3\"; service C {}\nservice D {}");
  const auto& x = protos.X("service A {}\nservice B {}");
  const auto& y = protos.File("y.proto");
  Files files;
  std::string error;

  EXPECT_FALSE(Generator().GenerateAll({&x, &y}, "", &files, &error));

  EXPECT_EQ(error,
            "x.proto:3: B is the file's second service after A; give it a file of its own\n"
            "y.proto:2: D is the file's second service after C; give it a file of its own");
}

// What is written for the Profile service: the example for readers, and for every change.
class GoldenFileTest : public ::testing::TestWithParam<std::string> {};

TEST_P(GoldenFileTest, IsWhatIsWritten) {
  google::protobuf::compiler::DiskSourceTree tree;
  tree.MapPath("", VARNIC_PROTO_ROOT);
  tree.MapPath("", VARNIC_WELL_KNOWN_PROTO_ROOT);
  google::protobuf::compiler::Importer importer(&tree, nullptr);
  const auto* file = importer.Import("rpc/profile/profile.proto");
  ASSERT_NE(file, nullptr);
  Files files;
  std::string error;

  ASSERT_TRUE(Generator().Generate(file, "", &files, &error)) << error;

  const std::string golden = VARNIC_COMPILER_TESTDATA "/" + GetParam();
  const std::string& written = files.texts().at("rpc/profile/" + GetParam());
  if (std::getenv("VARNIC_RENEW_GOLDEN_FILES") != nullptr) std::ofstream(golden) << written;
  EXPECT_TRUE(Read(golden) == written)
      << golden << " is not what is written now. If that is meant, renew the golden files with\n"
      << "  VARNIC_RENEW_GOLDEN_FILES=1 build/debug/compiler/generator_test\n"
      << "and look at the difference.";
}

INSTANTIATE_TEST_SUITE_P(ProfileService, GoldenFileTest,
                         ::testing::Values("profile.rpc.h", "profile.rpc.cc", "profile.client.h",
                                           "profile.client.cc"),
                         [](const auto& test) {
                           std::string name = test.param;
                           std::replace(name.begin(), name.end(), '.', '_');
                           return name;
                         });

}  // namespace
}  // namespace varnic::compiler
