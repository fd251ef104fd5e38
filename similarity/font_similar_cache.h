#pragma once
// The similarity cache: one 768-value feature vector per font, and the similar-font queries.
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

class FontSimilarCache {
 public:
  /// The process-wide instance, or null when none has been created.
  static std::shared_ptr<FontSimilarCache> Instance();
  /// The instance, created when absent.
  static std::shared_ptr<FontSimilarCache> GetOrCreate();
  /// Saves what needs saving and destroys the instance.
  static void Terminate();

  /// Loads the model and the cache files.
  void Load();
  /// Brings the cache up to date with `fonts`, the font list of generation `fontServerId`;
  /// does nothing for an identifier lower than the last one processed. True when the cache
  /// changed.
  bool Update(const std::vector<QVFontHandle>& fonts, uint32_t fontServerId);

  /// The installed fonts most like font `fontName`, best first, with their scores.
  std::vector<std::pair<std::string, double>> GetSimilarFonts(const std::string& fontName);
  /// The names of GetSimilarFonts, in the same order.
  std::vector<std::string> GetSimilarFontNames(const std::string& fontName);

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
