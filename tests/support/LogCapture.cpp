#include "LogCapture.h"

#include <algorithm>
#include <mutex>
#include <stdexcept>

#include <thrift/TOutput.h>

namespace thriftusb {
namespace test {

namespace {

// The runtime's hook is a plain function pointer, so the lines go to one shared store.
std::mutex storeMutex;
std::vector<std::string> store;
bool active = false;

void capture(const char* line) {
  std::lock_guard<std::mutex> lock(storeMutex);
  store.emplace_back(line);
}

} // namespace

LogCapture::LogCapture() {
  std::lock_guard<std::mutex> lock(storeMutex);
  if (active) {
    throw std::logic_error("only one LogCapture may be active at a time");
  }
  active = true;
  store.clear();
  apache::thrift::GlobalOutput.setOutputFunction(&capture);
}

LogCapture::~LogCapture() {
  apache::thrift::GlobalOutput.setOutputFunction(&apache::thrift::TOutput::errorTimeWrapper);
  std::lock_guard<std::mutex> lock(storeMutex);
  store.clear();
  active = false;
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(storeMutex);
  return store;
}

size_t LogCapture::count(const std::string& line) const {
  std::lock_guard<std::mutex> lock(storeMutex);
  return static_cast<size_t>(std::count(store.begin(), store.end(), line));
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(storeMutex);
  store.clear();
}

} // namespace test
} // namespace thriftusb
