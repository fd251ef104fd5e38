// The host's lifecycle, messages and main-thread loop.
#include "host/host.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <vector>

#include "host/host_impl.h"

namespace fontrix::host {

Host::Impl* g_host = nullptr;

namespace {

double SteadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

std::string ErrorText(QVErr err) {
  char chars[4] = {char(err >> 24), char(err >> 16), char(err >> 8), char(err)};
  bool printable = true;
  for (char c : chars) printable = printable && std::isprint(static_cast<unsigned char>(c));
  if (!printable) return std::to_string(err);
  return "'" + std::string(chars, 4) + "'";
}

QVErr CopyOut(const std::string& text, char* out, size_t capacity) {
  if (!out || text.size() + 1 > capacity) return kQVBadParameterErr;
  std::memcpy(out, text.c_str(), text.size() + 1);
  return kQVNoErr;
}

Host::Impl::Impl(HostOptions opts)
    : options(std::move(opts)),
      data_dir(ResolveDataDir(options.data_dir)),
      cache_dir(ResolveCacheDir(options.cache_dir)),
      switches(ResolveSwitches(options.switches)) {
  if (!options.fonts) {
    // The listing lives in the writable cache folder; without one, faces are read every run.
    std::error_code ec;
    std::filesystem::create_directories(cache_dir, ec);
    options.fonts = MakeFontconfigSource(ec ? std::string() : cache_dir + "/host_font_listing.txt");
  }
  faces = std::make_unique<FaceCache>();
}

double Host::Impl::Now() const {
  if (options.clock) return options.clock();
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

QVErr Host::Impl::Call(const char* caller, const char* selector, QVMessageData* message) {
  message->self = reinterpret_cast<QVPluginRef>(plugin.get());
  message->globals = plugin->globals;
  message->basic = &basic;
  QVErr err;
  try {
    err = plugin->entry(caller, selector, message);
  } catch (...) {
    err = kQVUnexpectedErr;
  }
  plugin->globals = message->globals;
  return err;
}

QVErr Host::Impl::Deliver(const std::string& type, void* data) {
  std::vector<NotifierRecord*> targets;
  {
    std::lock_guard lock(mu);
    for (const auto& n : notifiers)
      if (n->type == type) targets.push_back(n.get());
  }
  QVErr first = kQVNoErr;
  for (NotifierRecord* n : targets) {
    QVNotifierMessage message{};
    message.notifier = reinterpret_cast<QVNotifierHandle>(n);
    message.type = n->type.c_str();
    message.notifyData = data;
    {
      std::lock_guard lock(mu);
      delivered.push_back(type);
    }
    QVErr err = Call(kQVNotifierCaller, kQVNotifySelector, &message.d);
    if (err && !first) first = err;
  }
  return first;
}

bool Host::Impl::Tick() {
  std::vector<std::pair<std::string, void*>> now_queued;
  std::vector<TimerRecord*> timer_list;
  {
    std::lock_guard lock(mu);
    now_queued.swap(queued);
    for (const auto& t : timers) timer_list.push_back(t.get());
  }
  bool busy = !now_queued.empty();
  for (const auto& [type, data] : now_queued) Deliver(type, data);

  const double start = SteadySeconds();
  for (TimerRecord* t : timer_list) {
    const double now = Now();
    {
      // An earlier timer's message may have stopped this one.
      std::lock_guard lock(mu);
      if (!t->active || (now - t->due_from) * 1000.0 < t->period_ms) continue;
      t->due_from = now;
    }
    QVTimerMessage message{};
    message.timer = reinterpret_cast<QVTimerHandle>(t);
    Call(kQVTimerCaller, kQVGoSelector, &message.d);
  }
  return busy || SteadySeconds() - start >= 0.001;
}

void Host::Impl::ForgetPlugin() {
  std::lock_guard lock(mu);
  PluginRecord* p = plugin.get();
  auto owned = [p](const auto& record) { return record->plugin == p; };
  notifiers.erase(std::remove_if(notifiers.begin(), notifiers.end(), owned), notifiers.end());
  timers.erase(std::remove_if(timers.begin(), timers.end(), owned), timers.end());
  suites.erase(std::remove_if(suites.begin(), suites.end(), [p](const auto& s) { return s->owner == p; }),
               suites.end());
  queued.clear();
}

Host::Host(HostOptions options) {
  if (g_host) throw std::logic_error("only one fontrix::host::Host may be alive at a time");
  impl_ = std::make_unique<Impl>(std::move(options));
  impl_->AddHostSuites();
  impl_->RebuildFonts();
  g_host = impl_.get();
}

Host::~Host() {
  if (impl_->plugin && impl_->plugin->started) Shutdown();
  // A module that still holds an access handle asked to stay loaded (its threads may still run).
  if (impl_->plugin && impl_->plugin->library && AccessCount() == 0) dlclose(impl_->plugin->library);
  // Memory a module never gave back (a failed start-up keeps its suite tables) goes with the
  // host, as a process's heap goes with it.
  if (AccessCount() == 0) {
    for (void* block : impl_->blocks) std::free(block);
    for (void* memory : impl_->md_memory) std::free(memory);
  }
  g_host = nullptr;
}

namespace {

// What the module keeps in the cache folder, worked out by one module build from one set of data.
const char* const kModuleCacheFiles[] = {"FontFeatureCache.json", "NQ_sim_fea_sys.cch", "NQ_sim_meta_sys.cch",
                                         "NQ_sim_sums_sys.cch"};

// Size and modification time of the module and of every file in its data folder.
std::string ModuleStamp(const std::string& module, const std::string& data_dir) {
  namespace fs = std::filesystem;
  std::error_code ec;
  auto line = [&](const fs::path& file) {
    const auto size = fs::file_size(file, ec);
    const auto time = fs::last_write_time(file, ec).time_since_epoch().count();
    return file.filename().string() + " " + std::to_string(ec ? 0 : size) + " " + std::to_string(ec ? 0 : time) + "\n";
  };
  std::vector<std::string> lines{line(module)};
  for (fs::directory_iterator it(data_dir, ec), end; !ec && it != end; it.increment(ec))
    if (it->is_regular_file(ec)) lines.push_back(line(it->path()));
  std::sort(lines.begin() + 1, lines.end());
  std::string stamp;
  for (const std::string& l : lines) stamp += l;
  return stamp;
}

}  // namespace

// A cache computed by another build of the module, or from other networks and weights, would
// go on answering with the old results: the module matches cached fonts by name and never
// recomputes them. So the host keeps a stamp of the module and its data beside the caches, and
// removes the caches when the stamp changes.
void Host::ForgetCachesOfOtherModules(const std::string& module) {
  namespace fs = std::filesystem;
  const std::string stamp = ModuleStamp(module, impl_->data_dir);
  const fs::path stamp_file = fs::path(impl_->cache_dir) / "module_stamp.txt";
  std::string previous;
  if (std::FILE* f = std::fopen(stamp_file.c_str(), "rb")) {
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, f)) > 0;) previous.append(buffer, n);
    std::fclose(f);
  }
  if (previous == stamp) return;
  std::error_code ec;
  for (const char* name : kModuleCacheFiles) fs::remove(fs::path(impl_->cache_dir) / name, ec);
  const fs::path temporary = stamp_file.string() + ".tmp";
  if (std::FILE* f = std::fopen(temporary.c_str(), "wb")) {
    const bool written = std::fwrite(stamp.data(), 1, stamp.size(), f) == stamp.size();
    if (std::fclose(f) == 0 && written) fs::rename(temporary, stamp_file, ec);
    if (!written || ec) fs::remove(temporary, ec);
  }
}

void Host::LoadModule(const std::string& path) {
  if (impl_->plugin) throw std::logic_error("a module is already loaded");
  // dlopen searches the library path for a name without a slash; a module is always a file.
  const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
  void* library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) throw std::runtime_error("cannot load the Fontrix module at " + path + ": " + dlerror());
  auto entry = reinterpret_cast<QVPluginMainProc>(dlsym(library, kQVPluginMainSymbol));
  if (!entry) {
    dlclose(library);
    throw std::runtime_error("the Fontrix module at " + path + " has no entry point " + kQVPluginMainSymbol);
  }
  impl_->plugin = std::make_unique<PluginRecord>();
  impl_->plugin->entry = entry;
  impl_->plugin->library = library;
  impl_->plugin->path = path;
  ForgetCachesOfOtherModules(path);
}

void Host::UseModuleEntry(QVPluginMainProc entry) {
  if (impl_->plugin) throw std::logic_error("a module is already loaded");
  impl_->plugin = std::make_unique<PluginRecord>();
  impl_->plugin->entry = entry;
}

QVErr Host::Startup() {
  if (!impl_->plugin) return kQVNotInitialisedErr;
  if (impl_->plugin->started) return kQVNoErr;
  QVMessageData message{};
  QVErr err = impl_->Call(kQVInterfaceCaller, kQVStartupSelector, &message);
  if (err)
    impl_->ForgetPlugin();
  else
    impl_->plugin->started = true;
  return err;
}

QVErr Host::ApplicationStarted() { return impl_->Deliver(kQVApplicationStartedNotifier, nullptr); }

QVErr Host::FontListChanged() {
  try {
    impl_->RebuildFonts();
  } catch (const std::exception& e) {
    std::lock_guard lock(impl_->mu);
    impl_->alerts.push_back(std::string("cannot list the installed fonts: ") + e.what());
    return kQVCantHappenErr;
  }
  return impl_->Deliver(kQVFontListChangedNotifier, nullptr);
}

QVErr Host::ApplicationShutdown() { return impl_->Deliver(kQVApplicationShutdownNotifier, nullptr); }

QVErr Host::Shutdown() {
  if (!impl_->plugin || !impl_->plugin->started) return kQVNotInitialisedErr;
  QVMessageData message{};
  QVErr err = impl_->Call(kQVInterfaceCaller, kQVShutdownSelector, &message);
  impl_->plugin->started = false;
  impl_->ForgetPlugin();
  return err;
}

QVErr Host::Send(const char* caller, const char* selector) {
  if (!impl_->plugin) return kQVNotInitialisedErr;
  QVMessageData message{};
  return impl_->Call(caller, selector, &message);
}

void Host::Idle() { impl_->Tick(); }

bool Host::RunUntil(const std::function<bool()>& done, double timeout_seconds, const std::function<void()>& on_tick) {
  const double deadline = SteadySeconds() + timeout_seconds;
  while (!done()) {
    if (SteadySeconds() >= deadline) return false;
    const bool busy = impl_->Tick();
    if (on_tick) on_tick();
    if (!busy) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

const void* Host::AcquireSuite(const char* name, int32_t version) {
  const void* suite = nullptr;
  return impl_->basic.AcquireSuite(name, version, &suite) == kQVNoErr ? suite : nullptr;
}

void Host::ReleaseSuite(const char* name, int32_t version) { impl_->basic.ReleaseSuite(name, version); }

std::vector<std::string> Host::Alerts() const {
  std::lock_guard lock(impl_->mu);
  return impl_->alerts;
}

std::vector<std::string> Host::DeliveredNotifications() const {
  std::lock_guard lock(impl_->mu);
  return impl_->delivered;
}

int Host::AccessCount() const {
  std::lock_guard lock(impl_->mu);
  return int(impl_->accesses.size());
}

int Host::ContextDepth() const {
  std::lock_guard lock(impl_->mu);
  return int(impl_->contexts.size());
}

bool Host::TimerActive(const std::string& name) const {
  std::lock_guard lock(impl_->mu);
  for (const auto& t : impl_->timers)
    if (t->name == name) return t->active;
  return false;
}

std::vector<std::string> Host::RegisteredSuites() const {
  std::lock_guard lock(impl_->mu);
  std::vector<std::string> names;
  for (const auto& s : impl_->suites)
    if (s->owner) names.push_back(s->name);
  return names;
}

int Host::SuiteAcquisitions(const std::string& name, int32_t version) const {
  std::lock_guard lock(impl_->mu);
  for (const auto& s : impl_->suites)
    if (s->name == name && s->version == version) return s->acquisitions;
  return 0;
}

size_t Host::LiveBlocks() const {
  std::lock_guard lock(impl_->mu);
  return impl_->blocks.size() + impl_->md_memory.size();
}

void* Host::Globals() const { return impl_->plugin ? impl_->plugin->globals : nullptr; }

std::string Host::PluginName() const {
  std::lock_guard lock(impl_->mu);
  return impl_->plugin ? impl_->plugin->name : "";
}

const std::vector<HostFont>& Host::Fonts() const { return impl_->fonts; }

uint32_t Host::FontListGeneration() const {
  std::shared_lock lock(impl_->fonts_mu);
  return impl_->generation;
}

std::string Host::FolderPath(int32_t id) const {
  if (id == kQVFolderPluginData) return impl_->data_dir;
  if (id == kQVFolderUserCache) return impl_->cache_dir;
  return "";
}

}  // namespace fontrix::host
