#include "plugin/task_scheduler.h"

#include <boost/thread/thread.hpp>
#include <new>

#include "shell/host_suites.h"

namespace fontrix {

void* ITask::operator new(size_t size) {
  if (void* memory = qv::NewHostMemory(size)) return memory;
  throw std::bad_alloc();
}

void ITask::operator delete(void* memory) { qv::DisposeHostMemory(memory); }

SimpleTaskScheduler::SimpleTaskScheduler() = default;

SimpleTaskScheduler::~SimpleTaskScheduler() {
  // Without joining: a thread object still running is detached by its destructor.
  for (auto& e : entries_)
    if (e.thread && e.thread->joinable()) e.thread->detach();
}

void SimpleTaskScheduler::Prune() {
  entries_.remove_if([](Entry& e) {
    if (e.task && !e.task->IsFinished()) return false;
    // A finished task's thread is at most returning from its body: the join is immediate.
    if (e.thread && e.thread->joinable()) e.thread->join();
    return true;
  });
}

void SimpleTaskScheduler::Enqueue(ITask* task) {
  Prune();
  Entry entry;
  entry.task.reset(task);
  entry.thread = std::make_shared<boost::thread>(&SimpleTaskScheduler::RunTask, task);
  entries_.push_back(std::move(entry));
}

void SimpleTaskScheduler::StopAll() {
  for (auto& e : entries_)
    if (e.thread && e.thread->joinable()) e.thread->join();
  entries_.clear();
}

void SimpleTaskScheduler::RunTask(ITask* task) {
  task->Run();
  task->MarkFinished();
}

}  // namespace fontrix
