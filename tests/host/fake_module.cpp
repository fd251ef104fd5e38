// A stand-in for the Fontrix module, for the tool's tests. It publishes the progress suite,
// works through the host's qualifying fonts two per timer tick after each font list change,
// and lists them through GetFontList.
//   FAKE_MODULE_FAIL=startup   Startup answers 'UIN?'
//   FAKE_MODULE_STALL=1        its work never progresses, so the tool waits until interrupted
//   FAKE_MODULE_SAY=2:TEXT     the similarity service reports TEXT as a failure (1: a warning)
//   FAKE_MODULE_REPORT=PATH    at Shutdown, writes the messages it got, its folders and switches to PATH;
//                              PATH.started once the application has started
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "sdk/fontrix_suites.h"
#include "sdk/qv_font_suites.h"
#include "sdk/qv_host_suites.h"
#include "sdk/qv_plugin.h"

namespace {

struct State {
  QVBasicSuite* basic = nullptr;
  const QVFontSuite* fonts = nullptr;
  const QVFontGlueSuite* glue = nullptr;
  const QVTimerSuite* timers = nullptr;
  const QVFeatureManagerSuite* features = nullptr;
  const QVFoldersSuite* folders = nullptr;
  QVTimerHandle work = nullptr;
  // The progress suite may be asked from a watching thread while the host's thread works.
  std::mutex mutex;
  std::vector<QVFontHandle> pending, done;
  uint32_t generation = 0;
  std::vector<std::string> messages;
};

// The progress suite's functions get no message, so they find the state here.
State* state = nullptr;

const char* const kServiceSwitches[] = {"Text/FontClassification", "Text/FontSimilarity", "TextDebug/FontRecognition"};

template <typename Suite>
const Suite* Acquire(QVBasicSuite* basic, const char* name, int32_t version) {
  const void* suite = nullptr;
  return basic->AcquireSuite(name, version, &suite) == kQVNoErr ? static_cast<const Suite*>(suite) : nullptr;
}

bool Enabled(const char* key) {
  QVBool on = 0;
  return state->features->IsFeatureEnabled(key, &on) == kQVNoErr && on;
}

QVErr GetServiceProgress(int32_t service, FontrixServiceProgress* progress) {
  if (!state) return kQVNotInitialisedErr;
  if (service < 0 || service >= kFontrixServiceCount || !progress) return kQVBadParameterErr;
  progress->enabled = Enabled(kServiceSwitches[service]);
  std::lock_guard<std::mutex> lock(state->mutex);
  progress->idle = state->pending.empty() || !progress->enabled;
  progress->fontsDone = uint32_t(state->done.size());
  progress->fontsTotal = uint32_t(state->done.size() + state->pending.size());
  return kQVNoErr;
}

QVErr GetFontList(FontrixFontHandleList* out, uint32_t* generation) {
  if (!state) return kQVNotInitialisedErr;
  std::lock_guard<std::mutex> lock(state->mutex);
  // The qualifying fonts, as the module lists them from the moment it has its font list,
  // whether or not its services are done with them.
  for (const auto* fonts : {&state->done, &state->pending})
    for (QVFontHandle font : *fonts) out->append(out->context, font);
  if (generation) *generation = state->generation;
  return kQVNoErr;
}

// FAKE_MODULE_SAY=SEVERITY:TEXT: the similarity service reports TEXT at that severity.
QVErr GetServiceReport(int32_t service, int32_t* severity, char* text, size_t capacity) {
  if (!state) return kQVNotInitialisedErr;
  const char* say = std::getenv("FAKE_MODULE_SAY");
  const bool says = say && service == kFontrixServiceSimilarity && std::strlen(say) > 2;
  *severity = says ? say[0] - '0' : kFontrixReportNothing;
  if (capacity) std::snprintf(text, capacity, "%s", says ? say + 2 : "");
  return kQVNoErr;
}

QVErr GetUnusableFonts(int32_t, FontrixUnusableFontList* out) { return out ? kQVNoErr : kQVBadParameterErr; }

const FontrixProgressSuite kProgress = {GetServiceProgress, GetFontList, GetServiceReport, GetUnusableFonts};

QVErr Startup(QVMessageData* message) {
  const char* fail = std::getenv("FAKE_MODULE_FAIL");
  if (fail && std::strcmp(fail, "startup") == 0) return kQVNotInitialisedErr;
  state = new State;
  message->globals = state;
  State& s = *state;
  s.messages.push_back(std::string(kQVInterfaceCaller) + "/" + kQVStartupSelector);
  s.basic = message->basic;
  s.fonts = Acquire<QVFontSuite>(s.basic, kQVFontSuite, kQVFontSuiteVersion);
  s.glue = Acquire<QVFontGlueSuite>(s.basic, kQVFontGlueSuite, kQVFontGlueSuiteVersion);
  s.timers = Acquire<QVTimerSuite>(s.basic, kQVTimerSuite, kQVTimerSuiteVersion);
  s.features = Acquire<QVFeatureManagerSuite>(s.basic, kQVFeatureManagerSuite, kQVFeatureManagerSuiteVersion);
  s.folders = Acquire<QVFoldersSuite>(s.basic, kQVFoldersSuite, kQVFoldersSuiteVersion);
  auto* suites = Acquire<QVSuitesSuite>(s.basic, kQVSuitesSuite, kQVSuitesSuiteVersion);
  auto* notifiers = Acquire<QVNotifierSuite>(s.basic, kQVNotifierSuite, kQVNotifierSuiteVersion);
  if (!s.fonts || !s.glue || !s.timers || !s.features || !s.folders || !suites || !notifiers)
    return kQVSuiteNotFoundErr;
  QVErr err =
      suites->AddSuite(message->self, kFontrixProgressSuite, kFontrixProgressSuiteVersion, 1, &kProgress, nullptr);
  for (const char* type : {kQVApplicationStartedNotifier, kQVFontListChangedNotifier, kQVApplicationShutdownNotifier})
    if (!err) err = notifiers->AddNotifier(message->self, type, type, nullptr);
  if (!err) err = s.timers->AddTimer(message->self, "work", 0, &s.work);
  if (!err) err = s.timers->SetTimerActive(s.work, 0);
  s.basic->ReleaseSuite(kQVSuitesSuite, kQVSuitesSuiteVersion);
  s.basic->ReleaseSuite(kQVNotifierSuite, kQVNotifierSuiteVersion);
  return err;
}

void FontListChanged() {
  State& s = *state;
  std::lock_guard<std::mutex> lock(s.mutex);
  s.pending.clear();
  s.done.clear();
  ++s.generation;
  int32_t count = 0;
  s.fonts->CountFonts(&count);
  for (int32_t i = 0; i < count; ++i) {
    QVFontHandle font = nullptr;
    QVBool bitmap = 1, symbol = 1, duplicate = 1;
    s.fonts->IndexFontList(i, &font);
    s.glue->IsBitmapOnly(font, &bitmap);
    s.glue->IsSymbolFont(font, &symbol);
    s.glue->IsDuplicateName(font, &duplicate);
    if (!bitmap && !symbol && !duplicate) s.pending.push_back(font);
  }
  s.timers->SetTimerActive(s.work, 1);
}

void Work() {
  State& s = *state;
  if (std::getenv("FAKE_MODULE_STALL")) return;
  std::lock_guard<std::mutex> lock(s.mutex);
  for (int n = 0; n < 2 && !s.pending.empty(); ++n) {
    s.done.push_back(s.pending.front());
    s.pending.erase(s.pending.begin());
  }
  if (s.pending.empty()) s.timers->SetTimerActive(s.work, 0);
}

// With a report path, PATH.started appears when the application-started notification arrives:
// the tool is then waiting and handles Ctrl-C, which a test needs to know before sending one.
void MarkStarted() {
  const char* path = std::getenv("FAKE_MODULE_REPORT");
  if (!path) return;
  if (std::FILE* f = std::fopen((std::string(path) + ".started").c_str(), "w")) std::fclose(f);
}

void WriteReport() {
  const char* path = std::getenv("FAKE_MODULE_REPORT");
  if (!path) return;
  FILE* out = std::fopen(path, "w");
  if (!out) return;
  for (const std::string& m : state->messages) std::fprintf(out, "message %s\n", m.c_str());
  char folder[4096];
  if (state->folders->FindFolder(kQVFolderPluginData, 0, folder, sizeof folder) == kQVNoErr)
    std::fprintf(out, "data %s\n", folder);
  if (state->folders->FindFolder(kQVFolderUserCache, 0, folder, sizeof folder) == kQVNoErr)
    std::fprintf(out, "cache %s\n", folder);
  for (const char* key : kServiceSwitches) std::fprintf(out, "switch %s %d\n", key, Enabled(key) ? 1 : 0);
  std::fprintf(out, "switch TextDebug/DumpDebugInfo %d\n", Enabled("TextDebug/DumpDebugInfo") ? 1 : 0);
  std::fclose(out);
}

QVErr Shutdown(QVMessageData* message) {
  State& s = *state;
  WriteReport();
  const char* names[] = {kQVFontSuite, kQVFontGlueSuite, kQVTimerSuite, kQVFeatureManagerSuite, kQVFoldersSuite};
  const int32_t versions[] = {kQVFontSuiteVersion, kQVFontGlueSuiteVersion, kQVTimerSuiteVersion,
                              kQVFeatureManagerSuiteVersion, kQVFoldersSuiteVersion};
  for (int i = 0; i < 5; ++i) s.basic->ReleaseSuite(names[i], versions[i]);
  delete state;
  state = nullptr;
  message->globals = nullptr;
  return kQVNoErr;
}

}  // namespace

// The entry point must be exported under the C name "main", which C++ keeps for the program's
// own main; an assembler label gives the function that name.
extern "C" QVErr FakeModuleMain(const char* caller, const char* selector, void* message) __asm__("main");

extern "C" QVErr FakeModuleMain(const char* caller, const char* selector, void* message) {
  auto* data = static_cast<QVMessageData*>(message);
  const std::string c = caller, s = selector;
  if (c == kQVInterfaceCaller && s == kQVStartupSelector) return Startup(data);
  if (!state || data->globals != state) return kQVCantHappenErr;  // the host must hand back our globals
  if (c == kQVNotifierCaller) {
    const std::string type = reinterpret_cast<QVNotifierMessage*>(message)->type;
    state->messages.push_back(type);
    if (type == kQVFontListChangedNotifier) FontListChanged();
    if (type == kQVApplicationStartedNotifier) MarkStarted();
    return kQVNoErr;
  }
  if (c == kQVTimerCaller) {
    Work();
    return kQVNoErr;
  }
  state->messages.push_back(c + "/" + s);
  if (c == kQVInterfaceCaller && s == kQVShutdownSelector) return Shutdown(data);
  return kQVUnhandledMsgErr;
}
