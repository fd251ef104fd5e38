#include "shell/feature_switches.h"

#include <mutex>

#include "shell/host_suites.h"

namespace qv {

bool FeatureManager::IsEnabled(const std::string& key) const {
  const QVFeatureManagerSuite* features = Suites().features;
  QVBool enabled = 0;
  return features && features->IsFeatureEnabled(key.c_str(), &enabled) == kQVNoErr && enabled != 0;
}

const FeatureManager& GetFeatureManager() {
  static const FeatureManager manager;
  return manager;
}

}  // namespace qv

namespace fontrix {

namespace {

struct kept_switch {
  const char* key;
  std::once_flag once;
  bool value = false;

  bool get() {
    std::call_once(once, [this] { value = qv::GetFeatureManager().IsEnabled(key); });
    return value;
  }
};

constexpr int kSwitchCount = 5;
kept_switch* switches[kSwitchCount];

void make_switches() {
  switches[0] = new kept_switch{kClassificationSwitch, {}, false};
  switches[1] = new kept_switch{kSimilaritySwitch, {}, false};
  switches[2] = new kept_switch{kRecognitionSwitch, {}, false};
  switches[3] = new kept_switch{kClassVoteSwitch, {}, false};
  switches[4] = new kept_switch{kClassHeadSwitch, {}, false};
}

kept_switch& get_switch(int i) {
  static std::once_flag made;
  std::call_once(made, make_switches);
  return *switches[i];
}

}  // namespace

bool ClassificationEnabled() { return get_switch(0).get(); }
bool SimilarityEnabled() { return get_switch(1).get(); }
bool RecognitionEnabled() { return get_switch(2).get(); }
bool ClassVoteEnabled() { return get_switch(3).get(); }
bool ClassHeadEnabled() { return get_switch(4).get(); }

void ResetFeatureSwitchesForTesting() {
  for (int i = 0; i < kSwitchCount; ++i) {
    kept_switch& s = get_switch(i);
    const char* key = s.key;
    delete switches[i];
    switches[i] = new kept_switch{key, {}, false};
  }
}

}  // namespace fontrix
