#ifndef CORE_SERVER_MESSAGE_STOCK_H_
#define CORE_SERVER_MESSAGE_STOCK_H_

#include <google/protobuf/message.h>

#include <cstddef>
#include <memory>

namespace varnic {

// Keeps one message of a type for the next user: calls come and go, and most find here what the one
// before them has left, with the memory for its text.
//
// A message is used again only so often and only while it takes little memory, so what clients send
// cannot make it grow for ever; and only if it is of a generated class, as others must not outlive
// their factories, which are their services' own. Under AddressSanitizer none is, so that it sees
// who uses a message that is no longer his. One thread only.
class MessageStock {
 public:
  static constexpr std::size_t kMaxBytes = 1 << 10;  // On the wire.
  static constexpr std::size_t kMaxMemory = 4 << 10;

  // An empty message of `prototype`'s type.
  std::unique_ptr<google::protobuf::Message> Take(const google::protobuf::Message& prototype);
  // Who has put into a message what it holds.
  enum class Filler { kHost, kParser };

  // Gives back what Take() gave. `bytes`: its size on the wire, or 0 if it never was there; a large
  // one spares a look at how much memory the message takes.
  void Give(std::unique_ptr<google::protobuf::Message> message, std::size_t bytes,
            Filler filler = Filler::kHost);

 private:
  static constexpr int kMaxUses = 100;

  void Adopt(const google::protobuf::Message& prototype);
  bool IsWorthKeeping(const google::protobuf::Message& message, std::size_t bytes,
                      Filler filler) const;
  bool IsSmall(const google::protobuf::Message& message, Filler filler) const;

  // Of what was taken last; no reflection if its messages are not kept.
  const google::protobuf::Message* prototype_ = nullptr;
  const google::protobuf::Reflection* reflection_ = nullptr;
  bool stays_small_ = false;  // What comes from the wire cannot make them take much memory.
  bool is_mixed_ = false;     // Messages of more than one prototype were taken.
  std::unique_ptr<google::protobuf::Message> message_;
  int uses_ = 0;
};

}  // namespace varnic

#endif  // CORE_SERVER_MESSAGE_STOCK_H_
