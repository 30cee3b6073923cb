#include "tools/happening.h"

#include <algorithm>

#include "absl/strings/str_cat.h"
#include "tools/message_json.h"
#include "tools/safe_text.h"

namespace varnic::tools {

std::string ProfileLabel(const std::string& profile) {
  return profile.empty() ? "(default)" : SafeWord(profile);
}

std::string LineForPeople(const Happening& happening, absl::Time time, const absl::TimeZone& zone,
                          std::size_t profile_width) {
  const std::string who =
      happening.profile.has_value()
          ? absl::StrCat(Pad(ProfileLabel(*happening.profile), profile_width), "  ")
          : "varnicctl: ";
  return absl::StrCat(absl::FormatTime("%Y-%m-%d %H:%M:%S", time, zone), "  ", who,
                      happening.for_people, "\n");
}

std::string LineForPrograms(const Happening& happening, absl::Time time) {
  nlohmann::ordered_json object = {
      {"time", absl::FormatTime("%Y-%m-%dT%H:%M:%E3SZ", time, absl::UTCTimeZone())},
      {"type", happening.type}};
  if (happening.profile.has_value()) object["profile"] = *happening.profile;
  for (const auto& [key, value] : happening.fields.items()) object[key] = value;
  return JsonLine(object);
}

std::size_t CharacterCount(const std::string& text) {
  // All bytes but those that continue a character.
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

std::string Pad(const std::string& text, std::size_t width) {
  const std::size_t characters = CharacterCount(text);
  return characters < width ? text + std::string(width - characters, ' ') : text;
}

}  // namespace varnic::tools
