// Texts, arrays, formats, registry values and Windows threads as the engine uses them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <stdexcept>
#include <thread>

#include "core/apartment.h"
#include "core/module.h"
#include "core/registry.h"
#include "core/sample_array.h"
#include "core/worker_thread.h"
#include "tests/support/com_client.h"
#include "tests/support/test_object.h"

namespace marlinda::testing {
namespace {

TEST(Text, IsKeptIfTheCodePageHasItAndEndsAtTheFirstNul) {
  EXPECT_EQ(ToAnsi(Bstr(std::wstring(100000, L'x'))), std::string(100000, 'x'));
  EXPECT_THAT(ToAnsi(Bstr(L"a\x97f3z")), ::testing::MatchesRegex("a.+z"));
  const OwnedBstr with_nul(SysAllocStringLen(L"ab\0cd", 5));
  EXPECT_EQ(ToAnsi(with_nul.get()), "ab");
  EXPECT_TRUE(OwnedBstr(ToBstr({}))) << "an empty text is not a null one";
  EXPECT_STREQ(OwnedBstr(ToBstr(Utf8ToAnsi("Caf\xC3\xA9"))).get(), L"Caf\u00E9");
  EXPECT_EQ(Utf8ToAnsi("Caf\xE9"), "Caf\xE9");
  EXPECT_EQ(Format("(%s)|%s|", "%s;"), "(%s;)|%s;|") << "each place holder is replaced once";
}

TEST(SampleArray, LocksADescriptorWithoutATypeOnceAndKeepsItsSamplesWhenResized) {
  float samples[3] = {1, 2, 3};
  SAFEARRAY array = {1, FADF_AUTO | FADF_FIXEDSIZE, sizeof(float), 0, samples, {{3, 5}}};
  {
    SampleArrayView view;
    ASSERT_EQ(view.Lock(&array), S_OK);
    EXPECT_TRUE(std::ranges::equal(view.samples(), samples));
    EXPECT_EQ(view.Lock(&array), E_UNEXPECTED);
  }
  EXPECT_EQ(array.cLocks, 0U);
  array.cbElements = 8;
  EXPECT_EQ(SampleArrayView().Lock(&array), E_INVALIDARG);

  SampleArray own(4);
  std::ranges::fill(own.samples(), 0.5F);
  own.Resize(100000);
  EXPECT_EQ(std::ranges::count(own.samples(), 0.5F), 4);
  EXPECT_THROW(own.Resize(std::size_t{1} << 30), std::bad_alloc);
  SAFEARRAYBOUND bound = {9, 0};
  EXPECT_EQ(SafeArrayRedim(own.get(), &bound), DISP_E_ARRAYISLOCKED);
  own.Prepare(3);
  EXPECT_EQ(std::ranges::count(own.samples(), 0.0F), 3);
}

TEST(Registry, GivesTheDefaultForAValueThatIsMissingOrTooLong) {
  constexpr char kKey[] = "Software\\TessalyRegistryTest";
  RegDeleteTreeA(HKEY_CURRENT_USER, kKey);
  CRegistry registry;
  ASSERT_EQ(registry.Open(HKEY_CURRENT_USER, kKey, false), 0);
  const auto text_of = [&](const std::string& bytes) {
    RegSetKeyValueA(HKEY_CURRENT_USER, kKey, "Text", REG_SZ, bytes.data(),
                    static_cast<DWORD>(bytes.size()));
    return registry.ReadString("Text", "default");
  };
  registry.WriteDword("Number", 0xFFFFFFFEU);
  EXPECT_EQ(registry.ReadDword("Number", 42), 0xFFFFFFFEU);
  EXPECT_EQ(registry.ReadDword("None", 42), 42U);
  EXPECT_EQ(registry.ReadString("None", "default"), "default");
  EXPECT_EQ(text_of({"ab\0cd", 5}), "ab");
  EXPECT_EQ(text_of(std::string(254, 'x') + '\0'), std::string(254, 'x'));
  EXPECT_EQ(text_of(std::string(255, 'x') + '\0'), "default");
  RegDeleteTreeA(HKEY_CURRENT_USER, kKey);
}

TEST(WorkerThread, RunsOneBodyAtATimeAndWaitsForItUnlessDetached) {
  // A promise, because atomic waits lose wake-ups in GCC 12 without futexes.
  std::promise<void> go;
  const auto ended = std::make_shared<std::atomic<int>>(0);
  const auto body = [ended, gone = go.get_future().share()] {
    gone.wait();
    ++*ended;
  };
  {
    WorkerThread worker;
    ASSERT_EQ(worker.Start([] { throw std::runtime_error("lost"); }), S_OK);
    worker.PollUntilEnded(1);
    ASSERT_EQ(worker.Start(body), S_OK);
    EXPECT_TRUE(worker.IsRunning());
    EXPECT_EQ(worker.Start([] {}), E_FAIL);
    worker.Detach();
    EXPECT_FALSE(worker.IsRunning());
  }
  EXPECT_FALSE(TheModule().CanUnload()) << "the thread is in the module";
  std::jthread later;
  {
    WorkerThread worker;
    ASSERT_EQ(worker.Start(body), S_OK);
    // The delay only makes it likely that the destructor runs first.
    later = std::jthread([&] {
      Sleep(100);
      go.set_value();
    });
  }
  EXPECT_GT(*ended, 0);
  while (!TheModule().CanUnload()) Sleep(1);
  EXPECT_EQ(*ended, 2);
  EXPECT_EQ(ended.use_count(), 2) << "the bodies release what they hold";
}

class Named : public TestObject<IPersist> {
 public:
  STDMETHODIMP GetClassID(CLSID*) override { return thread = GetCurrentThreadId(), S_OK; }
  DWORD thread = 0;
};

// The test thread is a single-threaded apartment.
TEST(WorkerThread, ServesCallsOfTheBodyWhileItWaits) {
  const auto object = MakeObject<Named>();
  IStream* stream = nullptr;
  ASSERT_EQ(CoMarshalInterThreadInterfaceInStream(IID_IPersist, object.Get(), &stream), S_OK);
  WorkerThread worker;
  ASSERT_EQ(worker.Start([stream] {
    const Apartment apartment(COINIT_MULTITHREADED);
    ComPtr<IPersist> proxy;
    CoGetInterfaceAndReleaseStream(stream, IID_IPersist,
                                   reinterpret_cast<void**>(proxy.GetAddressOf()));
    CLSID clsid;
    if (proxy) proxy->GetClassID(&clsid);
  }),
            S_OK);
  worker.AwaitServingCalls(INFINITE);
  EXPECT_FALSE(worker.IsRunning());
  EXPECT_EQ(object->thread, GetCurrentThreadId());
}

}  // namespace
}  // namespace marlinda::testing
