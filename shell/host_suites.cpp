#include "shell/host_suites.h"

#include <atomic>
#include <cstdlib>

#include "shell/qv_error.h"

namespace qv {

namespace {

std::atomic<QVBasicSuite*> basic_suite{nullptr};
HostSuites held;  // the holder's suites
HostSuites live;  // what Suites() answers; written on the main thread only, a slot at a time once live

struct suite_slot {
  const char* name;
  int32_t version;
  void (*set)(HostSuites&, const void*);
  const void* (*get)(const HostSuites&);
  bool required;
};

#define FONTRIX_SUITE_SLOT(member, name, required)                                                            \
  suite_slot {                                                                                                \
    name, name##Version, [](HostSuites& h, const void* s) { h.member = static_cast<decltype(h.member)>(s); }, \
        [](const HostSuites& h) -> const void* { return h.member; }, required                                 \
  }

const suite_slot kSlots[] = {
    FONTRIX_SUITE_SLOT(access, kQVAccessSuite, true),      FONTRIX_SUITE_SLOT(plugins, kQVPluginsSuite, true),
    FONTRIX_SUITE_SLOT(memory, kQVMdMemorySuite, true),    FONTRIX_SUITE_SLOT(context, kQVContextSuite, true),
    FONTRIX_SUITE_SLOT(folders, kQVFoldersSuite, true),    FONTRIX_SUITE_SLOT(features, kQVFeatureManagerSuite, true),
    FONTRIX_SUITE_SLOT(notifier, kQVNotifierSuite, false), FONTRIX_SUITE_SLOT(timer, kQVTimerSuite, false),
    FONTRIX_SUITE_SLOT(fonts, kQVFontSuite, false),        FONTRIX_SUITE_SLOT(fontGlue, kQVFontGlueSuite, false),
    FONTRIX_SUITE_SLOT(devUtils, kQVDevUtilsSuite, false),
};

}  // namespace

void SetBasicSuite(QVBasicSuite* basic) { basic_suite.store(basic); }
QVBasicSuite* GetBasicSuite() { return basic_suite.load(); }

const void* TryAcquireSuite(const char* name, int32_t version) {
  QVBasicSuite* basic = GetBasicSuite();
  const void* suite = nullptr;
  if (!basic || !basic->AcquireSuite || basic->AcquireSuite(name, version, &suite) != kQVNoErr) return nullptr;
  return suite;
}

const void* AcquireSuite(const char* name, int32_t version) {
  QVBasicSuite* basic = GetBasicSuite();
  if (!basic || !basic->AcquireSuite) throw Error(kQVSuiteNotFoundErr);
  const void* suite = nullptr;
  Check(basic->AcquireSuite(name, version, &suite));
  if (!suite) throw Error(kQVSuiteNotFoundErr);
  return suite;
}

void ReleaseSuite(const char* name, int32_t version) {
  QVBasicSuite* basic = GetBasicSuite();
  if (basic && basic->ReleaseSuite) basic->ReleaseSuite(name, version);
}

const HostSuites& Suites() { return live; }

namespace {
void release_held() {
  for (const auto& s : kSlots)
    if (s.get(held)) ReleaseSuite(s.name, s.version);
  held = HostSuites();
}
}  // namespace

SuiteHolder::SuiteHolder() {
  held = HostSuites();
  try {
    for (const auto& s : kSlots)
      if (s.required) s.set(held, AcquireSuite(s.name, s.version));
  } catch (...) {
    release_held();
    throw;
  }
  RefreshOptional();
}

SuiteHolder::~SuiteHolder() {
  release_held();
  live = HostSuites();
}

void SuiteHolder::RefreshOptional() {
  // Workers read the live suites while this runs on the main thread: only a slot that gains a
  // suite is written, never the whole set again.
  for (const auto& s : kSlots) {
    if (s.required || s.get(held)) continue;
    const void* suite = TryAcquireSuite(s.name, s.version);
    if (!suite) continue;
    s.set(held, suite);
    if (live.access) s.set(live, suite);
  }
}

void SuiteHolder::MarkLive() { live = held; }

std::string FolderPath(int32_t id, bool create) {
  const QVFoldersSuite* folders = Suites().folders;
  char path[4096] = {0};
  if (!folders || folders->FindFolder(id, create ? 1 : 0, path, sizeof path) != kQVNoErr) return std::string();
  return path;
}

void* NewHostMemory(size_t size) {
  const QVMdMemorySuite* memory = live.memory ? live.memory : held.memory;
  void* block = nullptr;
  if (memory) {
    if (memory->NewMemory(size, &block) != kQVNoErr) return nullptr;
    return block;
  }
  // Before start-up has acquired the host's memory suite (the plug-in object itself is made
  // first), ask for it directly.
  const auto* suite = static_cast<const QVMdMemorySuite*>(TryAcquireSuite(kQVMdMemorySuite, kQVMdMemorySuiteVersion));
  if (!suite) return nullptr;
  const bool ok = suite->NewMemory(size, &block) == kQVNoErr;
  ReleaseSuite(kQVMdMemorySuite, kQVMdMemorySuiteVersion);
  return ok ? block : nullptr;
}

void DisposeHostMemory(void* memory) {
  if (!memory) return;
  const QVMdMemorySuite* suite = live.memory ? live.memory : held.memory;
  if (suite) {
    suite->DisposeMemory(memory);
    return;
  }
  if (const auto* s = static_cast<const QVMdMemorySuite*>(TryAcquireSuite(kQVMdMemorySuite, kQVMdMemorySuiteVersion))) {
    s->DisposeMemory(memory);
    ReleaseSuite(kQVMdMemorySuite, kQVMdMemorySuiteVersion);
  }
}

}  // namespace qv
