#include "platform/image/imageReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/log/log.h"

namespace gp {
namespace {

class FileImageReader final : public ImageReader {
 public:
  FileImageReader(int fd, uint64_t size) : fd_(fd), size_(size) {}
  ~FileImageReader() override { Close(); }

  bool ReadAt(uint64_t offset, void *buf, size_t len) override {
    if (fd_ < 0 || offset > size_ || len > size_ - offset) {
      return false;
    }
    auto *p = static_cast<uint8_t *>(buf);
    while (len > 0) {
      ssize_t n = ::pread(fd_, p, len, static_cast<off_t>(offset));
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n <= 0) {
        return false;  // error, or the file shrank under us
      }
      p += n;
      offset += static_cast<uint64_t>(n);
      len -= static_cast<size_t>(n);
    }
    return true;
  }

  uint64_t Size() const override { return size_; }

  bool Close() override {
    if (fd_ < 0) {
      return true;
    }
    int rc = ::close(fd_);
    fd_ = -1;
    return rc == 0;
  }

 private:
  int fd_;
  uint64_t size_;
};

class MemoryImageReader final : public ImageReader {
 public:
  explicit MemoryImageReader(std::span<const uint8_t> data) : data_(data) {}
  bool ReadAt(uint64_t offset, void *buf, size_t len) override {
    if (offset > data_.size() || len > data_.size() - offset) {
      return false;
    }
    if (len > 0) {
      memcpy(buf, data_.data() + offset, len);
    }
    return true;
  }
  uint64_t Size() const override { return data_.size(); }

 private:
  std::span<const uint8_t> data_;
};

class CallbackImageReader final : public ImageReader {
 public:
  CallbackImageReader(ImageReadFn readFn, ImageCloseFn closeFn, void *handle, uint64_t size)
      : readFn_(readFn), closeFn_(closeFn), handle_(handle), size_(size) {}
  ~CallbackImageReader() override { Close(); }

  bool ReadAt(uint64_t offset, void *buf, size_t len) override {
    if (closed_ || readFn_ == nullptr) {
      return false;
    }
    if (size_ != kUnknownSize && (offset > size_ || len > size_ - offset)) {
      return false;
    }
    return len == 0 || readFn_(handle_, buf, len, offset);
  }
  uint64_t Size() const override { return size_; }
  bool Close() override {
    if (closed_) {
      return true;
    }
    closed_ = true;
    return closeFn_ == nullptr || closeFn_(handle_);
  }

 private:
  ImageReadFn readFn_;
  ImageCloseFn closeFn_;
  void *handle_;
  uint64_t size_;
  bool closed_ = false;
};

}  // namespace

std::unique_ptr<ImageReader> OpenFileImageReader(const char *path, std::string *error) {
  auto fail = [error](const char *why) -> std::unique_ptr<ImageReader> {
    if (error != nullptr) {
      *error = why;
    }
    return nullptr;
  };
  if (path == nullptr) {
    return fail("no path");
  }
  // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer
  // before the file-type check below could refuse it.
  int fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) {
    return fail(strerror(errno));
  }
  struct stat st;
  if (fstat(fd, &st) != 0) {
    const char *why = strerror(errno);
    ::close(fd);
    return fail(why);
  }
  if (!S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode)) {
    ::close(fd);
    return fail(S_ISDIR(st.st_mode) ? "is a directory" : "not a regular file");
  }
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
    const char *why = strerror(errno);
    ::close(fd);
    return fail(why);
  }
  uint64_t size = static_cast<uint64_t>(st.st_size);
  if (S_ISBLK(st.st_mode)) {
    off_t end = lseek(fd, 0, SEEK_END);
    size = end > 0 ? static_cast<uint64_t>(end) : 0;
  }
  return std::make_unique<FileImageReader>(fd, size);
}

std::unique_ptr<ImageReader> MakeBorrowedImageReader(ImageReader &inner) {
  class Borrowed final : public ImageReader {
   public:
    explicit Borrowed(ImageReader &inner) : inner_(inner) {}
    bool ReadAt(uint64_t offset, void *buf, size_t len) override {
      return inner_.ReadAt(offset, buf, len);
    }
    uint64_t Size() const override { return inner_.Size(); }

   private:
    ImageReader &inner_;
  };
  return std::make_unique<Borrowed>(inner);
}

void LogDamageReporter::Damage(std::string_view what) {
  Log("%s: %.*s\n", prefix_, static_cast<int>(what.size()), what.data());
}

std::unique_ptr<ImageReader> MakeMemoryImageReader(std::span<const uint8_t> data) {
  return std::make_unique<MemoryImageReader>(data);
}

std::unique_ptr<ImageReader> MakeCallbackImageReader(ImageReadFn readFn, ImageCloseFn closeFn,
                                                     void *handle, uint64_t size) {
  return std::make_unique<CallbackImageReader>(readFn, closeFn, handle, size);
}

}  // namespace gp
