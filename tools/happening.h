#ifndef TOOLS_HAPPENING_H_
#define TOOLS_HAPPENING_H_

#include <cstddef>
#include <optional>
#include <string>

#include "absl/time/time.h"
#include "nlohmann/json.hpp"

namespace varnic::tools {

// One thing that a long-running command tells, on a line of its own: for people, or as a JSON
// object for programs.
struct Happening {
  // What programs tell it by: "network".
  std::string type;
  // Whose it is; none: the connection's.
  std::optional<std::string> profile;
  // Fit for a terminal, without time and profile.
  std::string for_people;
  // What the object has besides "time", "type" and "profile".
  nlohmann::ordered_json fields = nlohmann::ordered_json::object();
};

// How people read a profile's id: "(default)" for the empty one.
std::string ProfileLabel(const std::string& profile);

// "2026-11-21 08:46:11  Profile1   online ..."; the profile's column has `profile_width` characters
// at least. A line about the connection says who speaks instead: "varnicctl: connected".
std::string LineForPeople(const Happening& happening, absl::Time time, const absl::TimeZone& zone,
                          std::size_t profile_width);

// {"time":"2026-11-21T07:46:11.123Z","type":"network","profile":"Profile 1",...}, in ASCII, so that
// it does no harm on a terminal either.
std::string LineForPrograms(const Happening& happening, absl::Time time);

// Of UTF-8.
std::size_t CharacterCount(const std::string& text);

// `text` and as many blanks as it lacks of `width` characters.
std::string Pad(const std::string& text, std::size_t width);

}  // namespace varnic::tools

#endif  // TOOLS_HAPPENING_H_
