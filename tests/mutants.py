# Faults the test suite is meant to catch, beyond the shared list, for
# `python3 ../shared/tools/mutants.py --mutants tests/mutants.py`: each an exact-text
# replacement that matches once in the named file, and the fault it stands for.
T = "src/thriftusb/transport/"
MUTANTS = [
  # Descriptors and nodes
  (T+"TUSBSocket.cpp", "  writeFd_ = ::open(writePath_.c_str(), kWriteNodeFlags);\n  if (writeFd_ == -1) {\n    ::close(readFd_);",
   "  writeFd_ = ::open(writePath_.c_str(), kWriteNodeFlags);\n  if (writeFd_ == -1) {", "read node leaked when the write node cannot be opened"),
  (T+"TUSBSocket.cpp", "    if (twoChannels_) {\n      ::close(writeFd_);\n    }", "", "write node leaked on close"),
  (T+"TUsbDevice.cpp", "    if (writeFd_ != readFd_) {\n      ::close(writeFd_);\n    }", "", "device's write node leaked on close"),
  (T+"TUSBSocket.cpp", "      throw TTransportException(TTransportException::TIMED_OUT, \"recv timeout expired\");",
   "      throw TTransportException(TTransportException::END_OF_FILE, \"recv timeout expired\");",
   "a read node at end of file reported as end of file, not as a time-out"),
  (T+"TUSBSocket.cpp", "  if (len > static_cast<uint32_t>(maxBlockSize_)) {", "  if (len >= static_cast<uint32_t>(maxBlockSize_)) {",
   "a write of exactly one block refused"),
  # The threaded transport
  (T+"TNonblockingUsbSocket.cpp", "  if (!readRunning_) {\n    fail(TTransportException::INTERRUPTED, \"Failed to read.\");\n  }", "",
   "reading after the reader thread ended does not fail"),
  (T+"TNonblockingUsbSocket.cpp", "    while (stored < static_cast<size_t>(got) && quit == 0) {", "    if (stored < static_cast<size_t>(got) && quit == 0) {",
   "bytes that do not fit the read ring are dropped"),
  (T+"TNonblockingUsbSocket.cpp", "      if (Clock::now() - stallStart > kFlushStallLimit) {", "      if (Clock::now() - stallStart > kFlushStallLimit * 10) {",
   "a stalled flush waits ten times too long"),
  (T+"TNonblockingUsbSocket.cpp", "        fail(TTransportException::TIMED_OUT, \"read timeout.\");", "        fail(TTransportException::END_OF_FILE, \"read timeout.\");",
   "read time-out reported as end of file"),
  (T+"TNonblockingUsbSocket.cpp", "  if (!writeRunning_) {\n    fail(TTransportException::INTERRUPTED, \"Failed to flush usb device.\");\n  }\n}", "}",
   "flush succeeds though the writer thread has ended"),
  # The server transport
  (T+"TServerNonblockingUsbSocket.cpp", "    while (const auto previous = openChild()) {", "    if (const auto previous = openChild()) {",
   "a second connection is handed out while the first is open"),
  (T+"TServerNonblockingUsbSocket.cpp", "void TServerNonblockingUsbSocket::interrupt() {\n  interruptChildren();", "void TServerNonblockingUsbSocket::interrupt() {",
   "interrupt leaves the connection open"),
  (T+"TServerNonblockingUsbSocket.cpp", "      pause();\n      throwIfInterrupted();\n      continue;", "      throw;",
   "accept gives up when the nodes cannot be opened yet"),
  # Frames and the cipher
  (T+"SecurityFrame.cpp", "  if (encrypted && (n == 0 || n % 16 != 0)) {", "  if (encrypted && n % 16 != 0) {",
   "an empty encrypted frame is accepted"),
  (T+"SecurityFrame.cpp", "  if (n > static_cast<int32_t>(maxFrameSize)) {", "  if (n > static_cast<int32_t>(maxFrameSize) + 1) {",
   "a frame one byte over the limit accepted"),
  (T+"TSecurityTransport.cpp", "      if (got == 0) {\n        return false;\n      }\n      frame::failPartialHeader();", "      return false;",
   "a header cut off after a few bytes taken as no frame"),
  (T+"TNonblockingSecurityTransport.cpp", "    if (Clock::now() - start > kFrameWaitLimit) {", "    if (Clock::now() - start > kFrameWaitLimit * 2) {",
   "the frame wait lasts twice its limit"),
  ("src/thriftusb/cipher/Sm4Cipher.cpp", "    bad |= inPadding & static_cast<unsigned>(lastBlock[i] != pad);", "",
   "padding bytes before the last are not checked"),
  # libusb and CUPS
  (T+"TLibusbDevice.cpp", "            (user->interfaceProtocol == 0 || alt.bInterfaceProtocol == user->interfaceProtocol);",
   "            alt.bInterfaceProtocol == user->interfaceProtocol;", "interface protocol 0 no longer matches any protocol"),
  (T+"TLibusbDevice.cpp", "    if (std::strstr(reinterpret_cast<const char*>(serial), serialFilter_) != nullptr) {",
   "    if (std::strcmp(reinterpret_cast<const char*>(serial), serialFilter_) == 0) {", "serial number filter matches only the whole number"),
  (T+"TCupsDevice.cpp", "  if (!open_ || len > maxWriteBlockSize_) {", "  if (!open_) {", "print-side write length not bounded"),
  ("src/thriftusb/util/ring_buffer_s.cpp", "  const size_t n = std::min<size_t>(len, capacity_ - size_.load());", "  const size_t n = len;",
   "a write into a full ring overwrites unread bytes"),
]
