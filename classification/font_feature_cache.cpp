#include "classification/font_feature_cache.h"

#include "plugin/cache_log.h"

namespace fontrix {

namespace {
std::mutex instance_mutex;
std::shared_ptr<FontFeatureCache> instance;
}  // namespace

std::shared_ptr<FontFeatureCache> FontFeatureCache::Instance() {
  std::lock_guard<std::mutex> lock(instance_mutex);
  return instance;
}

std::shared_ptr<FontFeatureCache> FontFeatureCache::GetOrCreate() {
  std::lock_guard<std::mutex> lock(instance_mutex);
  if (!instance) instance = std::make_shared<FontFeatureCache>();
  return instance;
}

void FontFeatureCache::Terminate() {
  std::lock_guard<std::mutex> lock(instance_mutex);
  instance.reset();
}

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
