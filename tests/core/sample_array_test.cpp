#include "core/sample_array.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

TEST(SampleArrayView, RefusesEveryArrayThatIsNotOneDimensionalAndOfFloats) {
  const auto refused = [](SAFEARRAY* array) {
    SampleArrayView view;
    const bool result = view.Lock(array) == E_INVALIDARG && view.samples().empty();
    return result && (array == nullptr || array->cLocks == 0);
  };
  EXPECT_TRUE(refused(nullptr));
  for (const VARTYPE type :
       {VT_I1,       VT_UI1,     VT_I2,   VT_UI2,     VT_I4,      VT_UI4,  VT_INT,
        VT_UINT,     VT_I8,      VT_UI8,  VT_R8,      VT_CY,      VT_DATE, VT_BSTR,
        VT_DISPATCH, VT_UNKNOWN, VT_BOOL, VT_VARIANT, VT_DECIMAL, VT_ERROR}) {
    EXPECT_TRUE(refused(ForeignArray(static_cast<VARTYPE>(type)))) << type;
  }
  EXPECT_TRUE(refused(ForeignArray(VT_R4, 2)));
  EXPECT_TRUE(refused(ForeignArray(VT_R4, 3)));

  // A descriptor without its data, and one that promises more than an array can hold.
  SAFEARRAY* bare = nullptr;
  ASSERT_EQ(SafeArrayAllocDescriptorEx(VT_R4, 1, &bare), S_OK);
  bare->cbElements = sizeof(float);
  bare->rgsabound[0].cElements = 4;
  EXPECT_TRUE(refused(bare));
  float value = 0;
  bare->pvData = &value;
  bare->rgsabound[0].cElements = 0x40000001;
  EXPECT_TRUE(refused(bare));
  bare->pvData = nullptr;
  SafeArrayDestroyDescriptor(bare);
}

TEST(SampleArrayView, GivesAllElementsWhateverTheLowerBound) {
  for (const LONG lower_bound : {0L, 5L, -100L, 2147483000L}) {
    Floats block(10, 0.0F, lower_bound);
    block[0] = 1;
    block[9] = 9;
    SampleArrayView view;
    ASSERT_EQ(view.Lock(block), S_OK);
    EXPECT_EQ(view.samples().size(), 10U);
    EXPECT_EQ(view.samples().data(), block.values().data());
    EXPECT_EQ(view.Lock(block), E_UNEXPECTED) << "a second lock would never be taken back";
  }
  Floats empty(0);
  SampleArrayView view;
  EXPECT_EQ(view.Lock(empty), S_OK);
  EXPECT_TRUE(view.samples().empty());
}

TEST(SampleArrayView, TakesADescriptorWithoutATypeAndOneOnTheStack) {
  float samples[3] = {1, 2, 3};
  SAFEARRAY array = {};
  array.cDims = 1;
  array.fFeatures = FADF_AUTO | FADF_FIXEDSIZE;
  array.cbElements = sizeof(float);
  array.pvData = samples;
  array.rgsabound[0] = {3, 0};
  {
    SampleArrayView view;
    ASSERT_EQ(view.Lock(&array), S_OK);
    EXPECT_TRUE(std::ranges::equal(view.samples(), samples));
  }
  array.cbElements = 8;
  SampleArrayView view;
  EXPECT_EQ(view.Lock(&array), E_INVALIDARG);
}

TEST(SampleArrayView, LeavesTheLockCountAsItWas) {
  Floats block(4);
  {
    SampleArrayView view;
    ASSERT_EQ(view.Lock(block), S_OK);
    EXPECT_EQ(block.array()->cLocks, 1U);
  }
  EXPECT_EQ(block.array()->cLocks, 0U);
  ASSERT_EQ(SafeArrayLock(block), S_OK);
  {
    SampleArrayView view;
    EXPECT_EQ(view.Lock(block), S_OK);
  }
  EXPECT_EQ(block.array()->cLocks, 1U);
  SafeArrayUnlock(block);
}

TEST(SampleArray, StartsSilentAndKeepsItsSamplesWhenResized) {
  SampleArray array(4);
  EXPECT_TRUE(std::ranges::all_of(array.samples(), [](float s) { return s == 0; }));
  std::ranges::fill(array.samples(), 0.5F);
  array.Resize(100000);
  ASSERT_EQ(array.samples().size(), 100000U);
  EXPECT_TRUE(std::ranges::all_of(array.samples().first(4), [](float s) { return s == 0.5F; }));
  EXPECT_TRUE(std::ranges::all_of(array.samples().subspan(4), [](float s) { return s == 0; }));
  array.Resize(2);
  EXPECT_EQ(array.samples().size(), 2U);
  array.Resize(0);
  EXPECT_TRUE(array.samples().empty());
  array.Resize(3);
  EXPECT_EQ(array.samples().size(), 3U);

  SampleArray moved(std::move(array));
  EXPECT_EQ(moved.samples().size(), 3U);
  SampleArray assigned;
  EXPECT_EQ(assigned.get(), nullptr);
  assigned = std::move(moved);
  EXPECT_EQ(assigned.samples().size(), 3U);
  SampleArray made_later;
  made_later.Resize(7);
  EXPECT_EQ(made_later.samples().size(), 7U);
}

TEST(SampleArray, IsAcceptedByTheEnginesOwnView) {
  SampleArray array(6);
  array.Resize(8);
  SampleArrayView view;
  ASSERT_EQ(view.Lock(array.get()), S_OK);
  EXPECT_EQ(view.samples().data(), array.samples().data());
  EXPECT_EQ(view.samples().size(), 8U);
}

TEST(SampleArray, RefusesMoreThanAnArrayCanHold) {
  EXPECT_THROW(SampleArray(std::size_t{1} << 30), std::bad_alloc);
  EXPECT_THROW(SampleArray(std::size_t{1} << 40), std::bad_alloc);
  SampleArray array(4);
  EXPECT_THROW(array.Resize(std::size_t{1} << 40), std::bad_alloc);
  EXPECT_EQ(array.samples().size(), 4U);
}

}  // namespace
}  // namespace marlinda::testing
