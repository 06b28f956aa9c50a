// Uses the installed libraries: opens a TUSBSocket on a device node that does not
// exist and expects the library's own NOT_OPEN error for it, then enciphers the
// SM4 standard's test block with Sm4Cipher, checks the known cipher block and
// deciphers it again. Exits 0 only when all of that holds, so a program that
// compiles against the installed headers but loads a wrong or broken library fails.
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include <thrift/transport/TTransportException.h>

#include <thriftusb/cipher/Sm4Cipher.h>
#include <thriftusb/transport/TUSBSocket.h>

using apache::thrift::transport::TTransportException;
using apache::thrift::transport::TUSBSocket;

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: consumer <path of a device node that does not exist>\n";
    return 2;
  }
  const std::string path = argv[1];
  const std::string expected = "Not found usb reading device: " + path;

  try {
    TUSBSocket socket(path, 0, 4096);
    socket.open();
    std::cerr << "consumer: open() of " << path << " did not throw\n";
    return 1;
  } catch (const TTransportException& e) {
    if (e.getType() != TTransportException::NOT_OPEN) {
      std::cerr << "consumer: open() threw type " << static_cast<int>(e.getType())
                << " instead of NOT_OPEN (" << static_cast<int>(TTransportException::NOT_OPEN)
                << "): " << e.what() << "\n";
      return 1;
    }
    if (expected != e.what()) {
      std::cerr << "consumer: open() threw NOT_OPEN with message '" << e.what()
                << "' instead of '" << expected << "'\n";
      return 1;
    }
  } catch (const std::exception& e) {
    std::cerr << "consumer: open() threw something other than TTransportException: "
              << e.what() << "\n";
    return 1;
  }

  // The standard's example: key and plain text 0123456789abcdeffedcba9876543210.
  const unsigned char block[16] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef,
                                   0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32, 0x10};
  const unsigned char known[16] = {0x68, 0x1e, 0xdf, 0x34, 0xd2, 0x06, 0x96, 0x5e,
                                   0x86, 0xb3, 0xe9, 0x4f, 0x53, 0x6e, 0x42, 0x46};
  Sm4Cipher cipher(std::string(reinterpret_cast<const char*>(block), sizeof block),
                   Sm4Cipher::Mode::ECB);
  unsigned char sealed[32];
  unsigned char opened[32];
  long sealedLen = sizeof sealed;
  long openedLen = sizeof opened;
  if (cipher.encrypt(block, sizeof block, sealed, &sealedLen) != 0 || sealedLen != 32 ||
      std::memcmp(sealed, known, sizeof known) != 0 ||
      cipher.decrypt(sealed, sealedLen, opened, &openedLen) != 0 || openedLen != 16 ||
      std::memcmp(opened, block, sizeof block) != 0) {
    std::cerr << "consumer: Sm4Cipher did not give the known cipher block and back\n";
    return 1;
  }

  std::cout << "consumer: open() of a missing node threw NOT_OPEN '" << expected << "'\n";
  std::cout << "consumer: Sm4Cipher gave the known SM4 cipher block and deciphered it\n";
  return 0;
}
