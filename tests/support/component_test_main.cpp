#include <gtest/gtest.h>

#include <cstdio>
#include <exception>

#include "tests/support/com_client.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 1;
  int result = 1;
  try {
    marlinda::testing::ModuleUnderTest::Load();
    result = RUN_ALL_TESTS();
    if (!marlinda::testing::ModuleUnderTest::RevokeAndSeeUnused()) result = 1;
  } catch (const marlinda::HResultError& error) {
    std::fprintf(stderr, "0x%08lx\n", static_cast<unsigned long>(error.code()));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
  }
  CoUninitialize();
  return result;
}
