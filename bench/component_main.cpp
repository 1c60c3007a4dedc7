// Runs the benchmarks of a program that calls the built module through COM.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <exception>

#include "core/com_call.h"
#include "tests/support/com_client.h"

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 1;
  int result = 1;
  try {
    marlinda::testing::ModuleUnderTest::Load();
    benchmark::RunSpecifiedBenchmarks();
    result = 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
  } catch (const marlinda::HResultError& error) {
    std::fprintf(stderr, "failed with 0x%08lX\n", static_cast<unsigned long>(error.code()));
  }
  marlinda::testing::ModuleUnderTest::Revoke();
  CoUninitialize();
  return result;
}
