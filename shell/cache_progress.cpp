#include "shell/cache_progress.h"

namespace fontrix {

void CacheProgress::Report(Severity severity, std::string text) {
  std::lock_guard<std::mutex> lock(report_mutex_);
  if (severity < severity_) return;
  severity_ = severity;
  report_ = std::move(text);
}

std::pair<CacheProgress::Severity, std::string> CacheProgress::LastReport() const {
  std::lock_guard<std::mutex> lock(report_mutex_);
  return {severity_, report_};
}

}  // namespace fontrix
