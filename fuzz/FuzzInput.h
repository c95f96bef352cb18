// Reads a fuzzer's input as a stream of small decisions and byte strings. Past the end every read
// gives zero or empty, so a target never has to check the length before it reads.
#ifndef NORVANE_FUZZ_FUZZINPUT_H_
#define NORVANE_FUZZ_FUZZINPUT_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  bool Empty() const { return pos_ >= size_; }
  std::uint8_t Byte() { return Empty() ? 0 : data_[pos_++]; }
  // At most count bytes.
  std::string Bytes(std::size_t count) {
    const std::size_t taken = std::min(count, size_ - std::min(pos_, size_));
    std::string bytes(reinterpret_cast<const char*>(data_ + pos_), taken);
    pos_ += taken;
    return bytes;
  }
  // A length byte, then that many bytes.
  std::string ShortText() { return Bytes(Byte()); }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
};

#endif  // NORVANE_FUZZ_FUZZINPUT_H_
