#pragma once
// What the three font-service caches have in common, kept in one place so that each cache holds
// only its own work: the one process-wide instance, the way to the fonts, the state the shell
// reads while the background tasks run, the lock that lets one update run at a time, and where
// a cache's files lie in the host's folders.
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "shell/cache_progress.h"
#include "shell/process_wide.h"

namespace fontrix {

/// The path of a cache's `file` in host folder `folder`, or "" when the host gave no folder: the
/// file is then missing, rather than looked for in whatever the working directory is.
inline std::string FileInFolder(const std::string& folder, const char* file) {
  return folder.empty() ? std::string() : folder + "/" + file;
}

/// The base of font-service cache `Cache`, which derives from ServiceCache<Cache, FontSlot>: each
/// cache type gets its own instance, font access and update lock. `FontSlot` is the services'
/// way to the fonts (it has Set, Get, Available and an Access type); the shell knows no fonts,
/// so the caches name it.
template <typename Cache, typename FontSlot>
class ServiceCache {
 public:
  /// The process-wide instance, or null when none has been created: the exported suites then
  /// answer "UIN?", so they look it up and never create it.
  static std::shared_ptr<Cache> Instance() { return ProcessWide<Cache>::Get(); }
  /// The instance, created when absent (the tasks).
  static std::shared_ptr<Cache> GetOrCreate() { return ProcessWide<Cache>::GetOrCreate(); }
  /// Releases the instance; a caller still using it keeps it until done. A cache with work to
  /// do at termination declares its own Terminate, which ends with this one.
  static void Terminate() { ProcessWide<Cache>::Reset(); }
  /// The fonts, glyphs and text the cache works with: the host's, unless a test or benchmark
  /// puts others in; null puts the host's back.
  static void SetFontAccess(typename FontSlot::Access* access) { Fonts().Set(access); }

  bool Loaded() const { return loaded_.load(); }
  uint32_t FontServerId() const { return fontServerId_.load(); }
  /// How often what the cache answers has changed (a load, fonts added): what is worked out
  /// from its answers can be kept while this stays the same.
  uint64_t Changes() const { return changes_.load(); }
  CacheProgress& Progress() { return progress_; }

 protected:
  ServiceCache() = default;
  ~ServiceCache() = default;

  static FontSlot& Fonts() {
    static FontSlot slot;
    return slot;
  }
  /// Held for a whole update, so that two updates of one cache never interleave (the font list
  /// may change twice quickly); always taken before the cache's own lock.
  static std::mutex& UpdateMutex() {
    static std::mutex m;
    return m;
  }

  std::atomic<bool> loaded_{false};        // set by the first load, whatever its result
  std::atomic<uint32_t> fontServerId_{0};  // of the last update; a lower one does nothing
  std::atomic<uint64_t> changes_{0};       // raised by the cache wherever its answers change
  CacheProgress progress_;
};

}  // namespace fontrix
