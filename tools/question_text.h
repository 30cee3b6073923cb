#ifndef TOOLS_QUESTION_TEXT_H_
#define TOOLS_QUESTION_TEXT_H_

#include <string>

#include "rpc/profile/profile.pb.h"
#include "tools/happening.h"

// How the host's questions, and what became of them, read. Pages have written the paths, origins,
// URLs and realms in them, so each of them is a ShortWord(); paths are shown whole up to 4096
// bytes.
namespace varnic::tools {

// "May the page of https://example.com read /etc/motd? Profile (default) [y/N] ".
std::string AskAboutFile(const std::string& profile, const rpc::CanAccessFile::Request& request);

// "Credentials for the server example.com:443 (basic, realm Staff), page https://example.com/,
// profile (default)".
std::string AskForCredentials(const std::string& profile,
                              const rpc::Authenticate::Request& request);

// What became of a question about a file: `answer` is "allow", "deny" or "withdrawn".
//
//   allow      read   /etc/motd  for https://example.com  (--allow /etc/**)
//
// For programs: type "file", with "request" (its JSON form), "answer" and "reason".
Happening DescribeFileAnswer(const std::string& profile, const rpc::CanAccessFile::Request& request,
                             const std::string& answer, const std::string& reason);

// What became of a question for credentials: `answer` is "sent", "cancelled", "failed" or
// "withdrawn"; `username` is empty unless credentials were sent.
//
//   sent       basic      server example.com:443  realm Staff  as alice  page https://example.com/
//
// For programs: type "credentials", with "request", "answer", "username" and "reason". Never the
// password.
Happening DescribeCredentialsAnswer(const std::string& profile,
                                    const rpc::Authenticate::Request& request,
                                    const std::string& answer, const std::string& username,
                                    const std::string& reason);

}  // namespace varnic::tools

#endif  // TOOLS_QUESTION_TEXT_H_
