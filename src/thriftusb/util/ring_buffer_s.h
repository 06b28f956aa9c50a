#ifndef THRIFTUSB_UTIL_RING_BUFFER_S_H
#define THRIFTUSB_UTIL_RING_BUFFER_S_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

namespace apache {
namespace thrift {
namespace transport {

/**
 * Fixed-capacity byte queue for one producer thread and one consumer thread.
 *
 * Neither operation waits: write() stores as many bytes as fit now and read() takes
 * as many as are stored now, and each says how many it moved; the caller decides
 * whether to retry. The producer and the consumer hold separate locks, so copying
 * in and copying out run in parallel; they share only the fill count, which is
 * updated under a third lock held for the update alone and can be read at any time.
 *
 * All capacity bytes are usable (no slot is kept free to mark fullness) and the
 * capacity is used as given, not rounded to a power of two. Nothing is ever
 * overwritten or dropped: bytes come out in the order they went in. A transfer is at
 * most two block copies and one counter update; nothing is allocated after
 * construction.
 */
class ring_buffer_s {
public:
  /**
   * Makes an empty buffer of @p capacity zeroed bytes.
   * @param capacity  bytes the buffer holds, all usable
   * @throws std::invalid_argument when @p capacity is 0: such a buffer could hold
   *         nothing, and a queue that can never move a byte is a caller's mistake.
   */
  explicit ring_buffer_s(unsigned long capacity);

  ~ring_buffer_s();

  ring_buffer_s(const ring_buffer_s&) = delete;
  ring_buffer_s& operator=(const ring_buffer_s&) = delete;

  /**
   * @return the bytes stored now; a snapshot, taken without a lock, that the other
   *         side may change at once
   */
  size_t size() const { return size_.load(); }

  /** @return the capacity given at construction */
  size_t capacity() const { return capacity_; }

  /**
   * Appends up to @p len bytes from @p src.
   * @param src  the bytes to store
   * @param len  how many of them
   * @return the bytes stored, 0 when the buffer is full (or @p len is 0)
   */
  size_t write(const void* src, unsigned long len);

  /**
   * Removes up to @p len of the oldest bytes into @p dst.
   * @param dst  where the bytes go
   * @param len  the most bytes to take
   * @return the bytes delivered, 0 when the buffer is empty (or @p len is 0)
   */
  size_t read(void* dst, unsigned long len);

private:
  size_t read_index_;
  size_t write_index_;
  std::atomic<size_t> size_;
  size_t capacity_;
  std::unique_ptr<uint8_t[]> data_;
  std::mutex size_mutex_;
  std::mutex read_mutex_;
  std::mutex write_mutex_;
};

} // namespace transport
} // namespace thrift
} // namespace apache

#endif
