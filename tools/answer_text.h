#ifndef TOOLS_ANSWER_TEXT_H_
#define TOOLS_ANSWER_TEXT_H_

#include <google/protobuf/message.h>

#include <string>

namespace varnic::tools {

// An answer for people: the value of a single-valued message alone; a line for each field of any
// other; nothing for an empty one. No text in it breaks a line or reaches the terminal's controls.
std::string FormatAnswerForPeople(const google::protobuf::Message& answer);
// An answer for programs: the message's JSON form, in one line.
std::string FormatAnswerAsJson(const google::protobuf::Message& answer);

}  // namespace varnic::tools

#endif  // TOOLS_ANSWER_TEXT_H_
