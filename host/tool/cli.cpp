// fontrix: starts the module in the reference host, lets it bring its caches up to date with
// the installed fonts, answers one command through the module's suites as another plug-in
// would, then shuts the module down in order. `specimen` draws through the host's font engine
// instead, the procedures the module binds, and needs none of the module's caches.
#include "host/tool/cli.h"

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>

#include "host/host.h"
#include "host/tool/commands.h"
#include "host/tool/options.h"
#include "host/tool/queries.h"
#include "host/tool/reports.h"
#include "host/tool/serve.h"
#include "sdk/fontrix_suites.h"
#include "sdk/qv_host_suites.h"

namespace fontrix::host {
namespace {

std::string FindModule(const std::string& option) {
  if (!option.empty()) return option;
  if (const char* env = std::getenv("FONTRIX_MODULE"); env && *env) return env;
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::path bin = ExecutableDir();
  const fs::path candidates[] = {bin / ".." / "lib" / "libfontrix.so", bin / "libfontrix.so"};
  for (const fs::path& candidate : candidates)
    if (fs::exists(candidate, ec)) return candidate.lexically_normal().string();
  throw std::runtime_error("cannot find the Fontrix module (looked for " + candidates[0].lexically_normal().string() +
                           " and " + candidates[1].string() + "); give its path with --module or FONTRIX_MODULE");
}

// The services a command cannot answer without, bit per kFontrixService value: what it waits
// for on a first run, while the module takes in the fonts. Recognition is steered by the
// similarity vectors, and the classes the module answers join the class vote over them, so both
// need similarity too. Listing fonts needs no service (but --all names what each could not
// use); index waits for every one.
uint32_t ServicesNeeded(const Options& options) {
  constexpr uint32_t kClasses = 1u << kFontrixServiceClassification, kSimilar = 1u << kFontrixServiceSimilarity,
                     kRecognize = 1u << kFontrixServiceRecognition;
  const std::string& c = options.command;
  if (c == "index") return kClasses | kSimilar | kRecognize;
  if (c == "classes") return kClasses | kSimilar;
  // fonts --all also names the fonts a service could not use, so it runs them all.
  // fonts --known asks the known fonts suite, which answers once the similarity vectors are in.
  if (c == "fonts")
    return options.all               ? kClasses | kSimilar | kRecognize
           : options.known           ? kSimilar
           : options.classes.empty() ? 0
                                     : kClasses | kSimilar;
  if (c == "similar") return kSimilar | (options.classes.empty() ? 0 : kClasses);
  // The known fonts and the similarity table answer once the similarity vectors are in.
  if (c == "substitute") return kSimilar;
  if (c == "recognize") return kSimilar | kRecognize;
  return 0;
}

int RunCommand(const Options& options) {
  HostOptions host_options;
  host_options.data_dir = options.data_dir;
  host_options.cache_dir = options.cache_dir;
  for (const std::string& key : options.disabled) host_options.switches[key] = false;
  // A command starts only the services it asks: the others' caches are neither read nor
  // brought up to date, so a question costs what it needs whatever else is installed (index
  // and the web server run them all).
  if (options.command != "index" && options.command != "serve") {
    const uint32_t needed = ServicesNeeded(options);
    for (int32_t service = 0; service < kFontrixServiceCount; ++service)
      if (!(needed & (1u << service))) host_options.switches[ServiceSwitch(service)] = false;
  }
  if (options.debug_log) host_options.switches[kSwitchDumpDebugInfo] = true;
  if (options.largest_line) host_options.switches[kSwitchRecognitionLargestLine] = true;
  const double started = Seconds();
  Host host(std::move(host_options));
  {
    // A first run reads every font file before the module can start: a terminal sees it happen.
    // The module's start-up waits for the list, so the bar is gone when it has started.
    std::thread reading([&host, started] { ShowFontReading(host, started); });
    struct Joined {
      std::thread& thread;
      ~Joined() { thread.join(); }
    } joined{reading};
    host.LoadModule(FindModule(options.module));
    if (QVErr err = host.Startup()) throw Failure("the Fontrix module failed to start (error " + ErrorText(err) + ")");
  }
  interrupted = 0;
  std::signal(SIGINT, OnInterrupt);
  if (options.command == "serve") std::signal(SIGTERM, OnInterrupt);

  // Without a cache folder the module still answers, but keeps nothing: every command computes
  // every font again.
  const std::string cache = host.FolderPath(kQVFolderUserCache);
  std::error_code no_cache;
  std::filesystem::create_directories(cache, no_cache);
  if (!no_cache && !std::filesystem::is_directory(cache, no_cache))
    no_cache = std::make_error_code(std::errc::not_a_directory);
  if (no_cache)
    std::fprintf(stderr, "fontrix: warning: cannot make the cache folder %s (%s): nothing is kept between runs\n",
                 cache.c_str(), no_cache.message().c_str());

  int status = 0;
  std::optional<HeldSuite<FontrixProgressSuite>> progress;
  std::optional<ServiceReports> reports;
  try {
    Check(host.ApplicationStarted(), "the module's start-up notification");
    Check(host.FontListChanged(), "the module's font list notification");
    if (options.command == "specimen") {
      DrawSpecimenFile(host, options);
    } else if (options.command == "serve") {
      // The page shows the module's progress itself while it takes in the fonts.
      status = Serve(host, options.serve, interrupted);
      progress.emplace(host, kFontrixProgressSuite, kFontrixProgressSuiteVersion);
      reports.emplace(**progress);
    } else {
      progress.emplace(host, kFontrixProgressSuite, kFontrixProgressSuiteVersion);
      reports.emplace(**progress);
      if (!WaitForServices(host, **progress, *reports, ServicesNeeded(options), started)) {
        std::fprintf(stderr, "fontrix: interrupted\n");
        status = 130;
      } else if (const uint32_t failed = reports->SayNew(); failed & ServicesNeeded(options)) {
        status = 1;  // the reason is said: the command cannot do its job
      } else if (options.command == "fonts") {
        Fonts(host, options);
      } else if (options.command == "similar") {
        Similar(host, options);
      } else if (options.command == "substitute") {
        status = SubstituteFamilies(host, options);
      } else if (options.command == "classes") {
        Classes(host, options);
      } else if (options.command == "recognize") {
        Recognize(host, options);
      } else if (options.command == "index") {
        Index(**progress, options, Seconds() - started);
        if (failed) status = 1;
      }
    }
  } catch (const Failure& e) {
    std::fprintf(stderr, "fontrix: %s\n", e.what());
    status = 1;
  }

  // The module saves its caches while it shuts down: a wait for another process's hold on the
  // folder is said as it happens, and a save that failed after it.
  // The watcher is woken to stop rather than left to finish a sleep: a quick shut-down would
  // otherwise wait for its tick.
  std::mutex watch_mu;
  std::condition_variable watch_stop;
  bool shutting = true;
  std::thread watcher;
  if (reports)
    watcher = std::thread([&] {
      std::unique_lock lock(watch_mu);
      while (shutting) {
        lock.unlock();
        reports->SayWaits();
        lock.lock();
        watch_stop.wait_for(lock, std::chrono::milliseconds(100), [&] { return !shutting; });
      }
    });
  // The module finishes what the shutdown notification starts during a few more ticks.
  const QVErr notified = host.ApplicationShutdown();
  for (int tick = 0; tick < 3; ++tick) host.Idle();
  {
    std::lock_guard lock(watch_mu);
    shutting = false;
  }
  watch_stop.notify_all();
  if (watcher.joinable()) watcher.join();
  if (reports) {
    reports->SayNew();
    // What index computed is lost when a cache could not be written: the job was not done.
    if (options.command == "index" && status == 0 && (reports->NotSaved() || no_cache)) status = 1;
  }
  progress.reset();
  const QVErr shut = host.Shutdown();
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
  if ((notified || shut) && status == 0) {
    std::fprintf(stderr, "fontrix: the Fontrix module did not shut down cleanly (error %s)\n",
                 ErrorText(notified ? notified : shut).c_str());
    status = 1;
  }
  return status;
}

}  // namespace

int RunCli(int argc, char** argv) {
  Options options;
  try {
    options = Parse(argc, argv);
  } catch (const UsageError& e) {
    std::fprintf(stderr, "fontrix: %s\n%s\n", e.what(), kUsage);
    return 2;
  }
  if (options.help) {
    std::fputs(kHelp, stdout);
    return 0;
  }
  if (options.version) {
    std::printf("fontrix %s\n", FONTRIX_VERSION);
    return 0;
  }
  try {
    return RunCommand(options);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "fontrix: %s\n", e.what());
    return 1;
  }
}

}  // namespace fontrix::host
