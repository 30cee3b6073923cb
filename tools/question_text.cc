#include "tools/question_text.h"

#include "absl/strings/ascii.h"
#include "absl/strings/str_cat.h"
#include "tools/message_json.h"
#include "tools/safe_text.h"

namespace varnic::tools {
namespace {

// What decides has to be seen: a longer path is denied unasked.
constexpr std::size_t kLongestPath = 4096;

constexpr std::size_t kAnswerWidth = 9;  // "cancelled", "withdrawn".

std::string AccessText(rpc::CanAccessFile::Access access) {
  if (access == rpc::CanAccessFile::ACCESS_UNSPECIFIED) return "access";
  const std::string& name = rpc::CanAccessFile::Access_Name(access);
  return name.empty() ? absl::StrCat("access", access) : absl::AsciiStrToLower(name);
}

std::string ChallengerText(const rpc::Authenticate::Request& request) {
  return absl::StrCat(request.is_proxy() ? "proxy " : "server ",
                      ShortWord(request.challenger_host()), ":", request.challenger_port());
}

std::string ReasonText(const std::string& reason) {
  return reason.empty() ? "" : absl::StrCat("  (", EscapeUnprintable(reason), ")");
}

}  // namespace

std::string AskAboutFile(const std::string& profile, const rpc::CanAccessFile::Request& request) {
  return absl::StrCat("May the page of ", ShortWord(request.origin()), " ",
                      AccessText(request.access()), " ", ShortWord(request.path(), kLongestPath),
                      "? Profile ", ProfileLabel(profile), " [y/N] ");
}

std::string AskForCredentials(const std::string& profile,
                              const rpc::Authenticate::Request& request) {
  return absl::StrCat("Credentials for the ", ChallengerText(request), " (",
                      ShortWord(request.scheme()), ", realm ", ShortWord(request.realm()),
                      "), page ", ShortWord(request.url()), ", profile ", ProfileLabel(profile));
}

Happening DescribeFileAnswer(const std::string& profile, const rpc::CanAccessFile::Request& request,
                             const std::string& answer, const std::string& reason) {
  const std::string text =
      absl::StrCat(Pad(answer, kAnswerWidth), "  ", Pad(AccessText(request.access()), 6), "  ",
                   ShortWord(request.path(), kLongestPath), "  for ", ShortWord(request.origin()),
                   ReasonText(reason));
  return {"file",
          profile,
          text,
          {{"request", MessageToJsonValue(request)}, {"answer", answer}, {"reason", reason}}};
}

Happening DescribeCredentialsAnswer(const std::string& profile,
                                    const rpc::Authenticate::Request& request,
                                    const std::string& answer, const std::string& username,
                                    const std::string& reason) {
  const std::string text =
      absl::StrCat(Pad(answer, kAnswerWidth), "  ", Pad(ShortWord(request.scheme()), 9), "  ",
                   ChallengerText(request), "  realm ", ShortWord(request.realm()),
                   username.empty() ? "" : absl::StrCat("  as ", ShortWord(username)), "  page ",
                   ShortWord(request.url()), ReasonText(reason));
  return {"credentials",
          profile,
          text,
          {{"request", MessageToJsonValue(request)},
           {"answer", answer},
           {"username", username},
           {"reason", reason}}};
}

}  // namespace varnic::tools
