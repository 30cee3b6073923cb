#ifndef BENCH_SIDE_BY_SIDE_SCENARIO_H_
#define BENCH_SIDE_BY_SIDE_SCENARIO_H_

#include <cstddef>
#include <cstdlib>
#include <string>

// What the systems that are compared do, and the messages with which they do it. The gRPC servers
// serve rpc.Profile, and read its methods so:
//
//   Name(text)            answers with the same text
//   Path(key)             publishes one event under the key, and answers with the number of streams
//                         to which it went
//   IsDefault(key)        asks the stream that answers for the key as many questions as the key
//                         says, and a new one for each answer; NOT_FOUND if nobody answers
//   WhenNetworkChanged    a stream of events, subscribed by key
//   OnCanAccessFile       a stream of questions, answered by key
//
// A server takes its address as the first argument, "unix:PATH" or "127.0.0.1:0", and prints the
// address that it got when clients may connect.
namespace varnic::bench {

// Of a request, a response and an event. A question has 64 to 67, by its call id, and its answer
// ten fewer.
constexpr std::size_t kMessageBytes = 64;
// With two bytes before it, a message of kMessageBytes.
constexpr std::size_t kTextBytes = 62;
// Makes an event of kMessageBytes.
constexpr std::size_t kKeyBytes = 44;

inline std::string PaddedKey(std::string key) {
  key.resize(kKeyBytes, '.');
  return key;
}
inline std::string EventKey() {
  return PaddedKey("events");
}

constexpr char kQuestionKeyPrefix[] = "questions ";
// The key for which `open` questions are to be open all the time.
inline std::string QuestionKey(int open) {
  return PaddedKey(kQuestionKeyPrefix + std::to_string(open) + " ");
}
inline int OpenQuestions(const std::string& key) {
  if (key.size() <= sizeof(kQuestionKeyPrefix)) return 0;
  return std::atoi(key.c_str() + sizeof(kQuestionKeyPrefix) - 1);
}

// The event of `key`; Event is rpc::NetworkChanged.
template <class Event>
Event MakeEvent(const std::string& key) {
  Event event;
  event.mutable_profile_id()->set_value(key);
  event.set_online(true);
  event.set_connection_type(Event::ETHERNET);
  auto* interface = event.add_interfaces();
  interface->set_name("eth0");
  interface->set_up(true);
  event.set_effective_type(Event::EFFECTIVE_4G);
  return event;
}

// What a question asks; Request is rpc::CanAccessFile::Request.
template <class Request>
Request MakeRequest() {
  Request request;
  request.set_path("/tmp/f.x");
  request.set_access(static_cast<decltype(request.access())>(1));
  return request;
}

}  // namespace varnic::bench

#endif  // BENCH_SIDE_BY_SIDE_SCENARIO_H_
