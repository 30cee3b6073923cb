#ifndef CORE_COMMON_RPC_OBSERVED_KEY_TEST_SUPPORT_H_
#define CORE_COMMON_RPC_OBSERVED_KEY_TEST_SUPPORT_H_

#include <google/protobuf/message.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "rpc/identifiers.pb.h"

namespace varnic::testing {

// What happened to an ObservedKey and to all its clones.
struct KeyLog {
  int live = 0;
  int clones = 0;  // Made by New().
  int copies = 0;  // Filled by CopyFrom().
  std::vector<const google::protobuf::Message*> deleted;
  // Called by each destructor.
  std::function<void()> on_delete = [] {};
};

// A key that tells what is done with it. By content it is the ProfileId that it is made from, so a
// table finds it with an ordinary ProfileId. It has no reflection: only tables may use it.
class ObservedKey final : public google::protobuf::Message {
 public:
  ObservedKey(KeyLog& log, const ProfileId& content) : log_(log), content_(content) { ++log_.live; }
  ~ObservedKey() override {
    --log_.live;
    log_.deleted.push_back(this);
    log_.on_delete();
  }

  // How often anybody asked for this object's type or content.
  int reads() const { return reads_; }

  ObservedKey* New(google::protobuf::Arena* /*arena*/) const override {
    ++log_.clones;
    return new ObservedKey(log_, ProfileId());
  }
  google::protobuf::Metadata GetMetadata() const override {
    ++reads_;
    return {ProfileId::descriptor(), /*reflection=*/nullptr};
  }
  std::size_t ByteSizeLong() const override {
    ++reads_;
    return content_.ByteSizeLong();
  }
  int GetCachedSize() const override { return content_.GetCachedSize(); }
  std::uint8_t* _InternalSerialize(
      std::uint8_t* target, google::protobuf::io::EpsCopyOutputStream* stream) const override {
    return content_._InternalSerialize(target, stream);
  }

 private:
  const ClassData* GetClassData() const override {
    static const ClassData class_data = {&Copy, /*merge_to_from=*/nullptr};
    return &class_data;
  }
  static void Copy(Message& to, const Message& from) {
    auto& copy = static_cast<ObservedKey&>(to);
    copy.content_ = static_cast<const ObservedKey&>(from).content_;
    ++copy.log_.copies;
  }

  KeyLog& log_;
  ProfileId content_;
  mutable int reads_ = 0;
};

}  // namespace varnic::testing

#endif  // CORE_COMMON_RPC_OBSERVED_KEY_TEST_SUPPORT_H_
