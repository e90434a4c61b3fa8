// Shared by the detection driver, the media access layer and the detectors.
#ifndef GUESTPREP_LIB_GUESSINTERNAL_H
#define GUESTPREP_LIB_GUESSINTERNAL_H

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "guestprep/guess.h"
#include "platform/log/log.h"

// An impossible medium kind: the process ends, naming this subsystem's source.
#define GUESS_NOT_REACHED() Panic("NOT_REACHED %s:%d \n", "lib/guessGuest/guess.cc", __LINE__)

namespace guess {

// ASCII case conversion of a copy (image names are compared the same way
// whatever locale the host process runs in).
std::string ToUpper(std::string s);
std::string ToLower(std::string s);

// Runs the detectors in their fixed order on an open medium; true when one
// recognised it. Guess_Guest and the fuzzer (which opens images from memory)
// share it.
bool RunDetectors(GuessMedium *medium, GuessInfo *info);

// Case-sensitive tests on marker texts.
inline bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}
inline bool Contains(std::string_view text, std::string_view needle) {
  return text.find(needle) != std::string_view::npos;
}

// Writes text into a fixed-size field, truncated to fit, always terminated.
template <size_t N>
void SetField(char (&field)[N], std::string_view text) {
  size_t n = text.size() < N - 1 ? text.size() : N - 1;
  memcpy(field, text.data(), n);
  field[n] = '\0';
}

// A whole file read from the medium (null when absent), freed on scope exit.
struct FreeDeleter {
  void operator()(char *p) const { free(p); }
};
class MediumFile {
 public:
  MediumFile() = default;
  MediumFile(char *data, uint64_t size) : data_(data), size_(size) {}
  static MediumFile Read(GuessMedium *medium, const char *path);
  explicit operator bool() const { return data_ != nullptr; }
  std::string_view view() const {
    return data_ ? std::string_view(data_.get(), static_cast<size_t>(size_)) : std::string_view();
  }
  // The text up to its first NUL, as the C string functions would see it.
  std::string_view text() const {
    return data_ ? std::string_view(data_.get()) : std::string_view();
  }
  bool contains(std::string_view needle) const {
    return text().find(needle) != std::string_view::npos;
  }

 private:
  std::unique_ptr<char, FreeDeleter> data_;
  uint64_t size_ = 0;
};

}  // namespace guess

#endif
