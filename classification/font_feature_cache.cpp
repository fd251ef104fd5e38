#include "classification/font_feature_cache.h"

#include "plugin/cache_log.h"
#include "plugin/process_wide.h"

namespace fontrix {

std::shared_ptr<FontFeatureCache> FontFeatureCache::Instance() { return ProcessWide<FontFeatureCache>::Get(); }
std::shared_ptr<FontFeatureCache> FontFeatureCache::GetOrCreate() {
  return ProcessWide<FontFeatureCache>::GetOrCreate();
}
void FontFeatureCache::Terminate() { ProcessWide<FontFeatureCache>::Reset(); }

void FontFeatureCache::Load() {
  std::lock_guard<std::mutex> lock(mutex_);
  loaded_.store(true);
}

bool FontFeatureCache::Update(const std::vector<QVFontHandle>& fonts, uint32_t fontServerId) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (fontServerId < fontServerId_.load()) return false;
  progress_.Start(uint32_t(fonts.size()));
  fontServerId_.store(fontServerId);
  ClassificationLog().Info(" Current Font Server ID - ", fontServerId);
  progress_.Finish();
  return false;
}

std::vector<std::string> FontFeatureCache::GetFontsWithLabel(int32_t) {
  std::lock_guard<std::mutex> lock(mutex_);
  return {};
}

}  // namespace fontrix
