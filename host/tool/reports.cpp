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
  /// A bar of `what` ("updating caches"), drawn from half a second after `started` (the
  /// command's start: a question answered sooner shows none).
  ProgressBar(const char* what, double started) : enabled_(isatty(STDERR_FILENO) == 1), what_(what), start_(started) {}
  ~ProgressBar() {
    if (shown_) std::fputs("\r\033[K", stderr);
  }
  void Show(uint64_t done, uint64_t total) {
    const double now = Seconds();
    if (first_done_ == kNone) first_done_ = done, first_seen_ = now;
    if (!enabled_ || total == 0 || now - start_ < kFirstDrawn || now - drawn_ < 0.1 ||
        (shown_ && done == done_ && total == total_))
      return;
    drawn_ = now;
    done_ = done;
    total_ = total;
    shown_ = true;
    constexpr int kWidth = 30;
    const int filled = total ? int(kWidth * std::min(done, total) / total) : 0;
    // The time left at the pace since the bar started, once the pace is known.
    std::string left;
    if (done > first_done_ && done < total && now - first_seen_ >= 2.0) {
      const double seconds = (now - first_seen_) / double(done - first_done_) * double(total - done);
      char text[48];
      if (seconds < 90)
        std::snprintf(text, sizeof text, ", about %.0f s left", seconds);
      else
        std::snprintf(text, sizeof text, ", about %.0f min left", seconds / 60);
      left = text;
    }
    std::fprintf(stderr, "\rfontrix: %s [%s%s] %llu/%llu fonts%s\033[K", what_,
                 std::string(size_t(filled), '#').c_str(), std::string(size_t(kWidth - filled), '.').c_str(),
                 static_cast<unsigned long long>(done), static_cast<unsigned long long>(total), left.c_str());
    std::fflush(stderr);
  }

 private:
  static constexpr uint64_t kNone = std::numeric_limits<uint64_t>::max();
  // Half a second: a question answered from warm caches (a tenth of that) shows no bar, and a
  // first run shows one well within a second.
  static constexpr double kFirstDrawn = 0.5;
  bool enabled_, shown_ = false;
  const char* what_;
  double start_, drawn_ = 0, first_seen_ = 0;
  uint64_t done_ = 0, total_ = 0, first_done_ = kNone;
};

}  // namespace

uint32_t ServiceReports::Say(bool waits_only, bool* waiting) {
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
    if (severity == kFontrixReportWaiting && waiting) *waiting = true;
    if (severity == kFontrixReportNotSaved) not_saved_ = true;
    if ((severity == kFontrixReportWaiting) != waits_only || !said_.insert(text).second) continue;
    // A line of its own, over the progress bar if one is drawn.
    std::fprintf(stderr, "%sfontrix: %s%s\n", isatty(STDERR_FILENO) == 1 ? "\r\033[K" : "",
                 severity == kFontrixReportWarning || severity == kFontrixReportNotSaved ? "warning: " : "", text);
  }
  return failed;
}

// The bar counts fonts: a font is done when every service waited for is done with it.
void ShowFontReading(const Host& host, double started) {
  ProgressBar bar("reading new font files", started);
  bool said = false;
  while (!host.FontsListed(0.05)) {
    const auto [read, total] = host.ListingProgress();
    if (total == 0) continue;
    if (!said && Seconds() - started >= 2.0) {
      said = true;
      std::fprintf(stderr, "%sfontrix: reading %llu new or changed font files (once: later runs answer at once)\n",
                   isatty(STDERR_FILENO) == 1 ? "\r\033[K" : "", static_cast<unsigned long long>(total));
    }
    bar.Show(read, total);
  }
}

bool WaitForServices(Host& host, const FontrixProgressSuite& progress, ServiceReports& reports, uint32_t services,
                     double started) {
  ProgressBar bar("updating caches", started);
  bool idle = false, said = false;
  double working_since = -1;  // when the services last began taking in fonts, not held by another process
  auto check = [&] {
    // A service waiting for another process's hold on the cache folder says so itself.
    const bool held = reports.SayWaits();
    uint64_t done = std::numeric_limits<uint64_t>::max(), total = 0;
    std::string waiting;
    idle = true;
    for (int32_t service = 0; service < kFontrixServiceCount; ++service) {
      FontrixServiceProgress p{};
      Check(progress.GetServiceProgress(service, &p), "reading the module's progress");
      if (!p.enabled || !(services & (1u << service))) continue;
      idle = idle && p.idle;
      total = std::max<uint64_t>(total, p.fontsTotal);
      done = std::min<uint64_t>(done, p.idle ? p.fontsTotal : p.fontsDone);
      if (!p.idle) waiting += std::string(waiting.empty() ? "" : " and ") + ServiceName(service);
    }
    // Work that lasts is a first run (or many new fonts): said once, so nobody takes it for a
    // hang, also where no bar is drawn. Counted from when the work began: a wait for another
    // process is said on its own, and the moment after it, while the caches are read, is no
    // taking in.
    const bool working = !idle && !held && done < total;
    if (!working)
      working_since = -1;
    else if (working_since < 0)
      working_since = Seconds();
    if (working && !said && Seconds() - working_since >= 2.0) {
      said = true;
      std::fprintf(stderr,
                   "%sfontrix: the module is taking in %llu installed fonts for %s (once: later runs answer at "
                   "once); the answer follows\n",
                   isatty(STDERR_FILENO) == 1 ? "\r\033[K" : "", static_cast<unsigned long long>(total),
                   waiting.c_str());
    }
    bar.Show(std::min(done, total), total);
  };
  check();
  // Whatever the command needs, the module's font list comes first: it is made when the module
  // takes the host's font list notification, which may come an idle tick after start-up.
  auto ready = [&] {
    uint32_t generation = 0;
    FontrixFontHandleList none{nullptr, [](void*, QVFontHandle) {}};
    Check(progress.GetFontList(&none, &generation), "reading the module's font list");
    return idle && generation != 0;
  };
  host.RunUntil([&] { return ready() || interrupted; }, std::numeric_limits<double>::infinity(), check);
  return !interrupted;
}

}  // namespace fontrix::host
