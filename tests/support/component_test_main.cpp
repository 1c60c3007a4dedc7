#include <gtest/gtest.h>

#include "tests/support/com_client.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  return marlinda::testing::RunClient([] { return RUN_ALL_TESTS(); });
}
