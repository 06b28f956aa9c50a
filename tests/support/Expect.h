#ifndef THRIFTUSB_TESTS_SUPPORT_EXPECT_H
#define THRIFTUSB_TESTS_SUPPORT_EXPECT_H

#include <string>

#include <gtest/gtest.h>
#include <thrift/transport/TTransportException.h>

namespace thriftusb {
namespace test {

/** Whether @p call throws a TTransportException of @p type and exactly @p message. */
template <typename Call>
::testing::AssertionResult throwsTransport(
    Call&& call, apache::thrift::transport::TTransportException::TTransportExceptionType type,
    const std::string& message) {
  try {
    call();
  } catch (const apache::thrift::transport::TTransportException& e) {
    if (e.getType() == type && message == e.what()) {
      return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "threw type " << e.getType() << " \"" << e.what()
                                         << "\", expected " << type << " \"" << message << "\"";
  }
  return ::testing::AssertionFailure() << "threw nothing, expected \"" << message << "\"";
}

} // namespace test
} // namespace thriftusb

#endif
