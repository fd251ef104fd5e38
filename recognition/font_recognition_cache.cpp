#include "recognition/font_recognition_cache.h"

#include "plugin/cache_log.h"

namespace fontrix {

namespace {
std::mutex instance_mutex;
std::shared_ptr<FontRecognitionCache> instance;
}  // namespace

std::shared_ptr<FontRecognitionCache> FontRecognitionCache::Instance() {
  std::lock_guard<std::mutex> lock(instance_mutex);
  return instance;
}

std::shared_ptr<FontRecognitionCache> FontRecognitionCache::GetOrCreate() {
  std::lock_guard<std::mutex> lock(instance_mutex);
  if (!instance) instance = std::make_shared<FontRecognitionCache>();
  return instance;
}

void FontRecognitionCache::Terminate() {
  std::lock_guard<std::mutex> lock(instance_mutex);
  instance.reset();
}

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
