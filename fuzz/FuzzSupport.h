// What the fuzz targets share: a failed check prints why on standard output
// and traps, so that libFuzzer records the input as a crash.
//
// Standard output, because the targets run with -close_fd_mask=2: the
// library's own complaints about bad input (an invalid TRACEFORMAT field, an
// assertion's trace line) would otherwise flood the log, while libFuzzer and
// the sanitizers keep reporting on a copy of standard error.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <fmt/format.h>

#define FUZZ_CHECK(condition, ...)                                                \
  do {                                                                            \
    if (!(condition)) {                                                           \
      fmt::print("{}:{}: check failed: {}: {}\n", __FILE__, __LINE__, #condition, \
                 fmt::format(__VA_ARGS__));                                       \
      std::fflush(stdout);                                                        \
      __builtin_trap();                                                           \
    }                                                                             \
  } while (0)

namespace TamloFuzz {

// Reads the input front to back; past the end every read gives zero, so a
// short input is simply a short run of operations.
class ByteReader {
 public:
  ByteReader(uint8_t const* data, size_t size) : data_(data), size_(size) {}

  bool empty() const { return offset_ >= size_; }
  uint8_t byte() { return offset_ < size_ ? data_[offset_++] : 0; }
  template <typename T>
  T value() {
    T result{};
    size_t const count = std::min(sizeof(T), size_ - std::min(offset_, size_));
    std::memcpy(&result, data_ + offset_, count);
    offset_ += count;
    return result;
  }

 private:
  uint8_t const* data_;
  size_t size_;
  size_t offset_ = 0;
};

// The input as a C string: the library's setters take one, so the text ends
// at the first NUL byte.
inline std::string cString(uint8_t const* data, size_t size) {
  return std::string(reinterpret_cast<char const*>(data),
                     strnlen(reinterpret_cast<char const*>(data), size));
}

}  // namespace TamloFuzz
