#ifndef FUZZ_FUZZ_INPUT_H_
#define FUZZ_FUZZ_INPUT_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace varnic::fuzz {

// Takes an input apart into decisions and texts, from front to end. At the end there are only zeros
// and empty texts. What it hands out are views into the input.
class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  bool empty() const { return rest_.empty(); }

  uint8_t TakeByte() {
    const std::string_view byte = TakeBytes(1);
    return byte.empty() ? 0 : static_cast<uint8_t>(byte[0]);
  }
  bool TakeBool() { return (TakeByte() & 1) != 0; }
  // Fewer than `limit`, which is 256 at most.
  std::size_t TakeBelow(std::size_t limit) { return TakeByte() % limit; }
  int64_t TakeInt64() {
    uint64_t number = 0;
    for (int i = 0; i < 8; ++i) number = number << 8 | TakeByte();
    return static_cast<int64_t>(number);
  }
  std::string_view TakeBytes(std::size_t size) {
    const std::string_view bytes = rest_.substr(0, size);
    rest_.remove_prefix(bytes.size());
    return bytes;
  }
  // A byte that says how long it is, and then as much.
  std::string_view TakePiece() { return TakeBytes(TakeByte()); }
  std::string_view TakeRest() { return TakeBytes(rest_.size()); }

 private:
  std::string_view rest_;
};

}  // namespace varnic::fuzz

#endif  // FUZZ_FUZZ_INPUT_H_
