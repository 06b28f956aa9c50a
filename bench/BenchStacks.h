#ifndef THRIFTUSB_BENCH_BENCHSTACKS_H
#define THRIFTUSB_BENCH_BENCHSTACKS_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <thrift/transport/TTransport.h>

namespace thriftusb {
namespace bench {

/** What the stacks are built with; the same for every stack of one run. */
struct Settings {
  /** Kernel buffer of each FIFO of the cable. */
  int pipeBytes = 1 << 20;
  /**
   * Block size of the USB transports: TUSBSocket's maxBlockSize and TUsbDevice's
   * read and write block sizes, the most bytes one system call moves.
   */
  uint32_t blockBytes = 1 << 20;
  /**
   * Capacity of each ring buffer of TNonblockingUsbSocket (blocking mode). A stream
   * moves at most about one ring's worth per 10 ms polling step, so an application
   * that wants throughput gives it room: 16 MiB rather than the server transport's
   * 4 MiB.
   */
  int ringBytes = 16 << 20;
  /** Read and write time-out of TNonblockingUsbSocket, milliseconds. */
  int timeoutMs = 3000;
};

/**
 * One end of a connection through one stack. Both ends of a connection are built
 * alike; the host end writes the stream and makes the calls, the device end reads
 * the stream and answers the calls.
 */
class Link {
public:
  virtual ~Link() = default;

  /** The outermost Thrift transport, for a protocol; null for the raw anchor. */
  virtual std::shared_ptr<apache::thrift::transport::TTransport> transport() = 0;

  /** Writes one block of a one-way stream; framed stacks flush it as one frame. */
  virtual void writeBlock(const uint8_t* buf, uint32_t len);

  /** Ends a stream: flushes what is still buffered. */
  virtual void endStream();

  /** Reads exactly @p len bytes of a stream. */
  virtual void readBlock(uint8_t* buf, uint32_t len);

  /** Closes the end. */
  virtual void close();

  /**
   * Flush after this many blocks of a stream: 1 for framed stacks (a frame per
   * block), more to batch blocks into bigger frames, 0 to flush only at the end.
   * The raw and TCP anchors ignore it.
   */
  int blocksPerFlush = 0;

private:
  int unflushed_ = 0;
};

/** Both ends of one connection, opened, and whatever carries them. */
struct Connection {
  std::shared_ptr<void> medium;
  std::unique_ptr<Link> host;
  std::unique_ptr<Link> device;

  /** Closes both ends, the device's first. */
  void close();
};

/** How a stack's waiting is paced, for the round-trip floor. */
enum class Pacing {
  /** Waits in the kernel: no polling step. */
  Kernel,
  /**
   * The caller polls for the answer in fixed steps and the peer answers without a
   * step of its own on the way out: TUSBSocket (1 ms), the threaded transport in
   * non-blocking mode (10 ms).
   */
  OneStep,
  /**
   * The threaded transport in blocking mode (10 ms): flush waits one step for the
   * writer thread, then the answer crosses the writer thread of each side and the
   * peer's read poll before the caller's next read poll sees it.
   */
  ThreadedBlocking,
};

/** What a stack is, for the comparisons of the report. */
enum class Family {
  Anchor,    ///< the runtime's own transports or the raw cable
  Plain,     ///< a library stack without encryption
  Encrypted, ///< a library stack with SM4 frames
};

/** One stack the benchmarks run through. */
struct Stack {
  /** Short name for the CSV and the plot, e.g. "usbsocket". */
  std::string id;
  /** Name in the tables, e.g. "TUSBSocket". */
  std::string label;
  Family family = Family::Plain;
  /** The raw anchor: bytes on the FIFOs without Thrift. */
  bool raw = false;
  /** Sends frames: everything written between two flushes goes out as one frame. */
  bool framed = false;
  Pacing pacing = Pacing::Kernel;
  /** The polling step of the stack's waits, microseconds (0 for Kernel). */
  int stepMicros = 0;
  /** Builds and opens both ends of a new connection. */
  std::function<Connection(const Settings&)> connect;
};

/** Every stack, anchors first. */
std::vector<Stack> allStacks();

/** The key and initialisation vector both ends of an encrypted stack use. */
std::string benchKey();
std::string benchIv();

} // namespace bench
} // namespace thriftusb

#endif
