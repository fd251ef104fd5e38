#pragma once
// How far a cache's update has come through the current font list, and what the service last
// had to report.
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

namespace fontrix {

struct CacheProgress {
  std::atomic<uint32_t> done{0};   ///< fonts of the list the cache has handled
  std::atomic<uint32_t> total{0};  ///< fonts of the list it has to handle
  // Since the cache was created: fonts of the current list that were already in its files,
  // fonts computed, fonts found unusable.
  std::atomic<uint32_t> matched{0}, computed{0}, unusable{0};

  /// A new update over `fonts` fonts.
  void Start(uint32_t fonts) {
    done.store(0);
    total.store(fonts);
  }
  void Finish() { done.store(total.load()); }

  /// The values of the progress suite's report severities.
  enum Severity : int32_t { kNothing = 0, kWarning = 1, kFailure = 2, kNotSaved = 3, kWaiting = 4 };
  /// Keeps one sentence naming a cause and its file for hosts to show: a warning when the
  /// service still works (a damaged cache rebuilt), "not saved" when it works but what it
  /// computed was not kept, a failure when it cannot answer (its data cannot be used). A report
  /// never replaces a graver one (warning, then not saved, then failure).
  void Report(Severity severity, std::string text);
  /// While `text` is not empty, the service waits for another process and LastReport says so;
  /// "" ends the wait and the kept report returns.
  void Waiting(std::string text);
  std::pair<Severity, std::string> LastReport() const;

 private:
  mutable std::mutex report_mutex_;
  Severity severity_ = kNothing;
  std::string report_, waiting_;
};

}  // namespace fontrix
