#pragma once
// Background tasks: each queued task runs at once on a thread of its own.
#include <atomic>
#include <cstddef>
#include <list>
#include <memory>

namespace boost {
class thread;
}

namespace fontrix {

/// A unit of background work.
class ITask {
 public:
  virtual ~ITask() = default;
  /// Does the work on the worker thread; must not let an exception escape.
  virtual void Run() = 0;
  void MarkFinished() { finished_.store(true); }
  bool IsFinished() const { return finished_.load(); }
  /// Tasks come from host memory: they are handed over to the host's world.
  static void* operator new(size_t size);
  static void operator delete(void* memory);

 private:
  std::atomic<bool> finished_{false};
};

/// Starts every queued task on its own thread and keeps it until it has finished. There is no
/// queue and no pool: tasks run concurrently. Main thread only.
class SimpleTaskScheduler {
 public:
  SimpleTaskScheduler();
  /// Destroys the remaining entries without joining their threads.
  ~SimpleTaskScheduler();
  SimpleTaskScheduler(const SimpleTaskScheduler&) = delete;
  SimpleTaskScheduler& operator=(const SimpleTaskScheduler&) = delete;

  /// Takes ownership of `task` and starts it; first removes the entries of finished tasks.
  /// Throws boost::thread_resource_error when no thread can be made (the task is destroyed).
  void Enqueue(ITask* task);
  /// Waits for every task to end, in queue order, then destroys all entries.
  void StopAll();
  /// Entries held (running tasks and finished ones not yet removed).
  size_t Size() const { return entries_.size(); }
  /// The thread body: Run, then MarkFinished.
  static void RunTask(ITask* task);

 private:
  struct Entry {
    std::shared_ptr<ITask> task;
    std::shared_ptr<boost::thread> thread;
  };
  void Prune();
  std::list<Entry> entries_;
};

}  // namespace fontrix
