#pragma once
// The caches' diagnostic logs: plain text files for developers, off for users.
#include <atomic>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>

#include "sdk/qv_types.h"

namespace fontrix {

/// One cache's log. A line is built and appended only when the level allows it: ordinary
/// information at level 1 and above, per-font detail at level 2. Each line opens the file in
/// append mode, writes and closes it, so it is on disk at once and no handle is held; any
/// failure loses the line silently.
class CacheLog {
 public:
  enum Level { kInfo = 1, kDetail = 2 };

  explicit CacheLog(const char* file_name) : file_name_(file_name) {}

  /// Level 2 when the host's "TextDebug/DumpDebugInfo" switch is on, else 0.
  void ReadLogSwitch();
  void SetLevel(int level) { level_.store(level); }
  /// Puts the log file in `folder`.
  void SetFolder(const std::string& folder);
  std::string Path() const;

  /// Appends the pieces, in order, as one line when `level` is enabled.
  template <typename... Pieces>
  void LogLine(Level level, const Pieces&... pieces) {
    if (level_.load() < level) return;
    std::ostringstream line;
    line.precision(13);  // host times are seconds since the epoch: keep the milliseconds
    (line << ... << pieces);
    line << '\n';
    Append(line.str());
  }
  template <typename... Pieces>
  void Info(const Pieces&... pieces) {
    LogLine(kInfo, pieces...);
  }
  template <typename... Pieces>
  void Detail(const Pieces&... pieces) {
    LogLine(kDetail, pieces...);
  }
  /// In a catch block: `line` at `level` (the block's fixed line, as it has always read), then,
  /// on a line of its own, the message of the exception being handled when it has one.
  void Exception(Level level, const char* line);

 private:
  void Append(const std::string& text);

  const char* file_name_;
  std::atomic<int> level_{0};
  mutable std::mutex path_mutex_;
  std::string path_;
};

CacheLog& ClassificationLog();  ///< "FontFeatureLogs.txt"
CacheLog& SimilarityLog();      ///< "NQ_sim_debug_info.txt"
CacheLog& RecognitionLog();     ///< "NQ_rec_debug_info.txt"

/// The host's clock for the time stamps that some log lines carry.
double HostTime();

/// The host's performance log "QVPerformance.log", asked for once; null when the host has none.
QVPerfLogHandle PerformanceLog();

}  // namespace fontrix
