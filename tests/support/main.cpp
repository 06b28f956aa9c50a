#include <csignal>

#include <gtest/gtest.h>

// Test programs ignore SIGPIPE: a test that writes into a FIFO whose reader has gone
// should see EPIPE and fail with a message, not end the whole program.
int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
