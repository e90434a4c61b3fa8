/*
 * Positioned, read-only access to an image (a file, a caller's callbacks, a
 * memory buffer). Every image reader (ISO 9660, UDF) reads only through
 * this interface, so tests and benchmarks can swap in a failing or a
 * counting reader, and fuzzers a buffer.
 */
#ifndef GUESTPREP_PLATFORM_IMAGEREADER_H
#define GUESTPREP_PLATFORM_IMAGEREADER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace gp {

class ImageReader {
 public:
  virtual ~ImageReader() = default;

  // Reads exactly len bytes at offset. False on an I/O error or when the
  // range is not wholly inside the image (a short read is a failure).
  virtual bool ReadAt(uint64_t offset, void *buf, size_t len) = 0;

  // Size of the image in bytes, or kUnknownSize when the source cannot
  // tell (callback readers); readers then rely on the sizes recorded in the
  // image and on ReadAt failing past the end.
  virtual uint64_t Size() const = 0;

  // Releases the source. Returns false when the source reports a failure
  // on close. Called at most once; the destructor closes if nobody did.
  virtual bool Close() { return true; }

  static constexpr uint64_t kUnknownSize = UINT64_MAX;
};

// Opens a host file read-only. Null (with *error set) on failure.
std::unique_ptr<ImageReader> OpenFileImageReader(const char *path, std::string *error);

// Reads from a caller-owned buffer, which must outlive the reader.
std::unique_ptr<ImageReader> MakeMemoryImageReader(std::span<const uint8_t> data);

// The caller's callbacks: read exactly len bytes at offset (true on
// success); close the handle (true on success). close may be null.
using ImageReadFn = bool (*)(void *handle, void *buf, size_t len, uint64_t offset);
using ImageCloseFn = bool (*)(void *handle);
// The reader owns the handle from here on: Close() (or destruction) calls
// closeFn exactly once.
std::unique_ptr<ImageReader> MakeCallbackImageReader(ImageReadFn readFn, ImageCloseFn closeFn,
                                                     void *handle, uint64_t size);

// Reads through another reader without owning it (one open image probed by
// several format readers in turn); inner must outlive it. Close() is a no-op.
std::unique_ptr<ImageReader> MakeBorrowedImageReader(ImageReader &inner);

// Wraps another reader and counts the calls and bytes that pass through it
// (benchmarks report the bytes an operation really read). With a limit, a
// read that would take the total past it fails instead: whatever an image
// says, the operation reads at most limit bytes.
class CountingImageReader : public ImageReader {
 public:
  explicit CountingImageReader(std::unique_ptr<ImageReader> inner, uint64_t limit = UINT64_MAX)
      : inner_(std::move(inner)), limit_(limit) {}
  bool ReadAt(uint64_t offset, void *buf, size_t len) override {
    if (len > limit_ - bytes_) {
      exhausted_ = true;
      return false;
    }
    ++reads_;
    bytes_ += len;
    return inner_->ReadAt(offset, buf, len);
  }
  uint64_t Size() const override { return inner_->Size(); }
  bool Close() override { return inner_->Close(); }
  uint64_t reads() const { return reads_; }
  uint64_t bytes() const { return bytes_; }
  // True once a read was refused for the limit.
  bool exhausted() const { return exhausted_; }
  void Reset() {
    reads_ = bytes_ = 0;
    exhausted_ = false;
  }

 private:
  std::unique_ptr<ImageReader> inner_;
  uint64_t limit_;
  uint64_t reads_ = 0;
  uint64_t bytes_ = 0;
  bool exhausted_ = false;
};

// Where an image reader (ISO 9660, UDF) sends the damage it meets: a record
// it had to skip, an extent past the end, a loop. Each volume hands at most
// one report to its reporter (the first damage it meets), skips what is
// damaged and goes on; the reporter must outlive the volume.
class DamageReporter {
 public:
  virtual ~DamageReporter() = default;
  // what: one line without a line feed, e.g. "file extent beyond end of
  // image: \"ks.cfg\" block 34".
  virtual void Damage(std::string_view what) = 0;
};

// Logs each report as one line, "<prefix>: <what>". Readers use it when their
// caller chose no reporter.
class LogDamageReporter final : public DamageReporter {
 public:
  explicit LogDamageReporter(const char *prefix) : prefix_(prefix) {}
  void Damage(std::string_view what) override;

 private:
  const char *prefix_;
};

// Keeps the first report and counts them all; logs nothing (detection, the
// CLI's one line per image).
class FirstDamageReporter final : public DamageReporter {
 public:
  void Damage(std::string_view what) override {
    if (count_++ == 0) {
      first_ = what;
    }
  }
  const std::string &first() const { return first_; }
  uint64_t count() const { return count_; }

 private:
  std::string first_;
  uint64_t count_ = 0;
};

// Forwards the first report of one volume to the caller's reporter (or the
// log) and drops the rest, counting them: one damaged image, one line.
class DamageOnce {
 public:
  DamageOnce(DamageReporter *sink, const char *logPrefix) : sink_(sink), log_(logPrefix) {}
  void Report(std::string_view what) {
    if (reports_++ == 0) {
      (sink_ != nullptr ? *sink_ : static_cast<DamageReporter &>(log_)).Damage(what);
    }
  }
  uint64_t reports() const { return reports_; }

 private:
  DamageReporter *sink_;
  LogDamageReporter log_;
  uint64_t reports_ = 0;
};

}  // namespace gp

#endif
