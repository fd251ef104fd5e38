// The plug-in's life in a host: start-up registrations, the font list and its generation, the
// background tasks per switch, notifications through the timer, shut-down.
#include "plugin/fontrix.h"

#include <algorithm>

#include "classification/font_feature_cache.h"
#include "recognition/font_recognition_cache.h"
#include "similarity/font_similar_cache.h"
#include "tests/plugin/test_host.h"

namespace fontrix {
namespace {

using testing::HostTest;

const std::map<std::string, bool> kAllOff = {
    {"Text/FontClassification", false}, {"Text/FontSimilarity", false}, {"TextDebug/FontRecognition", false}};

TEST_F(HostTest, StartupRegistersSuitesNotifiersAndAnInactiveTimer) {
  auto& h = MakeHost();
  ASSERT_EQ(h.Startup(), kQVNoErr);
  EXPECT_EQ(h.PluginName(), "Fontrix");
  auto suites = h.RegisteredSuites();
  EXPECT_EQ(suites,
            (std::vector<std::string>{"QV Font Feature Suite", "QV Font Similar Suite", "QV Font Recognition Suite",
                                      "QV Fontrix Progress Suite", "QV Fontrix Table Suite", "QV Fontrix Text Suite",
                                      "QV Fontrix Text Suite",  // versions 1 and 2
                                      "QV Fontrix Known Fonts Suite"}));
  EXPECT_FALSE(h.TimerActive("QV Fontrix Notifier Timer"));
  EXPECT_EQ(h.AccessCount(), 1);  // kept loaded until the application quits
  EXPECT_EQ(h.Globals(), Fontrix::Global());
}

TEST_F(HostTest, FontListKeepsQualifyingFontsOnly) {
  auto& h = Started();
  std::vector<std::string> names;
  const auto* fonts = static_cast<const QVFontSuite*>(h.AcquireSuite(kQVFontSuite, kQVFontSuiteVersion));
  for (QVFontHandle f : Module()->FontList()) {
    const char *unique = nullptr, *family = nullptr, *style = nullptr;
    ASSERT_EQ(fonts->GetFontNames(f, &unique, &family, &style), kQVNoErr);
    names.push_back(unique);
  }
  // Bitmap strikes, symbol fonts and the second face of a name are left out.
  EXPECT_EQ(names, (std::vector<std::string>{"Alpha-Regular", "Beta-Bold"}));
  h.ReleaseSuite(kQVFontSuite, kQVFontSuiteVersion);
}

TEST_F(HostTest, SwitchesOffQueueNothingWhileTheGenerationCounts) {
  auto& h = MakeHost(kAllOff);
  ASSERT_EQ(h.Startup(), kQVNoErr);
  ASSERT_EQ(h.ApplicationStarted(), kQVNoErr);
  EXPECT_EQ(Module()->FontListGeneration(), 1u);
  ASSERT_EQ(h.FontListChanged(), kQVNoErr);
  ASSERT_EQ(h.FontListChanged(), kQVNoErr);
  EXPECT_EQ(Module()->FontListGeneration(), 3u);
  EXPECT_EQ(Module()->ScheduledTasks(), 0u);
  EXPECT_EQ(FontFeatureCache::Instance(), nullptr);
  EXPECT_EQ(FontSimilarCache::Instance(), nullptr);
  EXPECT_EQ(FontRecognitionCache::Instance(), nullptr);
}

// The font-list generation a cache was last brought up to date with; 0 when there is no cache.
template <typename Cache>
uint32_t Generation() {
  const auto cache = Cache::Instance();
  return cache ? cache->FontServerId() : 0;
}

// A font change before the application has started queues the init tasks; the later start
// does not queue them again. Each update carries its list's generation.
TEST_F(HostTest, InitTasksAreQueuedOncePerProcess) {
  auto& h = MakeHost();
  ASSERT_EQ(h.Startup(), kQVNoErr);
  ASSERT_EQ(h.FontListChanged(), kQVNoErr);
  ASSERT_TRUE(WaitIdle());
  EXPECT_EQ(Generation<FontFeatureCache>(), 1u);
  EXPECT_EQ(Generation<FontRecognitionCache>(), 1u);
  // An init task creates its cache: with the caches gone, init tasks queued again by the start
  // would bring them back.
  TerminateCaches();
  ASSERT_EQ(h.ApplicationStarted(), kQVNoErr);
  ASSERT_TRUE(WaitIdle());
  EXPECT_EQ(FontFeatureCache::Instance(), nullptr);
  EXPECT_EQ(FontSimilarCache::Instance(), nullptr);
  EXPECT_EQ(FontRecognitionCache::Instance(), nullptr);
  ASSERT_EQ(h.FontListChanged(), kQVNoErr);
  ASSERT_TRUE(WaitIdle());
  EXPECT_EQ(Generation<FontFeatureCache>(), 2u);
  EXPECT_EQ(Generation<FontRecognitionCache>(), 2u);
}

TEST_F(HostTest, TwoPostsOfOneNameSendOneNotification) {
  auto& h = Started();
  // Receive the module's own notification type, to see what the timer sends.
  const auto* notifier = static_cast<const QVNotifierSuite*>(h.AcquireSuite(kQVNotifierSuite, kQVNotifierSuiteVersion));
  QVNotifierHandle handle = nullptr;
  ASSERT_EQ(notifier->AddNotifier(Module()->PluginRef(), "test", "Fonts Similar List Updated Notifier", &handle),
            kQVNoErr);
  for (int i = 0; i < 3; ++i) h.Idle();  // what the start-up's updates posted is sent first
  EXPECT_FALSE(h.TimerActive("QV Fontrix Notifier Timer"));
  const size_t before = h.DeliveredNotifications().size();
  Module()->PostNotification("Fonts Similar List Updated Notifier");
  Module()->PostNotification("Fonts Similar List Updated Notifier");
  EXPECT_TRUE(h.TimerActive("QV Fontrix Notifier Timer"));
  for (int i = 0; i < 3; ++i) h.Idle();
  const auto delivered = h.DeliveredNotifications();
  EXPECT_EQ(std::count(delivered.begin() + ptrdiff_t(before), delivered.end(), "Fonts Similar List Updated Notifier"),
            1);
  EXPECT_FALSE(h.TimerActive("QV Fontrix Notifier Timer"));  // nothing pending: inactive again
  h.ReleaseSuite(kQVNotifierSuite, kQVNotifierSuiteVersion);
}

TEST_F(HostTest, ShutdownStopsTasksTerminatesCachesAndReleasesEverything) {
  auto& h = Started();
  ASSERT_NE(FontSimilarCache::Instance(), nullptr);
  ASSERT_EQ(h.ApplicationShutdown(), kQVNoErr);
  EXPECT_EQ(Module()->ScheduledTasks(), 0u);
  EXPECT_TRUE(Module()->ShuttingDown());
  EXPECT_EQ(FontFeatureCache::Instance(), nullptr);
  EXPECT_EQ(FontSimilarCache::Instance(), nullptr);
  EXPECT_EQ(FontRecognitionCache::Instance(), nullptr);
  EXPECT_EQ(h.FontListChanged(), kQVNoErr);  // a late change queues nothing
  EXPECT_EQ(Module()->ScheduledTasks(), 0u);
  ASSERT_EQ(h.Shutdown(), kQVNoErr);
  EXPECT_EQ(h.Globals(), nullptr);
  EXPECT_EQ(Fontrix::Global(), nullptr);
  EXPECT_EQ(h.ContextDepth(), 0);
  EXPECT_TRUE(h.Alerts().empty());
}

TEST_F(HostTest, ReloadKeepsTheObjectAndRefillsTheTables) {
  auto& h = Started();
  void* before = h.Globals();
  ASSERT_EQ(h.Send("KP Access", "Reload"), kQVNoErr);
  EXPECT_EQ(h.Globals(), before);
  const auto* similar = static_cast<const FontrixSimilarSuite*>(h.AcquireSuite(kFontrixSimilarSuite, 1));
  ASSERT_NE(similar, nullptr);
  EXPECT_NE(similar->GetSimilarFontNames, nullptr);
  ASSERT_EQ(h.Send("KP Access", "Unload"), kQVNoErr);
  EXPECT_EQ(similar->GetSimilarFontNames, nullptr);  // emptied: the code may go away
  EXPECT_EQ(h.Send("QV Menu", "QV Go"), kQVNoErr);   // not running: answered 0 without routing
  h.ReleaseSuite(kFontrixSimilarSuite, 1);
}

}  // namespace
}  // namespace fontrix
