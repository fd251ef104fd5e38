#include "hostglue/font_engine.h"

#include <atomic>
#include <map>
#include <mutex>

#include "plugin/host_suites.h"

namespace fontrix::hostglue {

namespace {

std::mutex mutex;
std::map<std::string, void*> procedures;
std::atomic<bool> bound{false};

}  // namespace

const std::vector<std::string>& FontEngineProcedureNames() {
  // The font services' glue adds its procedures here as they come to use the engine.
  static const std::vector<std::string> names;
  return names;
}

BindResult BindFontEngine() {
  const QVFontGlueSuite* glue = qv::Suites().fontGlue;
  void* engine = nullptr;
  if (!glue || glue->GetEngineInterface(&engine) != kQVNoErr || !engine) return BindResult::kNoInterface;
  std::map<std::string, void*> found;
  for (const auto& name : FontEngineProcedureNames()) {
    void* procedure = nullptr;
    if (glue->GetEngineProcedure(engine, name.c_str(), &procedure) != kQVNoErr || !procedure)
      return BindResult::kMissingProcedure;
    found[name] = procedure;
  }
  std::lock_guard<std::mutex> lock(mutex);
  procedures = std::move(found);
  bound.store(true);
  return BindResult::kBound;
}

void ReleaseFontEngine() {
  std::lock_guard<std::mutex> lock(mutex);
  procedures.clear();
  bound.store(false);
}

bool FontEngineBound() { return bound.load(); }

}  // namespace fontrix::hostglue
