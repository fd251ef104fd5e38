#include "recognition/font_recognition_cache.h"

#include "plugin/cache_log.h"
#include "plugin/process_wide.h"

namespace fontrix {

std::shared_ptr<FontRecognitionCache> FontRecognitionCache::Instance() {
  return ProcessWide<FontRecognitionCache>::Get();
}
std::shared_ptr<FontRecognitionCache> FontRecognitionCache::GetOrCreate() {
  return ProcessWide<FontRecognitionCache>::GetOrCreate();
}
void FontRecognitionCache::Terminate() { ProcessWide<FontRecognitionCache>::Reset(); }

void FontRecognitionCache::Load() {
  std::lock_guard<std::mutex> lock(mutex_);
  RecognitionLog().Info("Loading Recognition Engine Starts: time : ", HostTime());
  loaded_.store(true);
}

bool FontRecognitionCache::Update(const std::vector<QVFontHandle>& fonts, uint32_t fontServerId) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (fontServerId < fontServerId_.load()) return false;
  progress_.Start(uint32_t(fonts.size()));
  fontServerId_.store(fontServerId);
  RecognitionLog().Info(" Current Font Server ID - ", fontServerId);
  progress_.Finish();
  return false;
}

std::vector<std::pair<std::string, double>> FontRecognitionCache::GetRecognizedFontList(QVRasterHandle) {
  std::lock_guard<std::mutex> lock(mutex_);
  return {};
}

}  // namespace fontrix
