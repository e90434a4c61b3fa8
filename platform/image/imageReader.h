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

// Wraps another reader and counts the calls and bytes that pass through it
// (benchmarks report the bytes an operation really read).
class CountingImageReader : public ImageReader {
 public:
  explicit CountingImageReader(std::unique_ptr<ImageReader> inner) : inner_(std::move(inner)) {}
  bool ReadAt(uint64_t offset, void *buf, size_t len) override {
    ++reads_;
    bytes_ += len;
    return inner_->ReadAt(offset, buf, len);
  }
  uint64_t Size() const override { return inner_->Size(); }
  bool Close() override { return inner_->Close(); }
  uint64_t reads() const { return reads_; }
  uint64_t bytes() const { return bytes_; }
  void Reset() { reads_ = bytes_ = 0; }

 private:
  std::unique_ptr<ImageReader> inner_;
  uint64_t reads_ = 0;
  uint64_t bytes_ = 0;
};

}  // namespace gp

#endif
