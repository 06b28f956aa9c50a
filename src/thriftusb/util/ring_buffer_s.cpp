#include <thriftusb/util/ring_buffer_s.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace apache {
namespace thrift {
namespace transport {

namespace {

uint8_t* allocateZeroed(unsigned long capacity) {
  if (capacity == 0) {
    throw std::invalid_argument("ring_buffer_s: capacity must be at least 1 byte");
  }
  return new uint8_t[capacity](); // owned by a unique_ptr<uint8_t[]> at once
}

} // namespace

ring_buffer_s::ring_buffer_s(unsigned long capacity)
  : read_index_(0),
    write_index_(0),
    size_(0),
    capacity_(capacity),
    data_(allocateZeroed(capacity)) {}

ring_buffer_s::~ring_buffer_s() = default;

size_t ring_buffer_s::write(const void* src, unsigned long len) {
  if (len == 0) {
    return 0;
  }
  std::lock_guard<std::mutex> side(write_mutex_);
  // The consumer can only free more room meanwhile, so this never overstates it.
  const size_t n = std::min<size_t>(len, capacity_ - size_.load());
  if (n == 0) {
    return 0;
  }
  const auto* from = static_cast<const uint8_t*>(src);
  const size_t toEnd = capacity_ - write_index_;
  if (n > toEnd) {
    std::memcpy(data_.get() + write_index_, from, toEnd);
    std::memcpy(data_.get(), from + toEnd, n - toEnd);
    write_index_ = n - toEnd;
  } else {
    std::memcpy(data_.get() + write_index_, from, n);
    write_index_ += n;
    if (write_index_ == capacity_) {
      write_index_ = 0;
    }
  }
  std::lock_guard<std::mutex> count(size_mutex_);
  size_ += n;
  return n;
}

size_t ring_buffer_s::read(void* dst, unsigned long len) {
  if (len == 0) {
    return 0;
  }
  std::lock_guard<std::mutex> side(read_mutex_);
  // The producer can only add bytes meanwhile, so this never overstates them.
  const size_t n = std::min<size_t>(len, size_.load());
  if (n == 0) {
    return 0;
  }
  auto* to = static_cast<uint8_t*>(dst);
  const size_t toEnd = capacity_ - read_index_;
  if (n > toEnd) {
    std::memcpy(to, data_.get() + read_index_, toEnd);
    std::memcpy(to + toEnd, data_.get(), n - toEnd);
    read_index_ = n - toEnd;
  } else {
    std::memcpy(to, data_.get() + read_index_, n);
    read_index_ += n;
    if (read_index_ == capacity_) {
      read_index_ = 0;
    }
  }
  std::lock_guard<std::mutex> count(size_mutex_);
  size_ -= n;
  return n;
}

} // namespace transport
} // namespace thrift
} // namespace apache
