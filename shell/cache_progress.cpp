#include "shell/cache_progress.h"

namespace fontrix {

namespace {

int Gravity(CacheProgress::Severity severity) {
  switch (severity) {
    case CacheProgress::kWarning:
      return 1;
    case CacheProgress::kNotSaved:
      return 2;
    case CacheProgress::kFailure:
      return 3;
    default:
      return 0;
  }
}

}  // namespace

void CacheProgress::Report(Severity severity, std::string text) {
  std::lock_guard<std::mutex> lock(report_mutex_);
  if (Gravity(severity) < Gravity(severity_)) return;
  severity_ = severity;
  report_ = std::move(text);
}

void CacheProgress::Waiting(std::string text) {
  std::lock_guard<std::mutex> lock(report_mutex_);
  waiting_ = std::move(text);
}

std::pair<CacheProgress::Severity, std::string> CacheProgress::LastReport() const {
  std::lock_guard<std::mutex> lock(report_mutex_);
  if (!waiting_.empty()) return {kWaiting, waiting_};
  return {severity_, report_};
}

}  // namespace fontrix
