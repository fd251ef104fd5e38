// Folders, feature switches, the clock and logs, alerts and string lists.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "host/host.h"
#include "host_test_support.h"

namespace fontrix::host::testing {
namespace {

namespace fs = std::filesystem;

std::string FindFolder(Host& host, int32_t id, bool create) {
  auto* folders = static_cast<const QVFoldersSuite*>(host.AcquireSuite(kQVFoldersSuite, kQVFoldersSuiteVersion));
  char path[4096] = "";
  return folders->FindFolder(id, create, path, sizeof path) == kQVNoErr ? path : "";
}

TEST_F(HostTest, DataFolderComesFromTheOptionThenTheEnvironmentThenTheSourceTree) {
  {
    ScopedEnv env("FONTRIX_DATA_DIR", "/opt/fontrix-data/");
    Host host(Options());
    EXPECT_EQ(FindFolder(host, kQVFolderPluginData, true), (tmp_ / "data").string());
    EXPECT_FALSE(fs::exists(tmp_ / "data"));  // read-only: never created
  }
  HostOptions options = Options();
  options.data_dir.clear();
  {
    ScopedEnv env("FONTRIX_DATA_DIR", "/opt/fontrix-data/");
    Host host(options);
    EXPECT_EQ(host.FolderPath(kQVFolderPluginData), "/opt/fontrix-data");
  }
  ScopedEnv env("FONTRIX_DATA_DIR", nullptr);
  Host host(options);
  EXPECT_EQ(host.FolderPath(kQVFolderPluginData), FONTRIX_TEST_SOURCE_DIR "/data");
}

TEST_F(HostTest, CacheFolderPrecedenceAndCreation) {
  HostOptions options = Options();
  options.cache_dir.clear();
  ScopedEnv home("HOME", tmp_.c_str());
  {
    ScopedEnv cache("FONTRIX_CACHE_DIR", nullptr), xdg("XDG_CACHE_HOME", "relative/is/ignored");
    Host host(options);
    EXPECT_EQ(host.FolderPath(kQVFolderUserCache), (tmp_ / ".cache" / "fontrix").string());
  }
  {
    ScopedEnv cache("FONTRIX_CACHE_DIR", nullptr), xdg("XDG_CACHE_HOME", (tmp_ / "xdg").c_str());
    Host host(options);
    EXPECT_EQ(host.FolderPath(kQVFolderUserCache), (tmp_ / "xdg" / "fontrix").string());
  }
  {
    ScopedEnv cache("FONTRIX_CACHE_DIR", (tmp_ / "env").c_str()), xdg("XDG_CACHE_HOME", (tmp_ / "xdg").c_str());
    Host host(options);
    EXPECT_EQ(host.FolderPath(kQVFolderUserCache), (tmp_ / "env").string());
  }

  // A relative option is made absolute; create makes the parents too.
  options.cache_dir = fs::relative(tmp_ / "deep" / "er" / "cache").string();
  Host host(options);
  const std::string expected = (tmp_ / "deep" / "er" / "cache").string();
  EXPECT_EQ(host.FolderPath(kQVFolderUserCache), expected);
  EXPECT_EQ(FindFolder(host, kQVFolderUserCache, false), expected);
  EXPECT_FALSE(fs::exists(expected));
  EXPECT_EQ(FindFolder(host, kQVFolderUserCache, true), expected);
  EXPECT_TRUE(fs::is_directory(expected));

  auto* folders = static_cast<const QVFoldersSuite*>(host.AcquireSuite(kQVFoldersSuite, kQVFoldersSuiteVersion));
  std::vector<char> exact(expected.size() + 1);
  EXPECT_EQ(folders->FindFolder(kQVFolderUserCache, 0, exact.data(), exact.size()), kQVNoErr);
  EXPECT_EQ(folders->FindFolder(kQVFolderUserCache, 0, exact.data(), exact.size() - 1), kQVBadParameterErr);
  EXPECT_EQ(folders->FindFolder(7, 0, exact.data(), exact.size()), kQVNotFoundErr);
  EXPECT_EQ(host.FolderPath(7), "");
}

bool Enabled(Host& host, const char* key) {
  auto* features = static_cast<const QVFeatureManagerSuite*>(
      host.AcquireSuite(kQVFeatureManagerSuite, kQVFeatureManagerSuiteVersion));
  QVBool on = 2;
  EXPECT_EQ(features->IsFeatureEnabled(key, &on), kQVNoErr);
  return on != 0;
}

TEST_F(HostTest, FeatureSwitchesDefaultsEnvironmentAndOverrides) {
  {
    ScopedEnv env("FONTRIX_DISABLE", nullptr);
    Host host(Options());
    EXPECT_TRUE(Enabled(host, kSwitchClassification));
    EXPECT_TRUE(Enabled(host, kSwitchSimilarity));
    EXPECT_TRUE(Enabled(host, kSwitchRecognition));
    EXPECT_FALSE(Enabled(host, kSwitchDumpDebugInfo));
    EXPECT_FALSE(Enabled(host, "Text/NoSuchFeature"));
  }
  {
    ScopedEnv env("FONTRIX_DISABLE", "similarity,recognition");
    HostOptions options = Options();
    options.switches[kSwitchRecognition] = true;  // an explicit switch wins over the environment
    options.switches[kSwitchDumpDebugInfo] = true;
    Host host(options);
    EXPECT_TRUE(Enabled(host, kSwitchClassification));
    EXPECT_FALSE(Enabled(host, kSwitchSimilarity));
    EXPECT_TRUE(Enabled(host, kSwitchRecognition));
    EXPECT_TRUE(Enabled(host, kSwitchDumpDebugInfo));
  }
  ScopedEnv env("FONTRIX_DISABLE", "similarity,speed");
  EXPECT_THROW(Host host(Options()), std::runtime_error);
}

TEST_F(HostTest, ClockAndPerformanceLogs) {
  HostOptions options = Options();
  options.clock = [] { return 1234.5; };
  Host host(options);
  auto* dev = static_cast<const QVDevUtilsSuite*>(host.AcquireSuite(kQVDevUtilsSuite, kQVDevUtilsSuiteVersion));
  double seconds = 0;
  ASSERT_EQ(dev->GetCurrentTime(&seconds), kQVNoErr);
  EXPECT_EQ(seconds, 1234.5);

  QVPerfLogHandle a = nullptr, again = nullptr, b = nullptr, none = reinterpret_cast<QVPerfLogHandle>(&seconds);
  ASSERT_EQ(dev->GetPerformanceLog("similarity.log", &a), kQVNoErr);
  ASSERT_EQ(dev->GetPerformanceLog("similarity.log", &again), kQVNoErr);
  ASSERT_EQ(dev->GetPerformanceLog("recognition.log", &b), kQVNoErr);
  ASSERT_EQ(dev->GetPerformanceLog(nullptr, &none), kQVNoErr);
  EXPECT_NE(a, nullptr);
  EXPECT_EQ(a, again);
  EXPECT_NE(a, b);
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(dev->GetPerformanceLog("../escape.log", &b), kQVBadParameterErr);

  EXPECT_EQ(dev->WritePerformanceLog(a, "first"), kQVNoErr);  // creates the cache folder
  EXPECT_EQ(dev->WritePerformanceLog(a, "second\n"), kQVNoErr);
  EXPECT_EQ(dev->WritePerformanceLog(nullptr, "dropped"), kQVNoErr);
  std::ifstream in(tmp_ / "cache" / "similarity.log");
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(text.str(), "first\nsecond\n");
}

TEST_F(HostTest, AlertsAboutBoxAndHostStrings) {
  Host host(Options());
  auto* user = static_cast<const QVUserSuite*>(host.AcquireSuite(kQVUserSuite, kQVUserSuiteVersion));
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(user->ErrorAlert("the similarity cache is damaged"), kQVNoErr);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "fontrix: the similarity cache is damaged\n");
  EXPECT_EQ(host.Alerts(), std::vector<std::string>{"the similarity cache is damaged"});

  auto* dialog =
      static_cast<const QVBasicDialogSuite*>(host.AcquireSuite(kQVBasicDialogSuite, kQVBasicDialogSuiteVersion));
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(dialog->AboutBox("Fontrix", "Font intelligence"), kQVNoErr);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Fontrix\nFont intelligence\n");

  auto* strings =
      static_cast<const QVStringInitSuite*>(host.AcquireSuite(kQVStringInitSuite, kQVStringInitSuiteVersion));
  char buf[128];
  EXPECT_EQ(strings->GetHostString(257, 10, buf, sizeof buf), kQVNoErr);
  EXPECT_EQ(strings->GetHostString(257, 15, buf, sizeof buf), kQVNoErr);
  EXPECT_EQ(strings->GetHostString(257, 16, buf, sizeof buf), kQVNotFoundErr);
  EXPECT_EQ(strings->GetHostString(256, 10, buf, sizeof buf), kQVNotFoundErr);
  EXPECT_EQ(strings->GetHostString(257, 10, buf, 4), kQVBadParameterErr);
}

}  // namespace
}  // namespace fontrix::host::testing
