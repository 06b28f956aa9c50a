#ifndef THRIFTUSB_EXAMPLES_DEMOOPTIONS_H
#define THRIFTUSB_EXAMPLES_DEMOOPTIONS_H

#include <memory>
#include <string>

#include <thrift/transport/TTransport.h>

#include <thriftusb/cipher/Sm4Cipher.h>
#include <thriftusb/util/WakeSignal.h>

namespace thriftusb {
namespace example {

/**
 * The demo's key, 16 bytes in hex. It is printed in this source file and so protects
 * nothing: it is only there so that the encrypted demo runs without setup. A real
 * device takes its key from a secure store, never from the source.
 */
constexpr const char* kDemoKeyHex = "0123456789abcdeffedcba9876543210";

/**
 * The cipher of the demo's encrypted stack: SM4 in CBC mode with the key @p keyHex
 * (32 hex digits) and a fixed initialisation vector. Both ends must use the same key.
 * A fixed vector means that equal messages give equal cipher text, and the frames
 * carry no integrity check: the encryption hides the content of a call, it does not
 * prove who sent it.
 *
 * @throws std::invalid_argument when @p keyHex is not 32 hex digits
 */
std::shared_ptr<Sm4Cipher> makeDemoCipher(const std::string& keyHex = kDemoKeyHex);

/** The command line of a demo program. */
struct DemoOptions {
  bool blocking = false;              ///< --blocking: the blocking TUSBSocket
  /** --waking: every wait ends as soon as what it waits for has happened. */
  apache::thrift::transport::WaitMode waitMode = apache::thrift::transport::WaitMode::Polling;
  std::shared_ptr<Sm4Cipher> cipher;  ///< --encrypted or --key HEX; null: plain
  std::string readNode;
  std::string writeNode;
};

/**
 * Reads "[--blocking] [--waking] [--encrypted | --key HEX] READ_NODE WRITE_NODE" into
 * @p options; --blocking only when @p allowBlocking. On bad usage prints why and the
 * usage line to standard error.
 *
 * @return whether the command line was right
 */
bool parseDemoOptions(int argc, char** argv, bool allowBlocking, DemoOptions& options);

/**
 * Sends the Thrift runtime's log lines (the library's diagnostics among them) to
 * standard error as "PROGRAM: thrift: LINE", so that the output of a server and a
 * client run side by side reads as one conversation.
 *
 * @param program the program's short name ("server", "client"); must outlive the program
 */
void prefixThriftLog(const char* program);

/**
 * @p socket inside encrypted frames of type @p Framed when @p cipher is set, or
 * @p socket itself when it is null.
 */
template <typename Framed, typename Socket>
std::shared_ptr<apache::thrift::transport::TTransport> withFrames(
    std::shared_ptr<Socket> socket, std::shared_ptr<Sm4Cipher> cipher) {
  if (!cipher) {
    return socket;
  }
  return std::make_shared<Framed>(std::move(socket), std::move(cipher));
}

} // namespace example
} // namespace thriftusb

#endif
