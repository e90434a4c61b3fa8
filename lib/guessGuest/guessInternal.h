// Shared by the detection driver, the media access layer and the detectors.
//
// Detectors see the medium only through guess::Medium below: they ask
// whether a file or directory exists, read the first bytes of a marker file
// and list a directory; none of them pairs opens and closes by hand.
//
// What a detector returns (every Guess_<family> operation): true exactly
// when info->osKey is set on return. One that does not recognise the medium
// leaves osKey as it found it (null when run by Guess_Guest) and returns
// osKey != null; it may leave text fields (versionText, language, editions)
// written.
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
#include "platform/util/str.h"

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

// Tests on marker texts: case-sensitive, and ASCII-caseless for names the
// installers wrote in whatever case a release used.
inline bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}
inline bool Contains(std::string_view text, std::string_view needle) {
  return text.find(needle) != std::string_view::npos;
}
bool CaselessStartsWith(std::string_view text, std::string_view prefix);

// Writes text into a fixed-size field, truncated to fit, always terminated.
template <size_t N>
void SetField(char (&field)[N], std::string_view text) {
  size_t n = text.size() < N - 1 ? text.size() : N - 1;
  memcpy(field, text.data(), n);
  field[n] = '\0';
}

using gp::FreeDeleter;

// The keys of one row of a detector's table by architecture (the values of
// Guess_ELF_Arch); null where the row has no key for it.
struct ArchKeys {
  const char *x86 = nullptr;
  const char *x86_64 = nullptr;
  const char *arm64 = nullptr;
  const char *For(GuessElfArch arch) const {
    switch (arch) {
      case GUESS_ARCH_X86:
        return x86;
      case GUESS_ARCH_X86_64:
        return x86_64;
      case GUESS_ARCH_ARM64:
        return arm64;
      default:
        return nullptr;
    }
  }
};

// How much of a marker file a detector reads unless it says otherwise: the
// release, build and product files detectors look at are a few kilobytes,
// and whatever a hostile image claims, no more than this is read.
constexpr size_t kMarkerBytes = 64u << 10;

// The first bytes of a marker file (all of it when it is smaller than the
// cap it was read with); empty and false when the file is absent.
class MediumFile {
 public:
  MediumFile() = default;
  MediumFile(std::string data) : data_(std::move(data)), present_(true) {}
  explicit operator bool() const { return present_; }
  std::string_view view() const { return data_; }
  // The text up to its first NUL, as the C string functions would see it.
  std::string_view text() const { return std::string_view(data_.c_str()); }
  bool contains(std::string_view needle) const { return Contains(text(), needle); }

 private:
  std::string data_;
  bool present_ = false;
};

// Detection's view of an open medium. Paths are relative to the root ("" or
// "/" is the root); a directory path is tried as given, then upper-cased,
// then lower-cased, and so is a file name read with Read.
class Medium {
 public:
  explicit Medium(GuessMedium *medium) : medium_(medium) {}

  // An open directory, closed when it goes out of scope.
  class Dir {
   public:
    Dir(GuessMedium *medium, GuessDir *dir) : medium_(medium), dir_(dir) {}
    Dir(Dir &&other) noexcept : medium_(other.medium_), dir_(other.dir_) { other.dir_ = nullptr; }
    Dir(const Dir &) = delete;
    Dir &operator=(const Dir &) = delete;
    ~Dir() {
      if (dir_ != nullptr) {
        Guess_CloseDir(medium_, dir_);
      }
    }
    explicit operator bool() const { return dir_ != nullptr; }
    // The next entry's name (valid until the next call), null at the end.
    const char *Next() { return dir_ != nullptr ? Guess_ReadDir(medium_, dir_) : nullptr; }

   private:
    GuessMedium *medium_;
    GuessDir *dir_;
  };

  Dir Open(std::string_view path) const;
  bool DirExists(std::string_view path) const { return static_cast<bool>(Open(path)); }
  // The file name in dir, by its name exactly as given (names inside a
  // directory are compared ignoring case on ISO 9660 media, exactly on UDF).
  bool Exists(std::string_view dir, std::string_view name) const;
  // Some entry of dir whose name starts with prefix, ignoring case.
  bool HasEntryWithPrefix(std::string_view dir, std::string_view prefix) const;
  // At most maxBytes from the start of the file at path.
  MediumFile Read(std::string_view path, size_t maxBytes = kMarkerBytes) const;

  // The ISO 9660 volume identifier; empty on UDF media.
  std::string VolumeId() const;

 private:
  GuessMedium *medium_;
};

}  // namespace guess

#endif
