#pragma once
// The classification cache: one class bitmask per font, kept in "FontFeatureCache.json".
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "plugin/cache_progress.h"
#include "sdk/qv_types.h"

namespace fontrix {

class FontFeatureCache {
 public:
  /// The process-wide instance, or null when none has been created.
  static std::shared_ptr<FontFeatureCache> Instance();
  /// The instance, created when absent.
  static std::shared_ptr<FontFeatureCache> GetOrCreate();
  /// Saves what needs saving and destroys the instance.
  static void Terminate();

  /// Loads the cache file.
  void Load();
  /// Brings the cache up to date with `fonts`, the font list of generation `fontServerId`;
  /// does nothing for an identifier lower than the last one processed. True when the cache
  /// changed.
  bool Update(const std::vector<QVFontHandle>& fonts, uint32_t fontServerId);

  /// The unique names of the cached fonts whose class bits include the bit of `labelIndex`.
  std::vector<std::string> GetFontsWithLabel(int32_t labelIndex);

  bool Loaded() const { return loaded_.load(); }
  uint32_t FontServerId() const { return fontServerId_.load(); }
  CacheProgress& Progress() { return progress_; }

 private:
  std::mutex mutex_;
  std::atomic<bool> loaded_{false};
  std::atomic<uint32_t> fontServerId_{0};
  CacheProgress progress_;
};

}  // namespace fontrix
