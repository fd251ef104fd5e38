// The host's general suites: basic, access, plug-ins, suites, memory, notifier, timer, context,
// folders, feature manager, dev utils, user, dialog and string lists. Every function checks its
// pointers and answers a code; none lets an exception out.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "host/host_impl.h"

namespace fontrix::host {
namespace {

// ---- basic

QVErr BasicAcquireSuite(const char* name, int32_t version, const void** suite) {
  return Guarded([&](Host::Impl& h) {
    if (!name || !suite) return kQVBadParameterErr;
    std::lock_guard lock(h.mu);
    for (const auto& s : h.suites) {
      if (s->name == name && s->version == version) {
        ++s->acquisitions;
        *suite = s->table;
        return kQVNoErr;
      }
    }
    *suite = nullptr;
    return kQVSuiteNotFoundErr;
  });
}

QVErr BasicReleaseSuite(const char* name, int32_t version) {
  return Guarded([&](Host::Impl& h) {
    if (!name) return kQVBadParameterErr;
    std::lock_guard lock(h.mu);
    for (const auto& s : h.suites) {
      if (s->name == name && s->version == version) {
        if (s->acquisitions == 0) return kQVBadParameterErr;
        --s->acquisitions;
        return kQVNoErr;
      }
    }
    return kQVSuiteNotFoundErr;
  });
}

// ---- access

QVErr AcquirePlugin(QVPluginRef plugin, QVAccessRef* access) {
  return Guarded([&](Host::Impl& h) {
    if (!h.IsPlugin(plugin) || !access) return kQVBadParameterErr;
    std::lock_guard lock(h.mu);
    h.accesses.push_back(std::make_unique<int>(0));
    *access = reinterpret_cast<QVAccessRef>(h.accesses.back().get());
    return kQVNoErr;
  });
}

QVErr ReleasePlugin(QVAccessRef access) {
  return Guarded([&](Host::Impl& h) {
    std::lock_guard lock(h.mu);
    for (auto it = h.accesses.begin(); it != h.accesses.end(); ++it) {
      if (reinterpret_cast<QVAccessRef>(it->get()) == access) {
        h.accesses.erase(it);
        return kQVNoErr;
      }
    }
    return kQVBadParameterErr;
  });
}

// ---- plug-ins

QVErr SetPluginName(QVPluginRef plugin, const char* name) {
  return Guarded([&](Host::Impl& h) {
    if (!h.IsPlugin(plugin) || !name) return kQVBadParameterErr;
    std::lock_guard lock(h.mu);
    h.plugin->name = name;
    return kQVNoErr;
  });
}

QVErr GetPluginName(QVPluginRef plugin, const char** name) {
  return Guarded([&](Host::Impl& h) {
    if (!h.IsPlugin(plugin) || !name) return kQVBadParameterErr;
    std::lock_guard lock(h.mu);
    *name = h.plugin->name.c_str();
    return kQVNoErr;
  });
}

// ---- suites

QVErr AddSuite(QVPluginRef plugin, const char* name, int32_t api_version, int32_t internal_version, const void* suite,
               QVSuiteRef* ref) {
  return Guarded([&](Host::Impl& h) {
    if (!h.IsPlugin(plugin) || !name || !suite) return kQVBadParameterErr;
    std::lock_guard lock(h.mu);
    for (const auto& s : h.suites)
      if (s->name == name && s->version == api_version) return kQVBadParameterErr;
    auto record = std::make_unique<SuiteRecord>();
    record->name = name;
    record->version = api_version;
    record->internal_version = internal_version;
    record->table = suite;
    record->owner = h.plugin.get();
    if (ref) *ref = reinterpret_cast<QVSuiteRef>(record.get());
    h.suites.push_back(std::move(record));
    return kQVNoErr;
  });
}

// ---- blocks and MdMemory: malloc, with the live pointers kept so a bad free is refused

QVErr Allocate(std::unordered_set<void*> Host::Impl::*set, size_t size, void** out) {
  return Guarded([&](Host::Impl& h) {
    if (!out) return kQVBadParameterErr;
    *out = nullptr;
    void* memory = std::malloc(size ? size : 1);
    if (!memory) return kQVOutOfMemoryErr;
    std::lock_guard lock(h.mu);
    (h.*set).insert(memory);
    *out = memory;
    return kQVNoErr;
  });
}

QVErr Free(std::unordered_set<void*> Host::Impl::*set, void* memory) {
  return Guarded([&](Host::Impl& h) {
    if (!memory) return kQVNoErr;
    std::lock_guard lock(h.mu);
    if (!(h.*set).erase(memory)) return kQVBadParameterErr;
    std::free(memory);
    return kQVNoErr;
  });
}

QVErr AllocateBlock(size_t size, const char*, void** block) { return Allocate(&Host::Impl::blocks, size, block); }
QVErr FreeBlock(void* block) { return Free(&Host::Impl::blocks, block); }
QVErr NewMemory(size_t size, void** memory) { return Allocate(&Host::Impl::md_memory, size, memory); }
QVErr DisposeMemory(void* memory) { return Free(&Host::Impl::md_memory, memory); }

// ---- notifiers and timers

QVErr AddNotifier(QVPluginRef plugin, const char* name, const char* type, QVNotifierHandle* notifier) {
  return Guarded([&](Host::Impl& h) {
    if (!h.IsPlugin(plugin) || !name || !type) return kQVBadParameterErr;
    std::lock_guard lock(h.mu);
    h.notifiers.push_back(std::make_unique<NotifierRecord>(NotifierRecord{h.plugin.get(), name, type}));
    if (notifier) *notifier = reinterpret_cast<QVNotifierHandle>(h.notifiers.back().get());
    return kQVNoErr;
  });
}

QVErr Notify(const char* type, void* data) {
  return Guarded([&](Host::Impl& h) {
    if (!type) return kQVBadParameterErr;
    std::lock_guard lock(h.mu);
    h.queued.emplace_back(type, data);
    return kQVNoErr;
  });
}

TimerRecord* FindTimer(Host::Impl& h, QVTimerHandle handle) {
  for (const auto& t : h.timers)
    if (reinterpret_cast<QVTimerHandle>(t.get()) == handle) return t.get();
  return nullptr;
}

QVErr AddTimer(QVPluginRef plugin, const char* name, int32_t period, QVTimerHandle* timer) {
  return Guarded([&](Host::Impl& h) {
    if (!h.IsPlugin(plugin) || !name || period < 0) return kQVBadParameterErr;
    const double now = h.Now();
    std::lock_guard lock(h.mu);
    h.timers.push_back(std::make_unique<TimerRecord>(TimerRecord{h.plugin.get(), name, period, true, now}));
    if (timer) *timer = reinterpret_cast<QVTimerHandle>(h.timers.back().get());
    return kQVNoErr;
  });
}

QVErr SetTimerActive(QVTimerHandle timer, QVBool active) {
  return Guarded([&](Host::Impl& h) {
    const double now = h.Now();
    std::lock_guard lock(h.mu);
    TimerRecord* t = FindTimer(h, timer);
    if (!t) return kQVBadParameterErr;
    // A restarted timer waits a whole period before it fires.
    if (active && !t->active) t->due_from = now;
    t->active = active != 0;
    return kQVNoErr;
  });
}

QVErr IsTimerActive(QVTimerHandle timer, QVBool* active) {
  return Guarded([&](Host::Impl& h) {
    std::lock_guard lock(h.mu);
    TimerRecord* t = FindTimer(h, timer);
    if (!t || !active) return kQVBadParameterErr;
    *active = t->active;
    return kQVNoErr;
  });
}

// ---- context

QVErr PushAppContext(QVPluginRef plugin, QVAppContext* context) {
  return Guarded([&](Host::Impl& h) {
    if (!h.IsPlugin(plugin) || !context) return kQVBadParameterErr;
    std::lock_guard lock(h.mu);
    h.contexts.push_back(std::make_unique<int>(0));
    *context = reinterpret_cast<QVAppContext>(h.contexts.back().get());
    return kQVNoErr;
  });
}

QVErr PopAppContext(QVAppContext context) {
  return Guarded([&](Host::Impl& h) {
    std::lock_guard lock(h.mu);
    // Contexts nest: only the innermost one can end.
    if (h.contexts.empty() || reinterpret_cast<QVAppContext>(h.contexts.back().get()) != context)
      return kQVBadParameterErr;
    h.contexts.pop_back();
    return kQVNoErr;
  });
}

// ---- folders and switches

QVErr FindFolder(int32_t id, QVBool create, char* path, size_t capacity) {
  return Guarded([&](Host::Impl& h) {
    std::string folder;
    if (id == kQVFolderPluginData) {
      folder = h.data_dir;  // read-only: never created
    } else if (id == kQVFolderUserCache) {
      folder = h.cache_dir;
      std::error_code ec;
      if (create && !std::filesystem::create_directories(folder, ec) && ec) return kQVCantHappenErr;
    } else {
      return kQVNotFoundErr;
    }
    return CopyOut(folder, path, capacity);
  });
}

QVErr IsFeatureEnabled(const char* key, QVBool* enabled) {
  return Guarded([&](Host::Impl& h) {
    if (!key || !enabled) return kQVBadParameterErr;
    auto it = h.switches.find(key);
    *enabled = it != h.switches.end() && it->second;
    return kQVNoErr;
  });
}

// ---- dev utils

QVErr GetCurrentTime(double* seconds) {
  return Guarded([&](Host::Impl& h) {
    if (!seconds) return kQVBadParameterErr;
    *seconds = h.Now();
    return kQVNoErr;
  });
}

QVErr GetPerformanceLog(const char* name, QVPerfLogHandle* log) {
  return Guarded([&](Host::Impl& h) {
    if (!log) return kQVBadParameterErr;
    *log = nullptr;
    if (!name) return kQVNoErr;
    const std::string file = name;
    // The name becomes a file name in the cache folder; it must not leave it.
    if (file.empty() || file == "." || file == ".." || file.find('/') != std::string::npos) return kQVBadParameterErr;
    std::lock_guard lock(h.mu);
    auto& handle = h.perf_logs[file];
    if (!handle) handle = std::make_unique<std::string>(file);
    *log = reinterpret_cast<QVPerfLogHandle>(handle.get());
    return kQVNoErr;
  });
}

QVErr WritePerformanceLog(QVPerfLogHandle log, const char* line) {
  return Guarded([&](Host::Impl& h) {
    if (!log) return kQVNoErr;  // the "no log" handle
    if (!line) return kQVBadParameterErr;
    std::lock_guard lock(h.mu);
    const std::string* name = nullptr;
    for (const auto& [key, handle] : h.perf_logs)
      if (reinterpret_cast<QVPerfLogHandle>(handle.get()) == log) name = handle.get();
    if (!name) return kQVBadParameterErr;
    std::error_code ec;
    std::filesystem::create_directories(h.cache_dir, ec);
    std::ofstream out(h.cache_dir + "/" + *name, std::ios::app);
    out << line;
    if (!*line || line[std::strlen(line) - 1] != '\n') out << '\n';
    return out.flush() ? kQVNoErr : kQVCantHappenErr;
  });
}

// ---- user interface: alerts and the about box are text on the terminal

QVErr ErrorAlert(const char* text) {
  return Guarded([&](Host::Impl& h) {
    if (!text) return kQVBadParameterErr;
    std::lock_guard lock(h.mu);
    h.alerts.push_back(text);
    std::fprintf(stderr, "fontrix: %s\n", text);
    return kQVNoErr;
  });
}

QVErr AboutBox(const char* title, const char* text) {
  return Guarded([&](Host::Impl&) {
    std::printf("%s\n%s\n", title ? title : "", text ? text : "");
    std::fflush(stdout);
    return kQVNoErr;
  });
}

constexpr int32_t kHostStringList = 257;
const char* const kHostStrings[] = {
    "Out of memory.",                       // 10
    "The operation failed.",                // 11
    "A required file could not be found.",  // 12
    "A file could not be read.",            // 13
    "A file could not be written.",         // 14
    "The operation was cancelled.",         // 15
};
constexpr int32_t kFirstHostString = 10;

QVErr GetHostString(int32_t list, int32_t index, char* buf, size_t capacity) {
  return Guarded([&](Host::Impl&) {
    const int32_t count = int32_t(sizeof kHostStrings / sizeof kHostStrings[0]);
    if (list != kHostStringList || index < kFirstHostString || index >= kFirstHostString + count) return kQVNotFoundErr;
    return CopyOut(kHostStrings[index - kFirstHostString], buf, capacity);
  });
}

const QVAccessSuite kAccess = {AcquirePlugin, ReleasePlugin};
const QVPluginsSuite kPlugins = {SetPluginName, GetPluginName};
const QVSuitesSuite kSuites = {AddSuite};
const QVBlocksSuite kBlocks = {AllocateBlock, FreeBlock};
const QVMdMemorySuite kMdMemory = {NewMemory, DisposeMemory};
const QVNotifierSuite kNotifier = {AddNotifier, Notify};
const QVTimerSuite kTimer = {AddTimer, SetTimerActive, IsTimerActive};
const QVContextSuite kContext = {PushAppContext, PopAppContext};
const QVFoldersSuite kFolders = {FindFolder};
const QVFeatureManagerSuite kFeatures = {IsFeatureEnabled};
const QVDevUtilsSuite kDevUtils = {GetCurrentTime, GetPerformanceLog, WritePerformanceLog};
const QVUserSuite kUser = {ErrorAlert};
const QVBasicDialogSuite kDialog = {AboutBox};
const QVStringInitSuite kStrings = {GetHostString};

}  // namespace

void Host::Impl::AddHostSuites() {
  basic.AcquireSuite = BasicAcquireSuite;
  basic.ReleaseSuite = BasicReleaseSuite;
  const struct {
    const char* name;
    int32_t version;
    const void* table;
  } host_suites[] = {
      {kQVAccessSuite, kQVAccessSuiteVersion, &kAccess},
      {kQVPluginsSuite, kQVPluginsSuiteVersion, &kPlugins},
      {kQVSuitesSuite, kQVSuitesSuiteVersion, &kSuites},
      {kQVBlocksSuite, kQVBlocksSuiteVersion, &kBlocks},
      {kQVMdMemorySuite, kQVMdMemorySuiteVersion, &kMdMemory},
      {kQVNotifierSuite, kQVNotifierSuiteVersion, &kNotifier},
      {kQVTimerSuite, kQVTimerSuiteVersion, &kTimer},
      {kQVContextSuite, kQVContextSuiteVersion, &kContext},
      {kQVFoldersSuite, kQVFoldersSuiteVersion, &kFolders},
      {kQVFeatureManagerSuite, kQVFeatureManagerSuiteVersion, &kFeatures},
      {kQVDevUtilsSuite, kQVDevUtilsSuiteVersion, &kDevUtils},
      {kQVUserSuite, kQVUserSuiteVersion, &kUser},
      {kQVBasicDialogSuite, kQVBasicDialogSuiteVersion, &kDialog},
      {kQVStringInitSuite, kQVStringInitSuiteVersion, &kStrings},
      {kQVFontSuite, kQVFontSuiteVersion, &kFontSuiteTable},
      {kQVFontGlueSuite, kQVFontGlueSuiteVersion, &kFontGlueSuiteTable},
  };
  for (const auto& s : host_suites) {
    auto record = std::make_unique<SuiteRecord>();
    record->name = s.name;
    record->version = s.version;
    record->table = s.table;
    suites.push_back(std::move(record));
  }
}

}  // namespace fontrix::host
