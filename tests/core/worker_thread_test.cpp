#include "core/worker_thread.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <thread>

#include "core/apartment.h"
#include "core/module.h"
#include "tests/support/test_object.h"

namespace marlinda {
namespace {

class WorkerThreadTest : public ::testing::Test {
 protected:
  // Shared by a test and its worker. A promise, because the wait of an atomic loses wake-ups in GCC
  // 12 without futexes.
  struct State {
    std::promise<void> go;
    std::shared_future<void> gone = go.get_future();
    std::atomic<DWORD> thread = 0;
    std::atomic<bool> ended = false;
  };
  // Starts a body that waits for `go`.
  void Start(WorkerThread& worker) const {
    ASSERT_EQ(worker.Start([state = state_] {
      state->thread = GetCurrentThreadId();
      state->gone.wait();
      state->ended = true;
    }),
              S_OK);
  }

  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

TEST_F(WorkerThreadTest, RunsOneBodyAtATimeOnAnotherThreadAndSurvivesItsExceptions) {
  WorkerThread worker;
  EXPECT_FALSE(worker.IsRunning());
  Start(worker);
  EXPECT_TRUE(worker.IsRunning());
  EXPECT_FALSE(TheModule().CanUnload());
  EXPECT_EQ(worker.Start([] {}), E_FAIL);
  state_->go.set_value();
  worker.PollUntilEnded(1);
  EXPECT_FALSE(worker.IsRunning());
  EXPECT_NE(state_->thread, GetCurrentThreadId());
  ASSERT_EQ(worker.Start([] { throw std::runtime_error("lost"); }), S_OK);
  worker.PollUntilEnded(1);
  Start(worker);
  worker.PollUntilEnded(1);
  EXPECT_TRUE(TheModule().CanUnload());
}

TEST_F(WorkerThreadTest, WaitsForItsBodyWhenItIsDestroyed) {
  std::jthread later;
  {
    WorkerThread worker;
    Start(worker);
    // The delay only makes it likely that the destructor is reached first.
    later = std::jthread([this] {
      Sleep(100);
      state_->go.set_value();
    });
  }
  EXPECT_TRUE(state_->ended);
  EXPECT_EQ(state_.use_count(), 1) << "the body releases what it holds";
}

TEST_F(WorkerThreadTest, DoesNotWaitForADetachedBody) {
  {
    WorkerThread worker;
    Start(worker);
    worker.Detach();
    EXPECT_FALSE(worker.IsRunning());
  }
  EXPECT_FALSE(TheModule().CanUnload()) << "the thread is in the module";
  state_->go.set_value();
  while (!TheModule().CanUnload()) Sleep(1);
  EXPECT_TRUE(state_->ended);
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
