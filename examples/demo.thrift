// The demo service that the example server and client speak over a USB link.

namespace cpp thriftusb.example

/** Largest byte count of one read or write on the gadget's device nodes. */
const i32 BLOCK_SIZE = 512

/** Thrown by divide() when the divisor is zero. */
exception DivideByZero {
  1: i32 dividend
  2: string message
}

/** What the gadget has served since it started. */
struct Stats {
  /** Calls served, the stats() call that reports them included. */
  1: i64 calls
  /** Bytes received by echo(), summed over all its calls. */
  2: i64 bytesEchoed
}

/** A small device that answers a host over USB. */
service Gadget {
  /** Does nothing; proves that a round trip works. */
  void ping()

  /** Sends @p data back unchanged. */
  binary echo(1: binary data)

  /** Integer division, rounding toward zero. */
  i32 divide(1: i32 a, 2: i32 b) throws (1: DivideByZero oops)

  /** The counters of this gadget. */
  Stats stats()
}
