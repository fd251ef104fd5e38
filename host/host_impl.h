#pragma once
// The host's state, shared by the Host methods and the C suite functions (internal header).
//
// Locking: `mu` guards the registries, counters and records below it; `fonts_mu` guards the
// font list. Neither is held while the module's `main` runs, so the module may call any suite
// from inside a message. The plug-in record itself (entry, globals) is touched only on the
// main thread.
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "host/face_cache.h"
#include "host/host.h"
#include "sdk/qv_font_suites.h"
#include "sdk/qv_host_suites.h"

namespace fontrix::host {

struct PluginRecord {
  QVPluginMainProc entry = nullptr;
  void* library = nullptr;  // dlopen handle; null for an in-process entry
  std::string path;
  void* globals = nullptr;
  std::string name;
  bool started = false;
};

struct SuiteRecord {
  std::string name;
  int32_t version = 0, internal_version = 0;
  const void* table = nullptr;
  PluginRecord* owner = nullptr;  // null: a suite of the host
  int acquisitions = 0;
};

struct NotifierRecord {
  PluginRecord* plugin;
  std::string name, type;
};

struct TimerRecord {
  PluginRecord* plugin;
  std::string name;
  int32_t period_ms;
  bool active = true;
  double due_from;  // clock time the period counts from
};

struct FontRecord {
  HostFont font;
  bool duplicate = false;
};

struct Host::Impl {
  explicit Impl(HostOptions opts);

  HostOptions options;
  std::string data_dir, cache_dir;
  std::map<std::string, bool> switches;

  std::unique_ptr<PluginRecord> plugin;
  QVBasicSuite basic{};

  mutable std::mutex mu;
  std::vector<std::unique_ptr<SuiteRecord>> suites;
  std::vector<std::unique_ptr<NotifierRecord>> notifiers;
  std::vector<std::unique_ptr<TimerRecord>> timers;
  std::vector<std::pair<std::string, void*>> queued;  // notifications waiting for the next tick
  std::vector<std::string> delivered;
  std::vector<std::string> alerts;
  std::unordered_set<void*> blocks, md_memory;
  std::vector<std::unique_ptr<int>> accesses;  // each element's address is a QVAccessRef
  std::vector<std::unique_ptr<int>> contexts;  // a stack; each element's address is a QVAppContext
  std::unordered_map<std::string, std::unique_ptr<std::string>> perf_logs;  // name -> handle (its key copy)

  // Font list. Records are never freed while the host lives, so a handle from an earlier
  // generation stays readable; an unchanged face keeps its handle across rebuilds.
  mutable std::shared_mutex fonts_mu;
  std::vector<std::unique_ptr<FontRecord>> all_fonts;
  std::unordered_set<const FontRecord*> known_fonts;
  std::vector<FontRecord*> font_list;
  std::unordered_map<std::string, FontRecord*> font_by_name;  // first face with each unique name
  std::vector<HostFont> fonts;                                // copy of the current list for Fonts()
  uint32_t generation = 0;
  // The first listing runs on a thread of its own from the host's construction, so that the
  // module starts and reads its caches meanwhile; whatever reads the list waits for it first.
  std::shared_future<void> first_listing;
  void AwaitFonts() const {
    if (first_listing.valid()) first_listing.wait();
  }

  // The font engine's open faces; thread-safe on its own.
  std::unique_ptr<FaceCache> faces;
  // IsFontUsable's answer per font record: opening a face costs a millisecond, and the
  // module asks for every font at every update.
  std::mutex usable_mu;
  std::unordered_map<const HostFont*, bool> usable;

  double Now() const;
  /// The face behind a handle of any generation; null for a handle the host never gave.
  /// Records are never changed or freed while the host lives, so the pointer stays valid.
  const HostFont* FontOf(QVFontHandle handle) const;
  /// Rebuilds the font list from the source; throws what the source throws.
  void RebuildFonts();
  /// Registers the host's own suites.
  void AddHostSuites();
  /// Calls the module; returns kQVUnexpectedErr if an exception comes out of an in-process entry.
  QVErr Call(const char* caller, const char* selector, QVMessageData* message);
  /// Delivers one notification to every registration of `type`; returns the first failure.
  QVErr Deliver(const std::string& type, void* data);
  /// One idle tick; true when it delivered something or its timers spent ≥ 1 ms.
  bool Tick();
  /// Drops everything the module registered (after Shutdown or a failed Startup).
  void ForgetPlugin();
  bool IsPlugin(QVPluginRef ref) const { return plugin && ref == reinterpret_cast<QVPluginRef>(plugin.get()); }
};

/// The live host, for the C suite functions.
extern Host::Impl* g_host;

/// Runs a suite function's body against the live host; no exception leaves it.
template <typename Body>
QVErr Guarded(Body&& body) noexcept {
  Host::Impl* host = g_host;
  if (!host) return kQVNotInitialisedErr;
  try {
    return body(*host);
  } catch (const std::bad_alloc&) {
    return kQVOutOfMemoryErr;
  } catch (...) {
    return kQVUnexpectedErr;
  }
}

/// Copies `text` with its NUL into out[capacity]; kQVBadParameterErr when it does not fit.
QVErr CopyOut(const std::string& text, char* out, size_t capacity);

/// Folder and switch resolution (folders.cpp).
std::string ResolveDataDir(const std::string& option);
std::string ResolveCacheDir(const std::string& option);
std::map<std::string, bool> ResolveSwitches(const std::map<std::string, bool>& overrides);

/// The suite tables of the font suites (font_suites.cpp).
extern const QVFontSuite kFontSuiteTable;
extern const QVFontGlueSuite kFontGlueSuiteTable;

}  // namespace fontrix::host
