#pragma once
// An in-process host for the shell's tests: the reference host's library around the module's
// dispatcher linked into the test, with fonts in memory, folders in a temporary directory, and
// a way to hide or replace host suites for one test.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "classification/class_answers.h"
#include "classification/font_feature_cache.h"
#include "host/host.h"
#include "plugin/dispatch.h"
#include "plugin/fontrix.h"
#include "plugin/plugin.h"
#include "recognition/font_recognition_cache.h"
#include "similarity/font_similar_cache.h"

namespace fontrix::testing {

/// What the module sees of the host in the current test: suites to hide, suites to replace.
struct Interception {
  std::set<std::string> hidden;
  std::map<std::string, const void*> replaced;
  QVBasicSuite* real = nullptr;
};
inline Interception& interception() {
  static Interception i;
  return i;
}

inline QVErr InterceptedAcquire(const char* name, int32_t version, const void** suite) {
  auto& i = interception();
  if (i.hidden.count(name)) return kQVSuiteNotFoundErr;
  if (auto it = i.replaced.find(name); it != i.replaced.end()) {
    *suite = it->second;
    return kQVNoErr;
  }
  return i.real->AcquireSuite(name, version, suite);
}

inline QVErr InterceptedRelease(const char* name, int32_t version) {
  auto& i = interception();
  if (i.hidden.count(name) || i.replaced.count(name)) return kQVNoErr;
  return i.real->ReleaseSuite(name, version);
}

/// The module's entry, seen through the interception.
inline QVErr InterceptedEntry(const char* caller, const char* selector, void* message) {
  static QVBasicSuite wrapped{InterceptedAcquire, InterceptedRelease};
  auto* data = static_cast<QVMessageData*>(message);
  interception().real = data->basic;
  data->basic = &wrapped;
  const QVErr result = FontrixPluginMain(caller, selector, message);
  data->basic = interception().real;
  return result;
}

inline host::HostFont Font(const std::string& name, bool bitmap_only = false, bool symbol = false) {
  host::HostFont f;
  f.unique_name = name;
  f.family = name;
  f.style = "Regular";
  f.file = "/fonts/" + name + ".ttf";
  f.bitmap_only = bitmap_only;
  f.symbol = symbol;
  return f;
}

/// A fresh host per test, with the module's process-wide state reset.
class HostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("fontrix-shell-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_ / "data");
    fonts_ = std::make_shared<host::MemoryFontSource>();
    fonts_->fonts = {Font("Alpha-Regular"), Font("Beta-Bold"), Font("Strike", true), Font("Symbols", false, true),
                     Font("Alpha-Regular")};
    interception() = Interception();
    Fontrix::ResetForTesting();
    TerminateCaches();
    qv::Plugin::SetClockForTesting(nullptr);
  }
  // The caches are process-wide: each test starts without them.
  static void TerminateCaches() {
    FontFeatureCache::Terminate();
    FontSimilarCache::Terminate();
    FontRecognitionCache::Terminate();
    ClassAnswers::Terminate();
  }
  void TearDown() override {
    host_.reset();
    TerminateCaches();
    interception() = Interception();
    qv::Plugin::SetClockForTesting(nullptr);
    std::filesystem::remove_all(dir_);
  }

  /// Creates the host with these switch overrides; the module is linked in, not loaded.
  host::Host& MakeHost(std::map<std::string, bool> switches = {}) {
    host::HostOptions options;
    options.data_dir = (dir_ / "data").string();
    options.cache_dir = (dir_ / "cache").string();
    options.switches = std::move(switches);
    options.fonts = real_fonts_ ? nullptr : fonts_;  // null: the machine's fonts through fontconfig
    host_ = std::make_unique<host::Host>(options);
    host_->UseModuleEntry(InterceptedEntry);
    return *host_;
  }

  /// Start-up and application start, then idle ticks until the background work is done.
  /// `seconds`: how long the background work may take (the machine's fonts take longer).
  host::Host& Started(std::map<std::string, bool> switches = {}, double seconds = 10.0) {
    auto& h = MakeHost(std::move(switches));
    EXPECT_EQ(h.Startup(), kQVNoErr);
    EXPECT_EQ(h.ApplicationStarted(), kQVNoErr);
    EXPECT_TRUE(WaitIdle(seconds));
    return h;
  }

  bool WaitIdle(double seconds = 10.0) {
    const auto* progress = static_cast<const FontrixProgressSuite*>(
        host_->AcquireSuite(kFontrixProgressSuite, kFontrixProgressSuiteVersion));
    if (!progress) return false;
    const bool idle = host_->RunUntil(
        [&] {
          for (int s = 0; s < kFontrixServiceCount; ++s) {
            FontrixServiceProgress p{};
            if (progress->GetServiceProgress(s, &p) != kQVNoErr || !p.idle) return false;
          }
          return true;
        },
        seconds);
    host_->ReleaseSuite(kFontrixProgressSuite, kFontrixProgressSuiteVersion);
    return idle;
  }

  Fontrix* Module() { return static_cast<Fontrix*>(host_->Globals()); }

  std::filesystem::path dir_;
  std::shared_ptr<host::MemoryFontSource> fonts_;
  bool real_fonts_ = false;
  std::unique_ptr<host::Host> host_;
};

}  // namespace fontrix::testing
