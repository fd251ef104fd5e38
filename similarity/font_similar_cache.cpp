#include "similarity/font_similar_cache.h"

#include "plugin/cache_log.h"

namespace fontrix {

namespace {
std::mutex instance_mutex;
std::shared_ptr<FontSimilarCache> instance;
}  // namespace

std::shared_ptr<FontSimilarCache> FontSimilarCache::Instance() {
  std::lock_guard<std::mutex> lock(instance_mutex);
  return instance;
}

std::shared_ptr<FontSimilarCache> FontSimilarCache::GetOrCreate() {
  std::lock_guard<std::mutex> lock(instance_mutex);
  if (!instance) instance = std::make_shared<FontSimilarCache>();
  return instance;
}

void FontSimilarCache::Terminate() {
  std::lock_guard<std::mutex> lock(instance_mutex);
  instance.reset();
}

void FontSimilarCache::Load() {
  std::lock_guard<std::mutex> lock(mutex_);
  SimilarityLog().Info("Loading Cache Data Starts: time : ", HostTime());
  loaded_.store(true);
}

bool FontSimilarCache::Update(const std::vector<QVFontHandle>& fonts, uint32_t fontServerId) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (fontServerId < fontServerId_.load()) return false;
  progress_.Start(uint32_t(fonts.size()));
  fontServerId_.store(fontServerId);
  SimilarityLog().Info(" Current Font Server ID - ", fontServerId);
  progress_.Finish();
  return false;
}

std::vector<std::pair<std::string, double>> FontSimilarCache::GetSimilarFonts(const std::string& fontName) {
  std::lock_guard<std::mutex> lock(mutex_);
  // A font without a usable entry is its own only answer.
  return {{fontName, 1.0}};
}

std::vector<std::string> FontSimilarCache::GetSimilarFontNames(const std::string& fontName) {
  std::vector<std::string> names;
  for (auto& [name, score] : GetSimilarFonts(fontName)) names.push_back(name);
  return names;
}

}  // namespace fontrix
