#include "plugin/task_scheduler.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "tests/plugin/test_host.h"

namespace fontrix {
namespace {

using testing::HostTest;

// A task that runs until released, so the test decides when it ends.
struct Gate {
  std::mutex m;
  std::condition_variable cv;
  bool open = false;
  void Open() {
    std::lock_guard<std::mutex> lock(m);
    open = true;
    cv.notify_all();
  }
  void Wait() {
    std::unique_lock<std::mutex> lock(m);
    cv.wait(lock, [&] { return open; });
  }
};

class GatedTask : public ITask {
 public:
  GatedTask(Gate& gate, std::atomic<int>& ran) : gate_(gate), ran_(ran) {}
  void Run() override {
    gate_.Wait();
    ran_++;
  }

 private:
  Gate& gate_;
  std::atomic<int>& ran_;
};

void WaitFinished(const ITask* task) {
  while (!task->IsFinished()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// Queuing prunes finished tasks and keeps running ones; StopAll waits for the running ones.
TEST_F(HostTest, SchedulerPrunesFinishedTasksAndStopAllWaits) {
  auto& h = Started();
  const size_t blocks_before = h.LiveBlocks();
  std::atomic<int> ran{0};
  Gate quick, slow;
  quick.Open();
  SimpleTaskScheduler scheduler;
  scheduler.StopAll();  // empty: returns at once
  auto* first = new GatedTask(quick, ran);
  scheduler.Enqueue(first);
  WaitFinished(first);
  scheduler.Enqueue(new GatedTask(slow, ran));
  EXPECT_EQ(scheduler.Size(), 1u);               // the finished one went when the second was queued
  EXPECT_EQ(h.LiveBlocks(), blocks_before + 1);  // tasks live in host memory until pruned
  scheduler.Enqueue(new GatedTask(slow, ran));
  EXPECT_EQ(scheduler.Size(), 2u);  // running tasks stay
  std::thread opener([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    slow.Open();
  });
  scheduler.StopAll();
  EXPECT_EQ(ran.load(), 3);  // StopAll returned only after both slow tasks ended
  EXPECT_EQ(scheduler.Size(), 0u);
  EXPECT_EQ(h.LiveBlocks(), blocks_before);
  opener.join();
}

}  // namespace
}  // namespace fontrix
