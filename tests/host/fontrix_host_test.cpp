// The C interface of the host library, linked as applications link it (libfontrix_host.so):
// modules that cannot load, suites that are not there, one host at a time, and the lifecycle
// and waiting with the stand-in module.
#include "host/fontrix_host.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "host_test_support.h"
#include "sdk/fontrix_suites.h"
#include "sdk/qv_font_suites.h"
#include "sdk/qv_plugin.h"

namespace fontrix::host::testing {
namespace {

class FontrixHostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/fontrix-c-host-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    tmp_ = pattern;
    data_ = (tmp_ / "data").string();
    cache_ = (tmp_ / "cache").string();
  }
  void TearDown() override { std::filesystem::remove_all(tmp_); }

  FontrixHost* Open(const char* disable = nullptr) {
    const FontrixHostOptions options{data_.c_str(), cache_.c_str(), disable};
    return fontrix_host_open(&options);
  }

  std::string LastError() const { return fontrix_host_last_error(); }

  // The stand-in module's settings, and none of the user's.
  ScopedEnv no_module_{"FONTRIX_MODULE", nullptr}, no_disable_{"FONTRIX_DISABLE", nullptr};
  ScopedEnv no_fail_{"FAKE_MODULE_FAIL", nullptr}, no_stall_{"FAKE_MODULE_STALL", nullptr};
  ScopedEnv no_report_{"FAKE_MODULE_REPORT", nullptr};
  std::filesystem::path tmp_;
  std::string data_, cache_;
};

TEST_F(FontrixHostTest, ModulesThatCannotLoadAreNamedInTheMessage) {
  FontrixHost* host = Open();
  ASSERT_NE(host, nullptr) << LastError();
  EXPECT_EQ(LastError(), "");

  const std::string missing = (tmp_ / "nowhere" / "libfontrix.so").string();
  EXPECT_EQ(fontrix_host_load_module(host, missing.c_str()), kQVNotFoundErr);
  EXPECT_NE(LastError().find(missing), std::string::npos) << LastError();

  EXPECT_NE(fontrix_host_load_module(host, FONTRIX_TEST_NO_ENTRY_MODULE), kQVNoErr);
  EXPECT_NE(LastError().find(FONTRIX_TEST_NO_ENTRY_MODULE), std::string::npos) << LastError();
  EXPECT_NE(LastError().find("entry point"), std::string::npos) << LastError();

  {
    ScopedEnv module("FONTRIX_MODULE", missing.c_str());  // the default gives way to it
    EXPECT_EQ(fontrix_host_load_module(host, nullptr), kQVNotFoundErr);
    EXPECT_NE(LastError().find(missing), std::string::npos) << LastError();
  }
  EXPECT_EQ(fontrix_host_load_module(host, ""), kQVBadParameterErr);

  // Nothing loaded: nothing to start or wait for, and closing is still clean.
  EXPECT_EQ(fontrix_host_start(host), kQVNotInitialisedErr);
  EXPECT_NE(LastError(), "");
  EXPECT_EQ(fontrix_host_wait_until_idle(host, 0), kQVNotInitialisedErr);
  EXPECT_EQ(fontrix_host_close(host), kQVNoErr);
  EXPECT_EQ(LastError(), "");
}

TEST_F(FontrixHostTest, DefaultModuleIsTheOneBesideTheLibrary) {
  FontrixHost* host = Open();
  ASSERT_NE(host, nullptr) << LastError();
  EXPECT_EQ(fontrix_host_load_module(host, nullptr), kQVNoErr) << LastError();
  EXPECT_EQ(fontrix_host_load_module(host, nullptr), kQVBadParameterErr);  // one module per host
  EXPECT_EQ(fontrix_host_close(host), kQVNoErr);
}

TEST_F(FontrixHostTest, SuitesAreCountedByNameAndVersion) {
  FontrixHost* host = Open();
  ASSERT_NE(host, nullptr) << LastError();
  auto* fonts = static_cast<const QVFontSuite*>(fontrix_host_acquire_suite(host, kQVFontSuite, kQVFontSuiteVersion));
  ASSERT_NE(fonts, nullptr) << LastError();
  int32_t count = -1;
  EXPECT_EQ(fonts->CountFonts(&count), kQVNoErr);

  EXPECT_EQ(fontrix_host_acquire_suite(host, "QV No Such Suite", 1), nullptr);
  EXPECT_NE(LastError().find("QV No Such Suite"), std::string::npos) << LastError();
  EXPECT_EQ(fontrix_host_acquire_suite(host, kQVFontSuite, kQVFontSuiteVersion + 99), nullptr);
  // The module's suites exist only once it has started.
  EXPECT_EQ(fontrix_host_acquire_suite(host, kFontrixSimilarSuite, kFontrixSimilarSuiteVersion), nullptr);
  EXPECT_EQ(fontrix_host_acquire_suite(host, nullptr, 1), nullptr);

  EXPECT_EQ(fontrix_host_release_suite(host, "QV No Such Suite", 1), kQVBadParameterErr);
  EXPECT_EQ(fontrix_host_release_suite(host, kQVFontSuite, kQVFontSuiteVersion), kQVNoErr);
  EXPECT_EQ(fontrix_host_release_suite(host, kQVFontSuite, kQVFontSuiteVersion), kQVBadParameterErr);
  EXPECT_NE(LastError().find(kQVFontSuite), std::string::npos) << LastError();
  EXPECT_EQ(fontrix_host_close(host), kQVNoErr);
}

TEST_F(FontrixHostTest, OneHostAtATimeAndNoneWithoutValidOptions) {
  EXPECT_EQ(Open("classification,typography"), nullptr);
  EXPECT_NE(LastError().find("typography"), std::string::npos) << LastError();

  FontrixHost* host = Open();
  ASSERT_NE(host, nullptr) << LastError();
  EXPECT_EQ(Open(), nullptr);
  EXPECT_NE(LastError().find("another Fontrix host"), std::string::npos) << LastError();
  EXPECT_EQ(fontrix_host_close(host), kQVNoErr);
  host = Open();
  EXPECT_NE(host, nullptr) << LastError();
  EXPECT_EQ(fontrix_host_close(host), kQVNoErr);

  EXPECT_EQ(fontrix_host_load_module(nullptr, FONTRIX_TEST_FAKE_MODULE), kQVBadParameterErr);
  EXPECT_EQ(fontrix_host_acquire_suite(nullptr, kQVFontSuite, kQVFontSuiteVersion), nullptr);
  EXPECT_EQ(fontrix_host_close(nullptr), kQVNoErr);
}

TEST_F(FontrixHostTest, LifecycleRunsInOrderWithTheGivenFoldersAndSwitches) {
  const std::string report = (tmp_ / "report.txt").string();
  ScopedEnv report_env("FAKE_MODULE_REPORT", report.c_str());
  FontrixHost* host = Open("recognition");
  ASSERT_NE(host, nullptr) << LastError();
  ASSERT_EQ(fontrix_host_load_module(host, FONTRIX_TEST_FAKE_MODULE), kQVNoErr) << LastError();
  ASSERT_EQ(fontrix_host_start(host), kQVNoErr) << LastError();
  EXPECT_EQ(fontrix_host_start(host), kQVBadParameterErr);
  ASSERT_EQ(fontrix_host_wait_until_idle(host, -1), kQVNoErr) << LastError();

  // Held at close on purpose: closing releases it.
  auto* progress = static_cast<const FontrixProgressSuite*>(
      fontrix_host_acquire_suite(host, kFontrixProgressSuite, kFontrixProgressSuiteVersion));
  ASSERT_NE(progress, nullptr) << LastError();
  FontrixServiceProgress similarity{}, recognition{};
  ASSERT_EQ(progress->GetServiceProgress(kFontrixServiceSimilarity, &similarity), kQVNoErr);
  ASSERT_EQ(progress->GetServiceProgress(kFontrixServiceRecognition, &recognition), kQVNoErr);
  EXPECT_TRUE(similarity.idle);
  EXPECT_GT(similarity.fontsDone, 0u);
  EXPECT_EQ(similarity.fontsDone, similarity.fontsTotal);
  EXPECT_FALSE(recognition.enabled);
  EXPECT_EQ(fontrix_host_close(host), kQVNoErr) << LastError();

  std::ifstream in(report);
  std::stringstream text;
  text << in.rdbuf();
  const std::string expected =
      "message KP Interface/Startup\n"
      "message QV Application Started Notifier\n"
      "message QV Font List Changed Notifier\n"
      "message QV Application Shutdown Notifier\n"
      "message KP Interface/Shutdown\n"
      "data " +
      data_ + "\ncache " + cache_ +
      "\n"
      "switch Text/FontClassification 1\n"
      "switch Text/FontSimilarity 1\n"
      "switch TextDebug/FontRecognition 0\n"
      "switch TextDebug/DumpDebugInfo 0\n";
  EXPECT_EQ(text.str(), expected);
}

TEST_F(FontrixHostTest, StalledOrFailingModulesGiveCodesAndStillClose) {
  {
    ScopedEnv stall("FAKE_MODULE_STALL", "1");
    FontrixHost* host = Open();
    ASSERT_NE(host, nullptr) << LastError();
    ASSERT_EQ(fontrix_host_load_module(host, FONTRIX_TEST_FAKE_MODULE), kQVNoErr) << LastError();
    ASSERT_EQ(fontrix_host_start(host), kQVNoErr) << LastError();
    EXPECT_EQ(fontrix_host_wait_until_idle(host, 0), kFontrixHostBusyErr);
    EXPECT_EQ(fontrix_host_wait_until_idle(host, 0.05), kFontrixHostBusyErr);
    EXPECT_NE(LastError().find("still working"), std::string::npos) << LastError();
    EXPECT_EQ(fontrix_host_close(host), kQVNoErr) << LastError();
  }
  ScopedEnv fail("FAKE_MODULE_FAIL", "startup");
  FontrixHost* host = Open();
  ASSERT_NE(host, nullptr) << LastError();
  ASSERT_EQ(fontrix_host_load_module(host, FONTRIX_TEST_FAKE_MODULE), kQVNoErr) << LastError();
  EXPECT_EQ(fontrix_host_start(host), kQVNotInitialisedErr);
  EXPECT_NE(LastError().find("failed to start"), std::string::npos) << LastError();
  EXPECT_EQ(fontrix_host_wait_until_idle(host, 0), kQVNotInitialisedErr);
  EXPECT_EQ(fontrix_host_close(host), kQVNoErr) << LastError();
}

}  // namespace
}  // namespace fontrix::host::testing
