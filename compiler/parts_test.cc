#include "compiler/parts.h"

#include <gtest/gtest.h>

#include <string>

namespace varnic::compiler {
namespace {

Parts Parsed(const std::string& parameter) {
  const auto parts = ParseParts(parameter);
  EXPECT_TRUE(parts.ok()) << parts.status();
  return parts.value_or(Parts{false, false});
}

TEST(ParsePartsTest, NoOptionAsksForEverything) {
  EXPECT_TRUE(Parsed("").skeleton);
  EXPECT_TRUE(Parsed("").client);
}

TEST(ParsePartsTest, OneOptionAsksForThatAlone) {
  EXPECT_TRUE(Parsed("skeleton").skeleton);
  EXPECT_FALSE(Parsed("skeleton").client);
  EXPECT_FALSE(Parsed("client").skeleton);
  EXPECT_TRUE(Parsed("client").client);
}

// As protoc joins `--varnic_opt=client --varnic_opt=skeleton`.
TEST(ParsePartsTest, BothOptionsAskForBoth) {
  EXPECT_TRUE(Parsed("client,skeleton").skeleton);
  EXPECT_TRUE(Parsed("client,skeleton").client);
}

TEST(ParsePartsTest, OptionThatThereIsNotIsNamed) {
  EXPECT_EQ(ParseParts("fast").status().message(),
            "there is no option \"fast\", only \"skeleton\" and \"client\"");
  EXPECT_EQ(ParseParts("client,Skeleton").status().message(),
            "there is no option \"Skeleton\", only \"skeleton\" and \"client\"");
  EXPECT_EQ(ParseParts("client=1\n").status().message(),
            "there is no option \"client=1\\n\", only \"skeleton\" and \"client\"");
  EXPECT_EQ(ParseParts("client,").status().message(),
            "there is no option \"\", only \"skeleton\" and \"client\"");
}

}  // namespace
}  // namespace varnic::compiler
