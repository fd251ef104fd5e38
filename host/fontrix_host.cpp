// The C interface of the reference host (host/fontrix_host.h): a thin layer over Host that
// turns exceptions into result codes and a thread's last error message, finds the installed
// module and data relative to this library, and runs the lifecycle as the fontrix tool does.
#include "host/fontrix_host.h"

#include <dlfcn.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "host/host.h"
#include "sdk/fontrix_suites.h"

using fontrix::host::ErrorText;
using fontrix::host::Host;
using fontrix::host::HostOptions;

struct FontrixHost {
  std::unique_ptr<Host> host;
  bool loaded = false, started = false;
  std::map<std::pair<std::string, int32_t>, int> held;  // the application's acquisitions
};

namespace {

namespace fs = std::filesystem;

thread_local std::string last_error;

// A failure with the code the C caller gets.
struct Error : std::runtime_error {
  Error(QVErr code, const std::string& message) : std::runtime_error(message), code(code) {}
  QVErr code;
};

void SetLastError(const char* message) noexcept {
  try {
    last_error = message;
  } catch (...) {
    last_error.clear();  // no memory for the message: better none than a stale one
  }
}

// Runs one entry point's body: the last error is cleared first, and set from whatever the
// body throws, which never goes further.
template <typename Body>
QVErr Guarded(Body&& body) noexcept {
  last_error.clear();
  try {
    return body();
  } catch (const Error& e) {
    SetLastError(e.what());
    return e.code;
  } catch (const std::bad_alloc&) {
    SetLastError("out of memory");
    return kQVOutOfMemoryErr;
  } catch (const std::logic_error& e) {  // the Host refusing a call out of order
    SetLastError(e.what());
    return kQVBadParameterErr;
  } catch (const std::exception& e) {
    SetLastError(e.what());
    return kQVCantHappenErr;
  } catch (...) {
    SetLastError("an unknown exception reached the Fontrix host library");
    return kQVUnexpectedErr;
  }
}

Host& Checked(FontrixHost* host) {
  if (!host || !host->host) throw Error(kQVBadParameterErr, "no Fontrix host was given (NULL)");
  return *host->host;
}

// The folder of the file holding this code: libfontrix_host.so, where the installed module and
// data are found relative to it. Symbolic links are followed to the real file, so a link to
// the library from elsewhere still finds its own prefix.
fs::path OwnDir() {
  static const char anchor = 0;
  Dl_info info{};
  if (!dladdr(&anchor, &info) || !info.dli_fname || !*info.dli_fname) return {};
  std::error_code ec;
  const fs::path file = fs::canonical(info.dli_fname, ec);
  return ec ? fs::path(info.dli_fname).parent_path() : file.parent_path();
}

std::string Env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

std::string DefaultModule() {
  if (std::string env = Env("FONTRIX_MODULE"); !env.empty()) return env;
  std::vector<fs::path> candidates;
  if (const fs::path dir = OwnDir(); !dir.empty()) candidates.push_back(dir / "libfontrix.so");
  if (candidates.empty() || candidates[0] != fs::path(FONTRIX_INSTALLED_MODULE))
    candidates.emplace_back(FONTRIX_INSTALLED_MODULE);
  std::string looked;
  for (const fs::path& candidate : candidates) {
    std::error_code ec;
    if (fs::is_regular_file(candidate, ec)) return candidate.string();
    looked += (looked.empty() ? "" : " and ") + candidate.string();
  }
  throw Error(kQVNotFoundErr,
              "cannot find the Fontrix module (looked for " + looked + "); give its path or set FONTRIX_MODULE");
}

// share/fontrix of the prefix this library is installed in, else of the prefix it was built
// for; "" leaves the choice to the Host ($FONTRIX_DATA_DIR, then beside the program, then the
// source tree's).
std::string DefaultDataDir() {
  if (!Env("FONTRIX_DATA_DIR").empty()) return "";
  std::vector<fs::path> candidates;
  if (const fs::path dir = OwnDir(); !dir.empty()) candidates.push_back(dir / ".." / "share" / "fontrix");
  candidates.emplace_back(FONTRIX_INSTALLED_DATA_DIR);
  for (const fs::path& candidate : candidates) {
    std::error_code ec;
    if (fs::is_directory(candidate, ec)) return candidate.lexically_normal().string();
  }
  return "";
}

std::string SuiteText(const char* name, int32_t version) {
  return "\"" + std::string(name) + "\" version " + std::to_string(version);
}

// Idle ticks until every service that is on is idle, or the time is up: false then.
bool WaitForServices(Host& host, const FontrixProgressSuite& progress, double timeout_seconds) {
  QVErr failed = kQVNoErr;
  auto idle = [&] {
    for (int32_t service = 0; service < kFontrixServiceCount; ++service) {
      FontrixServiceProgress p{};
      if (const QVErr err = progress.GetServiceProgress(service, &p)) {
        failed = err;
        return true;
      }
      if (p.enabled && !p.idle) return false;
    }
    return true;
  };
  host.Idle();
  const bool done = host.RunUntil(idle, timeout_seconds);
  if (failed) throw Error(failed, "reading the module's progress failed (error " + ErrorText(failed) + ")");
  return done;
}

}  // namespace

extern "C" {

FontrixHost* fontrix_host_open(const FontrixHostOptions* options) {
  FontrixHost* opened = nullptr;
  Guarded([&] {
    HostOptions host_options;
    if (options && options->data_dir) host_options.data_dir = options->data_dir;
    if (options && options->cache_dir) host_options.cache_dir = options->cache_dir;
    if (options && options->disable) {
      try {
        for (const std::string& key : fontrix::host::ServiceSwitches(options->disable))
          host_options.switches[key] = false;
      } catch (const std::runtime_error& e) {
        throw Error(kQVBadParameterErr, std::string("disable: ") + e.what());
      }
    }
    if (host_options.data_dir.empty()) host_options.data_dir = DefaultDataDir();
    auto host = std::make_unique<FontrixHost>();
    try {
      host->host = std::make_unique<Host>(std::move(host_options));
    } catch (const std::logic_error&) {
      throw Error(kQVBadParameterErr, "another Fontrix host is open in this process; close it first");
    }
    opened = host.release();
    return kQVNoErr;
  });
  return opened;
}

QVErr fontrix_host_load_module(FontrixHost* host, const char* path) {
  return Guarded([&] {
    Host& h = Checked(host);
    if (host->loaded) throw Error(kQVBadParameterErr, "a module is already loaded into this host");
    if (path && !*path) throw Error(kQVBadParameterErr, "the module path is empty");
    const std::string file = path ? path : DefaultModule();
    std::error_code ec;
    if (!fs::exists(file, ec))
      throw Error(kQVNotFoundErr, "cannot load the Fontrix module at " + file + ": there is no such file");
    h.LoadModule(file);
    host->loaded = true;
    return kQVNoErr;
  });
}

QVErr fontrix_host_start(FontrixHost* host) {
  return Guarded([&] {
    Host& h = Checked(host);
    if (!host->loaded) throw Error(kQVNotInitialisedErr, "no module is loaded into this host");
    if (host->started) throw Error(kQVBadParameterErr, "the module is already started");
    if (const QVErr err = h.Startup())
      throw Error(err, "the Fontrix module failed to start (error " + ErrorText(err) + ")");
    host->started = true;
    if (const QVErr err = h.ApplicationStarted())
      throw Error(err, "the module's application-started notification failed (error " + ErrorText(err) + ")");
    if (const QVErr err = h.FontListChanged())
      throw Error(err, "the module's font-list notification failed (error " + ErrorText(err) + ")");
    return kQVNoErr;
  });
}

QVErr fontrix_host_wait_until_idle(FontrixHost* host, double timeout_seconds) {
  return Guarded([&] {
    Host& h = Checked(host);
    if (std::isnan(timeout_seconds)) throw Error(kQVBadParameterErr, "the timeout is not a number");
    if (!host->started) throw Error(kQVNotInitialisedErr, "the module is not started");
    auto* progress =
        static_cast<const FontrixProgressSuite*>(h.AcquireSuite(kFontrixProgressSuite, kFontrixProgressSuiteVersion));
    if (!progress)
      throw Error(kQVSuiteNotFoundErr,
                  "the module publishes no " + SuiteText(kFontrixProgressSuite, kFontrixProgressSuiteVersion));
    const double limit = timeout_seconds < 0 ? std::numeric_limits<double>::infinity() : timeout_seconds;
    bool idle = false;
    try {
      idle = WaitForServices(h, *progress, limit);
    } catch (...) {
      h.ReleaseSuite(kFontrixProgressSuite, kFontrixProgressSuiteVersion);
      throw;
    }
    h.ReleaseSuite(kFontrixProgressSuite, kFontrixProgressSuiteVersion);
    if (!idle) {
      char seconds[32];
      std::snprintf(seconds, sizeof seconds, "%g", timeout_seconds);
      throw Error(kFontrixHostBusyErr, std::string("the module's services were still working after ") + seconds + " s");
    }
    return kQVNoErr;
  });
}

const void* fontrix_host_acquire_suite(FontrixHost* host, const char* name, int32_t version) {
  const void* suite = nullptr;
  Guarded([&] {
    Host& h = Checked(host);
    if (!name) throw Error(kQVBadParameterErr, "no suite name was given (NULL)");
    const std::pair<std::string, int32_t> key(name, version);
    int& count = host->held[key];
    suite = h.AcquireSuite(name, version);
    if (!suite) {
      if (count == 0) host->held.erase(key);
      throw Error(kQVSuiteNotFoundErr,
                  "there is no suite " + SuiteText(name, version) +
                      (host->started ? "" : " (the module's own suites appear once it is started)"));
    }
    ++count;
    return kQVNoErr;
  });
  return suite;
}

QVErr fontrix_host_release_suite(FontrixHost* host, const char* name, int32_t version) {
  return Guarded([&] {
    Host& h = Checked(host);
    if (!name) throw Error(kQVBadParameterErr, "no suite name was given (NULL)");
    const auto held = host->held.find({name, version});
    if (held == host->held.end())
      throw Error(kQVBadParameterErr, "suite " + SuiteText(name, version) + " is not held through this host");
    h.ReleaseSuite(name, version);
    if (--held->second == 0) host->held.erase(held);
    return kQVNoErr;
  });
}

QVErr fontrix_host_close(FontrixHost* host) {
  return Guarded([&] {
    std::unique_ptr<FontrixHost> owned(host);
    if (!owned || !owned->host) return kQVNoErr;
    Host& h = *owned->host;
    for (const auto& [suite, count] : owned->held)
      for (int i = 0; i < count; ++i) h.ReleaseSuite(suite.first.c_str(), suite.second);
    owned->held.clear();
    if (!owned->started) return kQVNoErr;
    // The module finishes what the shut-down notification starts during a few more ticks.
    const QVErr notified = h.ApplicationShutdown();
    for (int tick = 0; tick < 3; ++tick) h.Idle();
    const QVErr shut = h.Shutdown();
    owned->started = false;
    if (const QVErr err = notified ? notified : shut)
      throw Error(err, "the Fontrix module did not shut down cleanly (error " + ErrorText(err) + ")");
    return kQVNoErr;
  });
}

const char* fontrix_host_last_error(void) { return last_error.c_str(); }

}  // extern "C"
