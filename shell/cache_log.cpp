#include "shell/cache_log.h"

#include <chrono>
#include <exception>

#include "shell/feature_switches.h"
#include "shell/host_suites.h"

namespace fontrix {

void CacheLog::ReadLogSwitch() { level_.store(qv::GetFeatureManager().IsEnabled(kDebugInfoSwitch) ? 2 : 0); }

void CacheLog::SetFolder(const std::string& folder) {
  std::lock_guard<std::mutex> lock(path_mutex_);
  path_ = folder + "/" + file_name_;
}

std::string CacheLog::Path() const {
  std::lock_guard<std::mutex> lock(path_mutex_);
  return path_;
}

void CacheLog::Append(const std::string& text) {
  const std::string path = Path();
  if (path.empty()) return;
  std::ofstream file(path, std::ios::app | std::ios::binary);
  if (file) file.write(text.data(), std::streamsize(text.size()));
}

CacheLog& ClassificationLog() {
  static CacheLog log("FontFeatureLogs.txt");
  return log;
}

CacheLog& SimilarityLog() {
  static CacheLog log("NQ_sim_debug_info.txt");
  return log;
}

CacheLog& RecognitionLog() {
  static CacheLog log("NQ_rec_debug_info.txt");
  return log;
}

double HostTime() {
  double seconds = 0;
  const QVDevUtilsSuite* dev = qv::Suites().devUtils;
  if (dev && dev->GetCurrentTime(&seconds) == kQVNoErr) return seconds;
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

QVPerfLogHandle PerformanceLog() {
  static const QVPerfLogHandle log = [] {
    const QVDevUtilsSuite* dev = qv::Suites().devUtils;
    if (!dev) return QVPerfLogHandle(nullptr);
    QVPerfLogHandle named = nullptr, none = nullptr;
    if (dev->GetPerformanceLog("QVPerformance.log", &named) != kQVNoErr) return QVPerfLogHandle(nullptr);
    dev->GetPerformanceLog(nullptr, &none);
    return named == none ? QVPerfLogHandle(nullptr) : named;
  }();
  return log;
}

void CacheLog::Exception(Level level, const char* line) {
  LogLine(level, line);
  try {
    if (const std::exception_ptr caught = std::current_exception()) std::rethrow_exception(caught);
  } catch (const std::exception& e) {
    LogLine(level, "  because: ", e.what());
  } catch (...) {
  }
}

}  // namespace fontrix
