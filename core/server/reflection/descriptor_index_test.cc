#include "core/server/reflection/descriptor_index.h"

#include <gmock/gmock.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <string>

#include "absl/strings/match.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic {
namespace {

using ::testing::ElementsAre;

// A service of its own pool, whose request can be extended, and a file that does so.
class DescriptorIndexTest : public ::testing::Test {
 protected:
  DescriptorIndexTest() {
    const auto* file = Build(R"(
      name: "test/base.proto" package: "test"
      message_type {
        name: "Request" extension_range { start: 100 end: 200 }
        nested_type {
          name: "Part" field { name: "size" number: 1 label: LABEL_OPTIONAL type: TYPE_INT32 }
        }
        enum_type { name: "Kind" value { name: "PLAIN" number: 0 } }
      }
      service {
        name: "Base"
        method { name: "Run" input_type: ".test.Request" output_type: ".test.Request" }
      })");
    Build(R"(
      name: "test/more.proto" package: "test" dependency: "test/base.proto"
      extension {
        name: "later" number: 120 label: LABEL_OPTIONAL type: TYPE_STRING extendee: ".test.Request"
      }
      extension {
        name: "first" number: 101 label: LABEL_OPTIONAL type: TYPE_STRING extendee: ".test.Request"
      })");
    Build(R"(name: "test/unrelated.proto" package: "test" message_type { name: "Unrelated" })");
    index_.AddService(*file->service(0));
  }

  const google::protobuf::FileDescriptor* Build(const std::string& text) {
    google::protobuf::FileDescriptorProto file;
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &file));
    return pool_.BuildFile(file);
  }
  // The name of the file of a symbol, or an empty one.
  std::string FileOf(const std::string& symbol) {
    const auto file = index_.FindFileOfSymbol(symbol);
    return file.ok() ? (*file)->name() : "";
  }

  google::protobuf::DescriptorPool pool_;
  DescriptorIndex index_;
};

TEST_F(DescriptorIndexTest, SymbolsOfEveryKindLeadToTheirFile) {
  for (const char* symbol : {"test.Base", "test.Base.Run", "test.Request", "test.Request.Part",
                             "test.Request.Part.size", "test.Request.Kind", "test.Request.PLAIN"}) {
    EXPECT_EQ(FileOf(symbol), "test/base.proto") << symbol;
  }
  EXPECT_EQ(FileOf("test.first"), "test/more.proto");
}

TEST_F(DescriptorIndexTest, ExtensionsOfTheServicesPoolAreFoundByNumber) {
  const auto file = index_.FindFileOfExtension("test.Request", 120);
  const auto numbers = index_.ExtensionNumbers("test.Request");

  ASSERT_TRUE(file.ok() && numbers.ok());
  EXPECT_EQ((*file)->name(), "test/more.proto");
  EXPECT_THAT(*numbers, ElementsAre(101, 120));
}

TEST_F(DescriptorIndexTest, WhatIsUnknownIsNamed) {
  for (const auto& [status, name] :
       {std::pair(index_.FindFile("test/none.proto").status(), "test/none.proto"),
        std::pair(index_.FindFileOfSymbol("test.None").status(), "test.None"),
        std::pair(index_.FindFileOfExtension("test.None", 1).status(), "test.None"),
        std::pair(index_.FindFileOfExtension("test.Request", 199).status(), "199"),
        std::pair(index_.ExtensionNumbers("test.None").status(), "test.None")}) {
    EXPECT_EQ(status.code(), absl::StatusCode::kNotFound);
    EXPECT_TRUE(absl::StrContains(status.message(), name)) << status;
  }
}

TEST_F(DescriptorIndexTest, FilesThatNoServiceNeedsAreNotTold) {
  EXPECT_FALSE(index_.FindFile("test/unrelated.proto").ok());
  EXPECT_FALSE(index_.FindFileOfSymbol("test.Unrelated").ok());
}

TEST_F(DescriptorIndexTest, ServicesOfSeveralPoolsStandSideBySide) {
  index_.AddService(*::rpc::ProfileRpc::descriptor());

  EXPECT_THAT(index_.services(), ElementsAre("rpc.Profile", "test.Base"));
  EXPECT_EQ(FileOf("rpc.Profile.Path"), "rpc/profile/profile.proto");
  EXPECT_EQ(FileOf("google.protobuf.StringValue"), "google/protobuf/wrappers.proto");
  EXPECT_EQ(FileOf("test.Base"), "test/base.proto");
}

TEST_F(DescriptorIndexTest, SerializedFileIsTheOneThatDeclaresTheService) {
  index_.AddService(*::rpc::ProfileRpc::descriptor());
  const auto file = index_.FindFile("rpc/profile/profile.proto");
  ASSERT_TRUE(file.ok());
  google::protobuf::FileDescriptorProto expected;
  ::rpc::ProfileRpc::descriptor()->file()->CopyTo(&expected);

  google::protobuf::FileDescriptorProto found;
  ASSERT_TRUE(found.ParseFromString(index_.Serialized(**file)));

  EXPECT_EQ(found.DebugString(), expected.DebugString());
}

}  // namespace
}  // namespace varnic
