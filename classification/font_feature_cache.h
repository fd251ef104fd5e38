#pragma once
// The classification cache: the class bitmask of every installed font, kept in
// "FontFeatureCache.json" so that only fonts new since the last run are measured.
#include <cstdint>
#include <functional>
#include <shared_mutex>
#include <string>
#include <vector>

#include "classification/feature_cache_file.h"
#include "hostglue/font_access.h"
#include "sdk/qv_types.h"
#include "shell/service_cache.h"

namespace fontrix {

class FontFeatureCache : public ServiceCache<FontFeatureCache, hostglue::FontAccessSlot> {
 public:
  /// The class bitmask of a font, or -1 when it cannot be measured (stored as no class).
  using Classifier = std::function<int64_t(hostglue::FontAccess&, QVFontHandle)>;

  /// Logs "Feature Cache Terminating" and releases the instance.
  static void Terminate();
  /// Creates the instance and loads the cache file (init task).
  static void Init();
  /// Builds the three paths from the host's writable folder (main thread) and logs them.
  static void SetUpPaths();
  /// Replaces the measuring and scoring of fonts (tests).
  static void SetClassifier(Classifier classifier);
  static std::string CacheFilePath();
  /// Puts the three files in `folder` and logs their paths.
  static void SetCacheFolder(const std::string& folder);

  /// Loads the cache file; false when it had the wrong shape (the cache then stays empty).
  bool Load();
  /// Classifies the fonts of `fonts` (generation `fontServerId`) that have no record yet and
  /// saves the file when any was added; nothing for a lower generation. True when records were added.
  bool Update(const std::vector<QVFontHandle>& fonts, uint32_t fontServerId);
  void Save();

  /// The names of the cached fonts whose mask has the bit of `labelIndex` (a style class).
  std::vector<std::string> GetFontsWithLabel(int32_t labelIndex);
  /// The mask of font `name`, or -1 when it is not cached.
  int64_t Mask(const std::string& name);
  /// A copy of every record, in the order GetFontsWithLabel answers in.
  std::vector<FeatureRecord> Records();

 private:
  std::shared_mutex lock_;              // the records
  std::vector<FeatureRecord> records_;  // sorted by name after every merge
  size_t storedThisRun_ = 0;            // records this instance added
};

}  // namespace fontrix
