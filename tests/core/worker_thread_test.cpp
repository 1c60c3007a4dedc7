#include "core/worker_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>

#include "core/module.h"
#include "tests/support/test_object.h"

namespace marlinda {
namespace {

// State shared by a test and its worker.
struct Shared {
  KernelHandle go{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  std::atomic<int> runs{0};
  std::atomic<DWORD> thread{0};

  void WaitForGo() const { WaitForSingleObject(go.get(), INFINITE); }
};

class WorkerThreadTest : public ::testing::Test {
 protected:
  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

TEST_F(WorkerThreadTest, RunsItsBodyOnAnotherThread) {
  WorkerThread worker;
  EXPECT_FALSE(worker.IsRunning());
  worker.PollUntilEnded(1);
  ASSERT_EQ(worker.Start([shared = shared_] {
    shared->thread = GetCurrentThreadId();
    shared->WaitForGo();
    ++shared->runs;
  }),
            S_OK);
  EXPECT_TRUE(worker.IsRunning());
  EXPECT_FALSE(TheModule().CanUnload());
  EXPECT_EQ(worker.Start([] {}), E_FAIL) << "one thread at a time";
  SetEvent(shared_->go.get());
  worker.PollUntilEnded(1);
  EXPECT_FALSE(worker.IsRunning());
  EXPECT_EQ(shared_->runs, 1);
  EXPECT_NE(shared_->thread, GetCurrentThreadId());
  EXPECT_TRUE(TheModule().CanUnload());
}

TEST_F(WorkerThreadTest, SurvivesAnExceptionOfItsBody) {
  WorkerThread worker;
  ASSERT_EQ(worker.Start([] { throw std::runtime_error("lost"); }), S_OK);
  worker.PollUntilEnded(1);
  ASSERT_EQ(worker.Start([] { throw 1; }), S_OK);
  worker.PollUntilEnded(1);
  ASSERT_EQ(worker.Start([shared = shared_] { ++shared->runs; }), S_OK);
  worker.PollUntilEnded(1);
  EXPECT_EQ(shared_->runs, 1);
  EXPECT_TRUE(TheModule().CanUnload());
}

TEST_F(WorkerThreadTest, WaitsForItsBodyWhenItIsDestroyed) {
  std::jthread later;
  {
    WorkerThread worker;
    ASSERT_EQ(worker.Start([shared = shared_] {
      shared->WaitForGo();
      ++shared->runs;
    }),
              S_OK);
    // The delay only makes it likely that the destructor is reached first.
    later = std::jthread([this] {
      Sleep(100);
      SetEvent(shared_->go.get());
    });
  }
  EXPECT_EQ(shared_->runs, 1);
  EXPECT_EQ(shared_.use_count(), 1) << "the body releases what it holds";
}

// The last release of an object may happen on its own worker, when a writer that the worker calls
// holds it.
TEST_F(WorkerThreadTest, DoesNotWaitForADetachedBody) {
  {
    WorkerThread worker;
    ASSERT_EQ(worker.Start([shared = shared_] {
      shared->WaitForGo();
      ++shared->runs;
    }),
              S_OK);
    worker.Detach();
    EXPECT_FALSE(worker.IsRunning());
  }
  EXPECT_EQ(shared_->runs, 0);
  EXPECT_FALSE(TheModule().CanUnload()) << "the thread is in the module";
  SetEvent(shared_->go.get());
  while (!TheModule().CanUnload()) Sleep(1);
  EXPECT_EQ(shared_->runs, 1);
}

TEST_F(WorkerThreadTest, CanBeDestroyedOnItsOwnThread) {
  auto worker = std::make_unique<WorkerThread>();
  WorkerThread& started = *worker;
  auto owner = std::make_shared<std::unique_ptr<WorkerThread>>(std::move(worker));
  ASSERT_EQ(started.Start([shared = shared_, owner] {
    shared->WaitForGo();
    (*owner)->PollUntilEnded(1000000);
    owner->reset();
    ++shared->runs;
  }),
            S_OK);
  SetEvent(shared_->go.get());
  while (shared_->runs == 0 || !TheModule().CanUnload()) Sleep(1);
  EXPECT_EQ(*owner, nullptr);
}

class Named : public testing::TestObject<IPersist> {
 public:
  STDMETHODIMP GetClassID(CLSID* clsid) override {
    *clsid = CLSID_StdGlobalInterfaceTable;
    thread = GetCurrentThreadId();
    return S_OK;
  }
  DWORD thread = 0;
};

// The tests' own thread is a single-threaded apartment.
TEST_F(WorkerThreadTest, ServesCallsOfTheBodyWhileItWaits) {
  const auto object = testing::MakeObject<Named>();
  IStream* stream = nullptr;
  ASSERT_EQ(CoMarshalInterThreadInterfaceInStream(IID_IPersist, object.Get(), &stream), S_OK);
  CLSID got = {};
  WorkerThread worker;
  ASSERT_EQ(worker.Start([&] {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    {
      ComPtr<IPersist> proxy;
      CoGetInterfaceAndReleaseStream(stream, IID_IPersist,
                                     reinterpret_cast<void**>(proxy.GetAddressOf()));
      if (proxy) proxy->GetClassID(&got);
    }
    CoUninitialize();
  }),
            S_OK);
  worker.AwaitServingCalls(INFINITE);
  EXPECT_FALSE(worker.IsRunning());
  EXPECT_TRUE(IsEqualGUID(got, CLSID_StdGlobalInterfaceTable));
  EXPECT_EQ(object->thread, GetCurrentThreadId());
}

}  // namespace
}  // namespace marlinda
