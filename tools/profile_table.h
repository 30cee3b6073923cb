#ifndef TOOLS_PROFILE_TABLE_H_
#define TOOLS_PROFILE_TABLE_H_

#include <string>

#include "rpc/host/browser_host.pb.h"

// What a host has, for people: a table with a line for each thing, below one with the names of the
// columns. Texts of others are words, as SafeWord() and ShortWord() write them.
namespace varnic::tools {

// Id, name, state and number of browsers:
//   ID                   NAME        STATE                 BROWSERS
//   default              Ada         default, running      2
//   default-incognito-1  Ada         incognito, running    1
//   profile-1            "For work"  -                     0
std::string FormatProfiles(const rpc::ProfileList& list);

// Id, profile, kind ("window" or "headless"), address and title.
std::string FormatBrowsers(const rpc::BrowserList& list);

// The id alone, in a line.
std::string FormatProfileId(const rpc::ProfileInfo& profile);

// "default, running"; empty if there is nothing to say.
std::string ProfileState(const rpc::ProfileInfo& profile);

// "window" or "headless".
std::string BrowserKind(const rpc::BrowserInfo& browser);

}  // namespace varnic::tools

#endif  // TOOLS_PROFILE_TABLE_H_
