#include "core/worker_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

#include "core/apartment.h"
#include "core/module.h"
#include "tests/support/test_object.h"

namespace marlinda {
namespace {

class WorkerThreadTest : public ::testing::Test {
 protected:
  // Shared by a test and its worker.
  // A promise, because the wait of an atomic loses wake-ups in GCC 12 without futexes.
  struct State {
    std::promise<void> go;
    std::shared_future<void> gone = go.get_future();
    std::atomic<int> runs = 0;
    std::atomic<DWORD> thread = 0;
  };
  // Starts a body that waits for `Go`.
  HRESULT Start(WorkerThread& worker) const {
    return worker.Start([state = state_] {
      state->thread = GetCurrentThreadId();
      state->gone.wait();
      ++state->runs;
    });
  }
  void Go() const { state_->go.set_value(); }

  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

TEST_F(WorkerThreadTest, RunsOneBodyAtATimeOnAnotherThreadAndSurvivesItsExceptions) {
  WorkerThread worker;
  EXPECT_FALSE(worker.IsRunning());
  worker.PollUntilEnded(1);
  ASSERT_EQ(Start(worker), S_OK);
  EXPECT_TRUE(worker.IsRunning());
  EXPECT_FALSE(TheModule().CanUnload());
  EXPECT_EQ(worker.Start([] {}), E_FAIL);
  Go();
  worker.PollUntilEnded(1);
  EXPECT_FALSE(worker.IsRunning());
  EXPECT_NE(state_->thread, GetCurrentThreadId());
  ASSERT_EQ(worker.Start([] { throw std::runtime_error("lost"); }), S_OK);
  worker.PollUntilEnded(1);
  ASSERT_EQ(worker.Start([] { throw 1; }), S_OK);
  worker.PollUntilEnded(1);
  ASSERT_EQ(Start(worker), S_OK);
  worker.PollUntilEnded(1);
  EXPECT_EQ(state_->runs, 2);
  EXPECT_TRUE(TheModule().CanUnload());
}

TEST_F(WorkerThreadTest, WaitsForItsBodyWhenItIsDestroyed) {
  std::jthread later;
  {
    WorkerThread worker;
    ASSERT_EQ(Start(worker), S_OK);
    // The delay only makes it likely that the destructor is reached first.
    later = std::jthread([this] {
      Sleep(100);
      Go();
    });
  }
  EXPECT_EQ(state_->runs, 1);
  EXPECT_EQ(state_.use_count(), 1) << "the body releases what it holds";
}

TEST_F(WorkerThreadTest, DoesNotWaitForADetachedBody) {
  {
    WorkerThread worker;
    ASSERT_EQ(Start(worker), S_OK);
    worker.Detach();
    EXPECT_FALSE(worker.IsRunning());
  }
  EXPECT_FALSE(TheModule().CanUnload()) << "the thread is in the module";
  Go();
  while (!TheModule().CanUnload()) Sleep(1);
  EXPECT_EQ(state_->runs, 1);
}

// The last release of an object may happen on its own worker.
TEST_F(WorkerThreadTest, CanBeDestroyedOnItsOwnThread) {
  const auto owner = std::make_shared<std::unique_ptr<WorkerThread>>(new WorkerThread);
  ASSERT_EQ((*owner)->Start([state = state_, owner] {
    state->gone.wait();
    (*owner)->PollUntilEnded(1000000);
    owner->reset();
  }),
            S_OK);
  Go();
  while (!TheModule().CanUnload()) Sleep(1);
  EXPECT_EQ(*owner, nullptr);
}

class Named : public testing::TestObject<IPersist> {
 public:
  STDMETHODIMP GetClassID(CLSID*) override {
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
}  // namespace marlinda
