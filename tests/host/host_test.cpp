// The host as a plug-in meets it: lifecycle messages, globals, notifications, timers, the
// suite registry and the counted resources.
#include "host/host.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "host_test_support.h"

namespace fontrix::host::testing {
namespace {

using Messages = std::vector<std::string>;

TEST_F(HostTest, LifecycleKeepsGlobalsAndForgetsTheModuleAtShutdown) {
  int object = 0;
  Messages seen;
  void* globals_seen_by_about = nullptr;
  Host host(Options());
  PluginHandler() = [&](const std::string& caller, const std::string& selector, QVMessageData* m) {
    seen.push_back(caller + "/" + selector);
    if (selector == kQVStartupSelector) {
      auto* plugins = Acquire<QVPluginsSuite>(m, kQVPluginsSuite, kQVPluginsSuiteVersion);
      auto* suites = Acquire<QVSuitesSuite>(m, kQVSuitesSuite, kQVSuitesSuiteVersion);
      auto* timers = Acquire<QVTimerSuite>(m, kQVTimerSuite, kQVTimerSuiteVersion);
      plugins->SetPluginName(m->self, "Fontrix");
      EXPECT_EQ(suites->AddSuite(m->self, "Own Suite", 1, 1, &object, nullptr), kQVNoErr);
      EXPECT_EQ(timers->AddTimer(m->self, "work", 0, nullptr), kQVNoErr);
      m->basic->ReleaseSuite(kQVPluginsSuite, kQVPluginsSuiteVersion);
      m->globals = &object;
    } else if (selector == kQVAboutSelector) {
      globals_seen_by_about = m->globals;
    } else if (selector == kQVShutdownSelector) {
      m->globals = nullptr;
    }
    return kQVNoErr;
  };
  host.UseModuleEntry(PluginMain);
  EXPECT_EQ(host.Shutdown(), kQVNotInitialisedErr);  // never started: no message

  ASSERT_EQ(host.Startup(), kQVNoErr);
  EXPECT_EQ(host.Globals(), &object);
  EXPECT_EQ(host.PluginName(), "Fontrix");
  EXPECT_EQ(host.SuiteAcquisitions(kQVPluginsSuite, kQVPluginsSuiteVersion), 0);
  EXPECT_EQ(host.SuiteAcquisitions(kQVTimerSuite, kQVTimerSuiteVersion), 1);
  EXPECT_EQ(host.Send(kQVInterfaceCaller, kQVAboutSelector), kQVNoErr);
  EXPECT_EQ(globals_seen_by_about, &object);

  EXPECT_EQ(host.Shutdown(), kQVNoErr);
  EXPECT_EQ(host.Globals(), nullptr);
  EXPECT_TRUE(host.RegisteredSuites().empty());
  host.Idle();  // the forgotten timer must not fire into a shut-down module
  EXPECT_EQ(seen, (Messages{"KP Interface/Startup", "KP Interface/About", "KP Interface/Shutdown"}));
}

TEST_F(HostTest, FailedOrThrowingStartupLeavesNothingRegistered) {
  Messages seen;
  Host host(Options());
  EXPECT_THROW(Host second(Options()), std::logic_error);  // one host at a time
  PluginHandler() = [&](const std::string&, const std::string& selector, QVMessageData* m) -> QVErr {
    seen.push_back(selector);
    auto* notifiers = Acquire<QVNotifierSuite>(m, kQVNotifierSuite, kQVNotifierSuiteVersion);
    auto* suites = Acquire<QVSuitesSuite>(m, kQVSuitesSuite, kQVSuitesSuiteVersion);
    notifiers->AddNotifier(m->self, "n", kQVApplicationStartedNotifier, nullptr);
    suites->AddSuite(m->self, "Half Made Suite", 1, 1, &seen, nullptr);
    if (seen.size() == 2) throw std::runtime_error("an exception must not cross into the host");
    return kQVNotInitialisedErr;
  };
  host.UseModuleEntry(PluginMain);
  EXPECT_EQ(host.Startup(), kQVNotInitialisedErr);
  EXPECT_EQ(host.Startup(), kQVUnexpectedErr);
  EXPECT_TRUE(host.RegisteredSuites().empty());
  EXPECT_EQ(host.ApplicationStarted(), kQVNoErr);
  EXPECT_EQ(host.Shutdown(), kQVNotInitialisedErr);
  EXPECT_EQ(seen, (Messages{"Startup", "Startup"}));
}

// A plug-in with two registrations for "A", one for "B" and one for two host notifications.
struct Listener {
  QVNotifierHandle a1 = nullptr, a2 = nullptr, b = nullptr;
  std::vector<std::pair<QVNotifierHandle, void*>> received;
  const QVNotifierSuite* notifier = nullptr;
  QVErr answer = kQVNoErr;

  Handler AsHandler() {
    return [this](const std::string& caller, const std::string& selector, QVMessageData* m) {
      if (selector == kQVStartupSelector) {
        notifier = Acquire<QVNotifierSuite>(m, kQVNotifierSuite, kQVNotifierSuiteVersion);
        notifier->AddNotifier(m->self, "a1", "A", &a1);
        notifier->AddNotifier(m->self, "a2", "A", &a2);
        notifier->AddNotifier(m->self, "b", "B", &b);
        for (const char* type : {kQVApplicationStartedNotifier, kQVFontListChangedNotifier})
          notifier->AddNotifier(m->self, type, type, nullptr);
      } else if (caller == kQVNotifierCaller && selector == kQVNotifySelector) {
        auto* n = reinterpret_cast<QVNotifierMessage*>(m);
        received.emplace_back(n->notifier, n->notifyData);
        if (n->notifier == a1) notifier->Notify("B", nullptr);  // waits for the following tick
        return answer;
      }
      return kQVNoErr;
    };
  }
};

TEST_F(HostTest, NotificationsWaitForATickHostOnesArriveAtOnce) {
  Listener listener;  // outlives the host, which sends Shutdown from its destructor
  Host host(Options());
  PluginHandler() = listener.AsHandler();
  host.UseModuleEntry(PluginMain);
  ASSERT_EQ(host.Startup(), kQVNoErr);

  int payload = 0;
  ASSERT_EQ(listener.notifier->Notify("A", &payload), kQVNoErr);
  ASSERT_EQ(listener.notifier->Notify("nobody listens", nullptr), kQVNoErr);
  EXPECT_TRUE(listener.received.empty());
  host.Idle();
  using Received = std::vector<std::pair<QVNotifierHandle, void*>>;
  EXPECT_EQ(listener.received, (Received{{listener.a1, &payload}, {listener.a2, &payload}}));
  host.Idle();
  EXPECT_EQ(listener.received.size(), 3u);
  EXPECT_EQ(listener.received.back().first, listener.b);
  host.Idle();
  EXPECT_EQ(listener.received.size(), 3u);

  EXPECT_EQ(host.ApplicationStarted(), kQVNoErr);
  EXPECT_EQ(listener.received.size(), 4u);
  listener.answer = kQVCantHappenErr;
  EXPECT_EQ(host.FontListChanged(), kQVCantHappenErr);
  EXPECT_EQ(host.ApplicationShutdown(), kQVNoErr);  // nobody registered
  EXPECT_EQ(host.DeliveredNotifications(),
            (Messages{"A", "A", "B", kQVApplicationStartedNotifier, kQVFontListChangedNotifier}));
}

TEST_F(HostTest, TimersFireOnlyWhileActiveAndAfterTheirPeriod) {
  double now = 1000.0;
  QVTimerHandle every_tick = nullptr, slow = nullptr;
  const QVTimerSuite* timers = nullptr;
  std::vector<QVTimerHandle> fired;
  HostOptions options = Options();
  options.clock = [&] { return now; };
  Host host(std::move(options));
  PluginHandler() = [&](const std::string& caller, const std::string& selector, QVMessageData* m) {
    if (selector == kQVStartupSelector) {
      timers = Acquire<QVTimerSuite>(m, kQVTimerSuite, kQVTimerSuiteVersion);
      EXPECT_EQ(timers->AddTimer(m->self, "slow", 100, &slow), kQVNoErr);
      EXPECT_EQ(timers->AddTimer(m->self, "tick", 0, &every_tick), kQVNoErr);
    } else if (caller == kQVTimerCaller) {
      auto* t = reinterpret_cast<QVTimerMessage*>(m);
      fired.push_back(t->timer);
      // The slow timer, listed first, stops the other one: it must not fire later in that tick.
      if (t->timer == slow) timers->SetTimerActive(every_tick, false);
    }
    return kQVNoErr;
  };
  host.UseModuleEntry(PluginMain);
  ASSERT_EQ(host.Startup(), kQVNoErr);

  host.Idle();
  now += 0.099;
  host.Idle();
  EXPECT_EQ(fired, (std::vector<QVTimerHandle>{every_tick, every_tick}));
  now += 0.002;
  host.Idle();
  host.Idle();
  EXPECT_EQ(fired, (std::vector<QVTimerHandle>{every_tick, every_tick, slow}));
  EXPECT_FALSE(host.TimerActive("tick"));
  QVBool active = 1;
  EXPECT_EQ(timers->IsTimerActive(every_tick, &active), kQVNoErr);
  EXPECT_EQ(active, 0);

  fired.clear();
  timers->SetTimerActive(slow, false);
  now += 1.0;
  host.Idle();
  timers->SetTimerActive(slow, true);  // waits a whole period again
  host.Idle();
  EXPECT_TRUE(fired.empty());
  now += 0.2;
  host.Idle();
  EXPECT_EQ(fired, std::vector<QVTimerHandle>{slow});
}

TEST_F(HostTest, SuitesOfAPluginReachOtherClientsByNameAndVersion) {
  struct OwnSuite {
    int (*answer)();
  } own{[] { return 42; }};
  const QVBasicSuite* basic = nullptr;
  Host host(Options());
  PluginHandler() = [&](const std::string&, const std::string& selector, QVMessageData* m) {
    basic = m->basic;
    if (selector != kQVStartupSelector) return kQVNoErr;
    auto* suites = Acquire<QVSuitesSuite>(m, kQVSuitesSuite, kQVSuitesSuiteVersion);
    EXPECT_EQ(suites->AddSuite(m->self, "Own Suite", 3, 7, &own, nullptr), kQVNoErr);
    EXPECT_EQ(suites->AddSuite(m->self, "Own Suite", 3, 8, &own, nullptr), kQVBadParameterErr);
    EXPECT_EQ(suites->AddSuite(m->self, "Own Suite", 4, 1, &own, nullptr), kQVNoErr);
    EXPECT_EQ(suites->AddSuite(nullptr, "Stray Suite", 1, 1, &own, nullptr), kQVBadParameterErr);
    return kQVNoErr;
  };
  host.UseModuleEntry(PluginMain);
  ASSERT_EQ(host.Startup(), kQVNoErr);

  EXPECT_EQ(host.RegisteredSuites(), (Messages{"Own Suite", "Own Suite"}));
  auto* got = static_cast<const OwnSuite*>(host.AcquireSuite("Own Suite", 3));
  ASSERT_EQ(got, &own);
  EXPECT_EQ(got->answer(), 42);
  EXPECT_EQ(host.AcquireSuite("Own Suite", 2), nullptr);
  EXPECT_EQ(host.SuiteAcquisitions("Own Suite", 3), 1);
  host.ReleaseSuite("Own Suite", 3);
  EXPECT_EQ(host.SuiteAcquisitions("Own Suite", 3), 0);
  EXPECT_EQ(basic->ReleaseSuite("Own Suite", 3), kQVBadParameterErr);  // more releases than acquisitions
  const void* out = &own;
  EXPECT_EQ(basic->AcquireSuite(kQVUserSuite, kQVUserSuiteVersion - 1, &out), kQVSuiteNotFoundErr);
  EXPECT_EQ(out, nullptr);
}

TEST_F(HostTest, CountedResourcesReturnToZeroAndRefuseBadReleases) {
  QVMessageData startup{};
  Host host(Options());
  PluginHandler() = [&](const std::string&, const std::string&, QVMessageData* m) {
    startup = *m;
    return kQVNoErr;
  };
  host.UseModuleEntry(PluginMain);
  ASSERT_EQ(host.Startup(), kQVNoErr);
  QVMessageData* m = &startup;

  auto* access = Acquire<QVAccessSuite>(m, kQVAccessSuite, kQVAccessSuiteVersion);
  QVAccessRef a1 = nullptr, a2 = nullptr;
  ASSERT_EQ(access->AcquirePlugin(m->self, &a1), kQVNoErr);
  ASSERT_EQ(access->AcquirePlugin(m->self, &a2), kQVNoErr);
  EXPECT_EQ(host.AccessCount(), 2);
  EXPECT_EQ(access->ReleasePlugin(a1), kQVNoErr);
  EXPECT_EQ(access->ReleasePlugin(a1), kQVBadParameterErr);
  EXPECT_EQ(access->ReleasePlugin(a2), kQVNoErr);
  EXPECT_EQ(host.AccessCount(), 0);

  auto* context = Acquire<QVContextSuite>(m, kQVContextSuite, kQVContextSuiteVersion);
  QVAppContext outer = nullptr, inner = nullptr;
  ASSERT_EQ(context->PushAppContext(m->self, &outer), kQVNoErr);
  ASSERT_EQ(context->PushAppContext(m->self, &inner), kQVNoErr);
  EXPECT_EQ(host.ContextDepth(), 2);
  EXPECT_EQ(context->PopAppContext(outer), kQVBadParameterErr);  // not the innermost
  EXPECT_EQ(context->PopAppContext(inner), kQVNoErr);
  EXPECT_EQ(context->PopAppContext(outer), kQVNoErr);
  EXPECT_EQ(host.ContextDepth(), 0);

  auto* blocks = Acquire<QVBlocksSuite>(m, kQVBlocksSuite, kQVBlocksSuiteVersion);
  auto* md = Acquire<QVMdMemorySuite>(m, kQVMdMemorySuite, kQVMdMemorySuiteVersion);
  void *block = nullptr, *memory = nullptr;
  ASSERT_EQ(blocks->AllocateBlock(64, "test", &block), kQVNoErr);
  ASSERT_EQ(md->NewMemory(0, &memory), kQVNoErr);
  EXPECT_EQ(host.LiveBlocks(), 2u);
  EXPECT_EQ(md->DisposeMemory(block), kQVBadParameterErr);  // a block is not MdMemory
  EXPECT_EQ(blocks->FreeBlock(block), kQVNoErr);
  EXPECT_EQ(blocks->FreeBlock(block), kQVBadParameterErr);
  EXPECT_EQ(md->DisposeMemory(memory), kQVNoErr);
  EXPECT_EQ(host.LiveBlocks(), 0u);
}

}  // namespace
}  // namespace fontrix::host::testing
