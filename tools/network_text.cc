#include "tools/network_text.h"

#include <string>

#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "absl/strings/str_replace.h"
#include "absl/strings/strip.h"
#include "tools/message_json.h"
#include "tools/safe_text.h"

namespace varnic::tools {
namespace {

using rpc::NetworkChanged;

// "CELLULAR_4G" is "cellular 4g" for people; a value that this program does not know, its number.
std::string ValueText(const std::string& name, int value) {
  if (name.empty()) return absl::StrCat("type ", value);
  if (absl::EndsWith(name, "_UNKNOWN")) return "unknown";
  const std::string words = absl::StrReplaceAll(name, {{"EFFECTIVE_", ""}, {"_", " "}});
  return absl::AsciiStrToLower(words);
}

std::string ConnectionText(NetworkChanged::ConnectionType type) {
  return ValueText(NetworkChanged::ConnectionType_Name(type), type);
}

std::string InterfaceText(const NetworkChanged::Interface& interface) {
  std::string text =
      absl::StrCat(SafeWord(interface.name()), " ", ConnectionText(interface.connection_type()));
  for (const std::string& address : interface.addresses()) {
    absl::StrAppend(&text, " ", SafeWord(address));
  }
  return text + (interface.up() ? "" : " down");
}

std::string TextForPeople(const NetworkChanged& event) {
  const std::string effective =
      ValueText(NetworkChanged::EffectiveType_Name(event.effective_type()), event.effective_type());
  // A host that does not know says 0, and this is how that reads.
  const std::string downlink = event.max_downlink_mbps() == 0
                                   ? "-"
                                   : absl::StrFormat("%g Mbit/s", event.max_downlink_mbps());
  std::string interfaces;
  for (const NetworkChanged::Interface& interface : event.interfaces()) {
    absl::StrAppend(&interfaces, interfaces.empty() ? "" : "; ", InterfaceText(interface));
  }
  const std::string text =
      absl::StrCat(Pad(event.online() ? "online" : "offline", 7), "  ",
                   Pad(ConnectionText(event.connection_type()), 11), "  ", Pad(effective, 7), "  ",
                   Pad(downlink, 11), "  ", interfaces);
  return std::string(absl::StripTrailingAsciiWhitespace(text));
}

}  // namespace

Happening DescribeNetworkChange(const NetworkChanged& event) {
  NetworkChanged change = event;
  change.clear_profile_id();
  return {"network",
          event.profile_id().value(),
          TextForPeople(event),
          {{"change", MessageToJsonValue(change)}}};
}

}  // namespace varnic::tools
