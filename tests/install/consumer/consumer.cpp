// Uses the installed library: opens a TUSBSocket on a device node that does not
// exist and expects the library's own NOT_OPEN error for it. Exits 0 only when
// exactly that error arrives, so a program that compiles against the installed
// headers but loads a wrong or broken library fails.
#include <exception>
#include <iostream>
#include <string>

#include <thrift/transport/TTransportException.h>

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

  std::cout << "consumer: open() of a missing node threw NOT_OPEN '" << expected << "'\n";
  return 0;
}
