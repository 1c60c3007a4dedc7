// The matrix of hostile arrays is in tests/abuse. These are the cases that it does not reach.
#include "core/sample_array.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

TEST(SampleArrayView, LocksADescriptorWithoutATypeAndRestoresTheLockCount) {
  float samples[3] = {1, 2, 3};
  SAFEARRAY array = {};
  array.cDims = 1;
  array.fFeatures = FADF_AUTO | FADF_FIXEDSIZE;
  array.cbElements = sizeof(float);
  array.pvData = samples;
  array.rgsabound[0] = {3, 5};
  {
    SampleArrayView view;
    ASSERT_EQ(view.Lock(&array), S_OK);
    EXPECT_TRUE(std::ranges::equal(view.samples(), samples));
    EXPECT_EQ(view.Lock(&array), E_UNEXPECTED) << "a second lock would never be released";
    EXPECT_EQ(array.cLocks, 1U);
  }
  EXPECT_EQ(array.cLocks, 0U);
  array.cbElements = 8;
  EXPECT_EQ(SampleArrayView().Lock(&array), E_INVALIDARG);
}

TEST(SampleArray, KeepsItsSamplesWhenResized) {
  EXPECT_THROW(SampleArray(std::size_t{1} << 30), std::bad_alloc);
  SampleArray array;
  array.Resize(4);
  std::ranges::fill(array.samples(), 0.5F);
  array.Resize(100000);
  ASSERT_EQ(array.samples().size(), 100000U);
  EXPECT_EQ(std::ranges::count(array.samples(), 0.5F), 4);
  EXPECT_EQ(std::ranges::count(array.samples(), 0.0F), 99996);
  EXPECT_THROW(array.Resize(std::numeric_limits<std::size_t>::max() / 2), std::bad_alloc);
  array.Resize(2);
  const SampleArray moved(std::move(array));
  EXPECT_EQ(moved.samples().size(), 2U);
}

}  // namespace
}  // namespace marlinda::testing
