#ifndef RUVO_IO_H_
#define RUVO_IO_H_

// Byte streams for the model readers.  Model data always arrives as one
// block in memory; MemoryFixedSizeStream reads it in place.

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "orviklog/src/checks.h"

namespace orvik {
namespace ruvo {
namespace io {

class Stream {
 public:
  // Returns the number of bytes read.
  virtual size_t Read(void* ptr, size_t size) = 0;
  virtual void Write(const void* ptr, size_t size) = 0;
  virtual ~Stream() {}
};

class SeekStream : public Stream {
 public:
  virtual void Seek(size_t pos) = 0;
  virtual size_t Tell() = 0;
};

// A stream over a caller's block of bytes; the block is not owned and must
// outlive the stream.  Reading or writing past the end is fatal, so Read
// never returns a short count.
class MemoryFixedSizeStream : public SeekStream {
 public:
  MemoryFixedSizeStream(void* buffer, size_t size)
      : p_buffer_(static_cast<char*>(buffer)), buffer_size_(size), curr_ptr_(0) {}

  size_t Read(void* ptr, size_t size) override {
    CheckRoom(size, __LINE__);
    size_t nread = std::min(buffer_size_ - curr_ptr_, size);
    if (nread != 0) std::memcpy(ptr, p_buffer_ + curr_ptr_, nread);
    curr_ptr_ += nread;
    return nread;
  }
  void Write(const void* ptr, size_t size) override {
    if (size == 0) return;
    CheckRoom(size, __LINE__);
    std::memcpy(p_buffer_ + curr_ptr_, ptr, size);
    curr_ptr_ += size;
  }
  // No check: a position past the end fails at the next Read or Write.
  void Seek(size_t pos) override { curr_ptr_ = pos; }
  size_t Tell() override { return curr_ptr_; }

  // The same fatal check as Read, without reading: lets a reader refuse a
  // length field before it allocates for it.
  void Require(size_t size) const { CheckRoom(size, __LINE__); }

 private:
  // Fatal unless `size` bytes lie between the position and the end.  The
  // comparison is written so that it cannot wrap around (a hostile length
  // or a Seek past the end); the report shows the plain condition.
  void CheckRoom(size_t size, int line) const {
    if (curr_ptr_ <= buffer_size_ && size <= buffer_size_ - curr_ptr_) return;
    rtc::FatalMessage(__FILE__, line).stream()
        << "Check failed: curr_ptr_ + size <= buffer_size_\n# ";
  }

  char* p_buffer_;
  size_t buffer_size_;
  size_t curr_ptr_;
};

}  // namespace io
}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_IO_H_
