#pragma once
// What the tool says while the module works: a bar of the fonts taken in, the services' reports
// on standard error, and Ctrl-C.
#include <csignal>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>

#include "host/host.h"
#include "sdk/fontrix_suites.h"

namespace fontrix::host {

/// Set by the first Ctrl-C (and SIGTERM while serving): the command stops and the module shuts
/// down in order; a second Ctrl-C ends the process at once.
extern volatile std::sig_atomic_t interrupted;
extern "C" void OnInterrupt(int);

/// Seconds on a steady clock.
double Seconds();

// What the services report, on stderr, each sentence once: a wait for another process while it
// lasts (also while the module shuts down and saves), warnings, failures and saves not made.
// Safe to call from a watching thread beside the host's.
class ServiceReports {
 public:
  explicit ServiceReports(const FontrixProgressSuite& progress) : progress_(progress) {}

  /// Says a wait going on now that was not said yet; returns whether a service is waiting for
  /// another process now.
  bool SayWaits() {
    bool waiting = false;
    Say(true, &waiting);
    return waiting;
  }
  /// Says every report not said yet; returns the services that cannot answer, bit per
  /// kFontrixService value.
  uint32_t SayNew() { return Say(false, nullptr); }
  /// Whether a service said that what it computed was not kept.
  bool NotSaved() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return not_saved_;
  }

 private:
  uint32_t Say(bool waits_only, bool* waiting);

  const FontrixProgressSuite& progress_;
  mutable std::mutex mutex_;
  std::set<std::string> said_;
  bool not_saved_ = false;
};

/// Idle ticks until the enabled services of `services` (bit per kFontrixService value) are idle,
/// the others working on meanwhile; false when interrupted. A wait of more than a moment is
/// said once on standard error, what for and for how many fonts, and shown on a terminal as a
/// bar with the time left.
bool WaitForServices(Host& host, const FontrixProgressSuite& progress, ServiceReports& reports, uint32_t services,
                     double started);
/// Until the host's first listing ends: on a terminal, from half a second after `started`, a bar of
/// the font files it reads (every file on a first run, before any service can start).
void ShowFontReading(const Host& host, double started);

}  // namespace fontrix::host
