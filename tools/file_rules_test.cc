#include "tools/file_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace varnic::tools {
namespace {

using ::testing::HasSubstr;
using Decision = FileVerdict::Decision;

FileRules Rules(const std::vector<std::string>& allow, const std::vector<std::string>& deny,
                bool ask = false) {
  auto rules = FileRules::Make(allow, deny, ask);
  EXPECT_TRUE(rules.ok()) << rules.status();
  return *std::move(rules);
}

TEST(FileRulesTest, AllowedIsWhatAnAllowGlobMatches) {
  const FileRules rules = Rules({"/a/*", "/b/**"}, {});

  EXPECT_EQ(rules.Judge("/a/x").decision, Decision::kAllow);
  EXPECT_EQ(rules.Judge("/b/x/y").decision, Decision::kAllow);
  EXPECT_EQ(rules.Judge("/b/x/y").reason, "--allow /b/**");
  EXPECT_EQ(rules.Judge("/a/x/y").decision, Decision::kDeny);
}

TEST(FileRulesTest, DenyWinsOverAllow) {
  const FileRules rules = Rules({"/home/**"}, {"**/*.key"});

  EXPECT_EQ(rules.Judge("/home/zoë/a.key").decision, Decision::kDeny);
  EXPECT_EQ(rules.Judge("/home/zoë/a.key").reason, "--deny **/*.key");
  EXPECT_EQ(rules.Judge("/home/zoë/a.txt").decision, Decision::kAllow);
}

TEST(FileRulesTest, DenyOfAFolderDeniesWhatIsInIt) {
  const FileRules rules = Rules({"/home/**"}, {"/home/*/.ssh"});

  EXPECT_EQ(rules.Judge("/home/zoë/.ssh").decision, Decision::kDeny);
  EXPECT_EQ(rules.Judge("/home/zoë/.ssh/id").decision, Decision::kDeny);
  EXPECT_EQ(rules.Judge("/home/zoë/.ssh/").decision, Decision::kDeny);
}

TEST(FileRulesTest, DenyWithASlashAtItsEndDeniesTheFolder) {
  for (const auto& [deny, path] :
       std::vector<std::pair<std::string, std::string>>{{"/etc/", "/etc/motd"},
                                                        {"/home/*/.ssh/", "/home/zoë/.ssh/id"},
                                                        {"**/.ssh/", "/home/zoë/.ssh/id"},
                                                        {"/", "/home/zoë"}}) {
    const FileRules rules = Rules({"/**"}, {deny});

    EXPECT_EQ(rules.Judge(path).decision, Decision::kDeny) << deny;
    EXPECT_EQ(rules.Judge(path).reason, "--deny " + deny);
  }
  EXPECT_EQ(Rules({"/**"}, {"/etc/"}).Judge("/etcetera").decision, Decision::kAllow);
}

TEST(FileRulesTest, WhatNoRuleMatchesIsDeniedUnlessAPersonIsAsked) {
  EXPECT_EQ(Rules({"/a"}, {}).Judge("/b").decision, Decision::kDeny);
  EXPECT_EQ(Rules({"/a"}, {}).Judge("/b").reason, "no rule matches");
  EXPECT_EQ(Rules({"/a"}, {}, /*ask=*/true).Judge("/b").decision, Decision::kAskPerson);
}

TEST(FileRulesTest, RulesComeBeforeThePerson) {
  const FileRules rules = Rules({"/a"}, {"/b"}, /*ask=*/true);

  EXPECT_EQ(rules.Judge("/a").decision, Decision::kAllow);
  EXPECT_EQ(rules.Judge("/b").decision, Decision::kDeny);
}

TEST(FileRulesTest, SlashAtTheEndDoesNotCount) {
  const FileRules rules = Rules({"/a/b", "/"}, {});

  EXPECT_EQ(rules.Judge("/a/b/").decision, Decision::kAllow);
  EXPECT_EQ(rules.Judge("/").decision, Decision::kAllow);
  EXPECT_EQ(rules.Judge("//").decision, Decision::kDeny);
}

TEST(FileRulesTest, PathThatIsNotPlainIsDeniedUnasked) {
  const FileRules rules = Rules({"**"}, {}, /*ask=*/true);

  for (const std::string& path :
       {std::string(), std::string("etc/motd"), std::string("/a/../etc/motd"),
        std::string("/a/./b"), std::string("/a//b"), std::string("/a/.."), std::string("/a//"),
        std::string("/a\0b", 4), std::string("file:///a"), "/" + std::string(5000, 'a')}) {
    EXPECT_EQ(rules.Judge(path).decision, Decision::kDeny) << path;
    EXPECT_EQ(rules.Judge(path).reason, "not a plain absolute path") << path;
  }
  EXPECT_EQ(rules.Judge("/a/..b/...").decision, Decision::kAllow);
}

TEST(FileRulesTest, WrongGlobIsNamedWithItsOption) {
  EXPECT_THAT(FileRules::Make({"/a["}, {}, false).status().message(),
              HasSubstr("--allow: glob /a["));
  EXPECT_THAT(FileRules::Make({}, {"/home//a"}, false).status().message(),
              HasSubstr("--deny: glob /home//a: it has an empty name"));
  EXPECT_THAT(FileRules::Make({}, {"b"}, false).status().message(), HasSubstr("--deny: glob b"));
}

}  // namespace
}  // namespace varnic::tools
