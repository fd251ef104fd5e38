// The entry dispatcher and the plug-in base: messages without an object, failed start-up,
// unhandled messages, error alerts and their repeat rule.
#include "plugin/plugin.h"

#include "shell/qv_error.h"
#include "tests/plugin/test_host.h"

namespace fontrix {
namespace {

using testing::HostTest;
using testing::interception;

// Straight to the entry point, as a host would call it before any start-up.
TEST(Dispatch, MessagesWithoutAnObjectAnswerZero) {
  QVMessageData message{};
  EXPECT_EQ(FontrixPluginMain("KP Interface", "Shutdown", &message), kQVNoErr);
  EXPECT_EQ(FontrixPluginMain("QV Menu", "QV Go", &message), kQVNoErr);
  EXPECT_EQ(FontrixPluginMain("KP Access", "Reload", &message), kQVNoErr);
  EXPECT_EQ(FontrixPluginMain("QV Notifier", "QV Notify", &message), kQVNoErr);
  EXPECT_EQ(message.globals, nullptr);
  EXPECT_EQ(FontrixPluginMain("QV Menu", "QV Go", nullptr), kQVBadParameterErr);
}

TEST_F(HostTest, FailedStartupLeavesNoObject) {
  auto& h = MakeHost();
  interception().hidden = {kQVFoldersSuite};  // a suite the module cannot run without
  EXPECT_EQ(h.Startup(), kQVSuiteNotFoundErr);
  EXPECT_EQ(h.Globals(), nullptr);
  EXPECT_EQ(h.LiveBlocks(), 0u);    // the object went back to host memory
  EXPECT_TRUE(h.Alerts().empty());  // "S!Fd" is a silent code
  interception().hidden.clear();
  EXPECT_EQ(h.Send("QV Menu", "QV Go"), kQVNoErr);
  EXPECT_EQ(h.ApplicationStarted(), kQVNoErr);
  EXPECT_EQ(qv::GlobalPlugin(), nullptr);
}

TEST_F(HostTest, FailedStartupWithoutFontEngineIsReported) {
  auto& h = MakeHost();
  interception().hidden = {kQVFontGlueSuite};
  EXPECT_EQ(h.Startup(), kQVCantHappenErr);
  EXPECT_EQ(h.Globals(), nullptr);
  ASSERT_EQ(h.Alerts().size(), 1u);
  EXPECT_EQ(h.Alerts()[0], "Fontrix could not complete the operation.");
}

TEST_F(HostTest, UnhandledMessagesAnswerZeroWithoutAlert) {
  auto& h = Started();
  for (auto [caller, selector] :
       std::vector<std::pair<const char*, const char*>>{{"QV Menu", "QV Go"},
                                                        {"QV Tool", "QV Mouse Down"},
                                                        {"Action Manager", "Do Action"},
                                                        {"QV Script Message Caller", "anything"},
                                                        {"Unknown Caller", "Whatever"},
                                                        {"KP Cache", "Plug-in Purge"},
                                                        {"KP Properties", "Acquire"}})
    EXPECT_EQ(h.Send(caller, selector), kQVNoErr) << caller << "/" << selector;
  EXPECT_TRUE(h.Alerts().empty());
}

// An about box that fails: the error goes to the alert, once per five seconds per code.
QVErr FailingAboutBox(const char*, const char*) { return qv::FourCC("FAIL"); }
QVErr OtherFailingAboutBox(const char*, const char*) { return qv::FourCC("OOPS"); }

TEST_F(HostTest, RepeatedAlertsWithinFiveSecondsAreShownOnce) {
  auto& h = Started();
  int64_t now = 1000;
  qv::Plugin::SetClockForTesting([&] { return now; });
  static const QVBasicDialogSuite failing{FailingAboutBox};
  static const QVBasicDialogSuite other{OtherFailingAboutBox};
  interception().replaced[kQVBasicDialogSuite] = &failing;
  EXPECT_EQ(h.Send("KP Interface", "About"), qv::FourCC("FAIL"));
  ASSERT_EQ(h.Alerts().size(), 1u);
  EXPECT_EQ(h.Alerts()[0], "Fontrix could not complete the operation because of an error (FAIL).");
  now += 4;
  h.Send("KP Interface", "About");
  EXPECT_EQ(h.Alerts().size(), 1u);
  now += 1;  // five seconds after the shown one
  h.Send("KP Interface", "About");
  EXPECT_EQ(h.Alerts().size(), 2u);
  interception().replaced[kQVBasicDialogSuite] = &other;  // another code is shown at once
  h.Send("KP Interface", "About");
  EXPECT_EQ(h.Alerts().size(), 3u);
}

TEST(StaticReporter, MessagesFromTheModulesListAndSilentCodes) {
  // Without a host there is no dialog suite: nothing is shown, nothing crashes.
  qv::SetBasicSuite(nullptr);
  qv::Plugin::StaticReportError(nullptr, kQVOutOfMemoryErr);
  EXPECT_TRUE(qv::IsSilentCode(qv::FourCC("S!Fd")));
  EXPECT_TRUE(qv::IsSilentCode(361));
  EXPECT_FALSE(qv::IsSilentCode(kQVCantHappenErr));
  EXPECT_FALSE(qv::IsSilentCode(0));
}

TEST_F(HostTest, KnownCodesUseTheirOwnMessage) {
  auto& h = MakeHost();
  ASSERT_EQ(h.Startup(), kQVNoErr);
  qv::Plugin::StaticReportError(nullptr, kQVNotInitialisedErr);
  qv::Plugin::StaticReportError(nullptr, 1);
  qv::Plugin::StaticReportError(nullptr, 4000);  // neither the module's nor the host's: default, in decimal
  ASSERT_EQ(h.Alerts().size(), 3u);
  EXPECT_EQ(h.Alerts()[0], "The Fontrix font services are still starting. Try again in a moment.");
  EXPECT_NE(h.Alerts()[1].find("font engine"), std::string::npos);
  EXPECT_EQ(h.Alerts()[2], "Fontrix could not complete the operation because of an error (4000).");
}

}  // namespace
}  // namespace fontrix
