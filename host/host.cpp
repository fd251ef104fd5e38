// The host's lifecycle, messages and main-thread loop.
#include "host/host.h"

#include <dlfcn.h>
#include <elf.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
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
  Impl* impl = impl_.get();
  impl_->first_listing = std::async(std::launch::async, [impl] {
                           try {
                             impl->RebuildFonts();
                           } catch (const std::exception& e) {
                             // The list stays empty; the next font list notification tries again.
                             std::lock_guard lock(impl->mu);
                             impl->alerts.push_back(std::string("cannot list the installed fonts: ") + e.what());
                           }
                         }).share();
  g_host = impl_.get();
}

Host::~Host() {
  impl_->AwaitFonts();
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
                                         "NQ_sim_sums_sys.cch", "FontClassVotes.bin"};

// The GNU build identity the linker writes into a shared object: the same for the build tree's
// module and its installed copy (installing rewrites the run path, not the note). "" if none.
std::string BuildIdentity(const std::string& bytes) {
  if (bytes.size() < sizeof(Elf64_Ehdr) || std::memcmp(bytes.data(), ELFMAG, SELFMAG) != 0 ||
      bytes[EI_CLASS] != ELFCLASS64)
    return "";
  Elf64_Ehdr header;
  std::memcpy(&header, bytes.data(), sizeof header);
  for (size_t i = 0; i < header.e_phnum; ++i) {
    const uint64_t at = header.e_phoff + i * uint64_t(header.e_phentsize);
    Elf64_Phdr segment;
    if (header.e_phentsize < sizeof segment || at + sizeof segment > bytes.size()) return "";
    std::memcpy(&segment, bytes.data() + at, sizeof segment);
    if (segment.p_type != PT_NOTE || segment.p_offset > bytes.size() ||
        segment.p_filesz > bytes.size() - segment.p_offset)
      continue;
    for (uint64_t note = segment.p_offset, end = segment.p_offset + segment.p_filesz;
         note + sizeof(Elf64_Nhdr) <= end;) {
      Elf64_Nhdr n;
      std::memcpy(&n, bytes.data() + note, sizeof n);
      const uint64_t name = note + sizeof n, desc = name + ((uint64_t(n.n_namesz) + 3) & ~uint64_t(3));
      const uint64_t next = desc + ((uint64_t(n.n_descsz) + 3) & ~uint64_t(3));
      if (next > end) break;
      if (n.n_type == NT_GNU_BUILD_ID && n.n_namesz == 4 && std::memcmp(bytes.data() + name, "GNU", 4) == 0) {
        std::string id = "build-";
        for (uint64_t k = 0; k < n.n_descsz; ++k) {
          char hex[3];
          std::snprintf(hex, sizeof hex, "%02x", uint8_t(bytes[desc + k]));
          id += hex;
        }
        return id;
      }
      note = next;
    }
  }
  return "";
}

// What a file holds, as a short text: the module's build identity, else the FNV-1a hash of its
// bytes.
std::string ContentOf(const std::filesystem::path& file, bool module) {
  std::string bytes;
  if (std::FILE* f = std::fopen(file.c_str(), "rb")) {
    char buffer[1 << 16];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, f)) > 0;) bytes.append(buffer, n);
    std::fclose(f);
  }
  if (module)
    if (std::string id = BuildIdentity(bytes); !id.empty()) return id;
  uint64_t hash = 14695981039346656037ull;
  for (unsigned char c : bytes) hash = (hash ^ c) * 1099511628211ull;
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

// One line per file, the module first and the data folder's files after it in name order:
// "name size time content". Two stamps name the same caches when every file has the same name,
// size and content, wherever it lies and whenever it was copied (the installed tool and the
// build tree's share them); the time only spares reading a file that has not changed since
// `previous` was written.
std::vector<std::string> ModuleStamp(const std::string& module, const std::string& data_dir,
                                     const std::vector<std::string>& previous) {
  namespace fs = std::filesystem;
  std::map<std::string, std::string> known;  // "name size time" -> content, from the previous stamp
  for (const std::string& line : previous)
    if (const size_t space = line.rfind(' '); space != std::string::npos)
      known[line.substr(0, space)] = line.substr(space + 1);
  auto line = [&](const fs::path& file, bool isModule) {
    std::error_code size_error, time_error;  // a file that cannot be measured reads as 0 0
    const auto size = fs::file_size(file, size_error);
    const auto time = fs::last_write_time(file, time_error).time_since_epoch().count();
    const std::string key = file.filename().string() + " " + std::to_string(size_error ? 0 : size) + " " +
                            std::to_string(time_error ? 0 : time);
    const auto it = known.find(key);
    return key + " " + (it != known.end() ? it->second : ContentOf(file, isModule));
  };
  std::vector<std::string> lines{line(module, true)};
  std::error_code ec;
  for (fs::directory_iterator it(data_dir, ec), end; !ec && it != end; it.increment(ec))
    if (it->is_regular_file(ec)) lines.push_back(line(it->path(), false));
  std::sort(lines.begin() + 1, lines.end());
  return lines;
}

// The stamp without the times: what the caches depend on.
std::string Identity(const std::vector<std::string>& lines) {
  std::string identity;
  for (const std::string& l : lines) {
    const size_t name_end = l.find(' ');
    const size_t size_end = name_end == std::string::npos ? name_end : l.find(' ', name_end + 1);
    const size_t time_end = size_end == std::string::npos ? size_end : l.find(' ', size_end + 1);
    // A line of an older stamp, without a content, is kept whole: it matches no new one.
    identity += (time_end == std::string::npos ? l : l.substr(0, size_end) + l.substr(time_end)) + "\n";
  }
  return identity;
}

}  // namespace

// A cache computed by another build of the module, or from other networks and weights, would
// go on answering with the old results: the module matches cached fonts by name and never
// recomputes them. So the host keeps a stamp of the module and its data beside the caches, and
// removes the caches when the stamp changes.
void Host::ForgetCachesOfOtherModules(const std::string& module) {
  namespace fs = std::filesystem;
  const fs::path stamp_file = fs::path(impl_->cache_dir) / "module_stamp.txt";
  std::string previous;
  if (std::FILE* f = std::fopen(stamp_file.c_str(), "rb")) {
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, f)) > 0;) previous.append(buffer, n);
    std::fclose(f);
  }
  std::vector<std::string> before;
  for (size_t start = 0; start < previous.size();) {
    const size_t end = std::min(previous.find('\n', start), previous.size());
    before.push_back(previous.substr(start, end - start));
    start = end + 1;
  }
  const std::vector<std::string> lines = ModuleStamp(module, impl_->data_dir, before);
  std::string stamp;
  for (const std::string& l : lines) stamp += l + "\n";
  if (previous == stamp) return;
  std::error_code ec;
  // The same module and data copied elsewhere keep the caches; only the times are written anew.
  if (Identity(before) != Identity(lines))
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
  impl_->AwaitFonts();  // one listing at a time
  try {
    // Told at start-up, the host has just listed the fonts: the list stands while its source
    // says nothing changed. The module is told all the same.
    if (FontListGeneration() == 0 || !impl_->options.fonts->Unchanged()) impl_->RebuildFonts();
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
  // Idle pauses start short and lengthen to 5 ms: a short wait ends soon after what it waits
  // for (a question answered in tens of milliseconds lost a fifth of them here), a long one (a
  // first index) costs no processor time to speak of.
  constexpr std::chrono::microseconds kShortest{250}, kLongest{5000};
  auto pause = kShortest;
  while (!done()) {
    if (SteadySeconds() >= deadline) return false;
    const bool busy = impl_->Tick();
    if (on_tick) on_tick();
    if (busy) {
      pause = kShortest;
    } else if (!done()) {
      std::this_thread::sleep_for(pause);
      pause = std::min(pause * 2, kLongest);
    }
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

const std::vector<HostFont>& Host::Fonts() const {
  impl_->AwaitFonts();
  return impl_->fonts;
}

bool Host::FontsListed(double seconds) const {
  const auto& listing = impl_->first_listing;
  return !listing.valid() || listing.wait_for(std::chrono::duration<double>(seconds)) == std::future_status::ready;
}

std::pair<uint64_t, uint64_t> Host::ListingProgress() const { return impl_->options.fonts->Reading(); }

uint32_t Host::FontListGeneration() const {
  impl_->AwaitFonts();
  std::shared_lock lock(impl_->fonts_mu);
  return impl_->generation;
}

std::string Host::FolderPath(int32_t id) const {
  if (id == kQVFolderPluginData) return impl_->data_dir;
  if (id == kQVFolderUserCache) return impl_->cache_dir;
  return "";
}

}  // namespace fontrix::host
