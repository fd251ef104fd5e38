#include "host/tool/reports.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <limits>
#include <string>

#include "host/tool/queries.h"

namespace fontrix::host {

volatile std::sig_atomic_t interrupted = 0;

// The first Ctrl-C asks for an orderly shutdown; a second one ends the process at once.
extern "C" void OnInterrupt(int) {
  interrupted = 1;
  std::signal(SIGINT, SIG_DFL);
}

double Seconds() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

namespace {

// A one-line bar on standard error, redrawn in place; only on a terminal, and only once the
// wait has lasted a second, so quick runs and pipes see nothing.
class ProgressBar {
 public:
  ProgressBar() : enabled_(isatty(STDERR_FILENO) == 1), start_(Seconds()) {}
  ~ProgressBar() {
    if (shown_) std::fputs("\r\033[K", stderr);
  }
  void Show(uint64_t done, uint64_t total) {
    const double now = Seconds();
    if (!enabled_ || now - start_ < 1.0 || now - drawn_ < 0.1 || (shown_ && done == done_ && total == total_)) return;
    drawn_ = now;
    done_ = done;
    total_ = total;
    shown_ = true;
    constexpr int kWidth = 30;
    const int filled = total ? int(kWidth * std::min(done, total) / total) : 0;
    std::fprintf(stderr, "\rfontrix: updating caches [%s%s] %llu/%llu fonts\033[K",
                 std::string(size_t(filled), '#').c_str(), std::string(size_t(kWidth - filled), '.').c_str(),
                 static_cast<unsigned long long>(done), static_cast<unsigned long long>(total));
    std::fflush(stderr);
  }

 private:
  bool enabled_, shown_ = false;
  double start_, drawn_ = 0;
  uint64_t done_ = 0, total_ = 0;
};

}  // namespace

uint32_t ServiceReports::Say(bool waits_only) {
  std::lock_guard<std::mutex> lock(mutex_);
  uint32_t failed = 0;
  for (int32_t service = 0; service < kFontrixServiceCount; ++service) {
    FontrixServiceProgress p{};
    int32_t severity = kFontrixReportNothing;
    char text[1024] = "";
    if (progress_.GetServiceProgress(service, &p) || !p.enabled ||
        progress_.GetServiceReport(service, &severity, text, sizeof text) || severity == kFontrixReportNothing)
      continue;
    if (severity == kFontrixReportFailure) failed |= 1u << service;
    if (severity == kFontrixReportNotSaved) not_saved_ = true;
    if ((severity == kFontrixReportWaiting) != waits_only || !said_.insert(text).second) continue;
    // A line of its own, over the progress bar if one is drawn.
    std::fprintf(stderr, "%sfontrix: %s%s\n", isatty(STDERR_FILENO) == 1 ? "\r\033[K" : "",
                 severity == kFontrixReportWarning || severity == kFontrixReportNotSaved ? "warning: " : "", text);
  }
  return failed;
}

// The bar counts fonts: a font is done when every enabled service is done with it.
bool WaitForServices(Host& host, const FontrixProgressSuite& progress, ServiceReports& reports) {
  ProgressBar bar;
  bool idle = false;
  auto check = [&] {
    reports.SayWaits();
    uint64_t done = std::numeric_limits<uint64_t>::max(), total = 0;
    idle = true;
    for (int32_t service = 0; service < kFontrixServiceCount; ++service) {
      FontrixServiceProgress p{};
      Check(progress.GetServiceProgress(service, &p), "reading the module's progress");
      if (!p.enabled) continue;
      idle = idle && p.idle;
      total = std::max<uint64_t>(total, p.fontsTotal);
      done = std::min<uint64_t>(done, p.idle ? p.fontsTotal : p.fontsDone);
    }
    bar.Show(std::min(done, total), total);
  };
  check();
  host.RunUntil([&] { return idle || interrupted; }, std::numeric_limits<double>::infinity(), check);
  return !interrupted;
}

}  // namespace fontrix::host
