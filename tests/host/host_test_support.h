#pragma once
// A stand-in plug-in for host tests: its entry point forwards every message to a handler the
// test sets, and a fixture builds hermetic hosts (memory fonts, temporary folders).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "host/host.h"
#include "sdk/qv_host_suites.h"

namespace fontrix::host::testing {

using Handler = std::function<QVErr(const std::string& caller, const std::string& selector, QVMessageData* message)>;

/// What the stand-in plug-in does; tests replace it. A Host sends Shutdown from its destructor,
/// so what a handler captures must be declared before the Host.
inline Handler& PluginHandler() {
  static Handler handler;
  return handler;
}

inline QVErr PluginMain(const char* caller, const char* selector, void* message) {
  auto* data = static_cast<QVMessageData*>(message);
  return PluginHandler() ? PluginHandler()(caller, selector, data) : kQVUnhandledMsgErr;
}

/// Acquires a host suite as the plug-in does, through the basic suite of a message.
template <typename Suite>
const Suite* Acquire(QVMessageData* message, const char* name, int32_t version) {
  const void* suite = nullptr;
  return message->basic->AcquireSuite(name, version, &suite) == kQVNoErr ? static_cast<const Suite*>(suite) : nullptr;
}

/// Sets an environment variable for one scope (unset when `value` is null).
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = getenv(name)) old_ = old;
    if (value)
      setenv(name, value, 1);
    else
      unsetenv(name);
  }
  ~ScopedEnv() {
    if (old_)
      setenv(name_.c_str(), old_->c_str(), 1);
    else
      unsetenv(name_.c_str());
  }

 private:
  std::string name_;
  std::optional<std::string> old_;
};

class HostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/fontrix-host-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    tmp_ = pattern;
    PluginHandler() = nullptr;
  }
  void TearDown() override {
    PluginHandler() = nullptr;
    std::filesystem::remove_all(tmp_);
  }

  /// Options of a host that touches nothing outside the test's folder.
  HostOptions Options(std::vector<HostFont> fonts = {}) {
    HostOptions options;
    auto source = std::make_shared<MemoryFontSource>();
    source->fonts = std::move(fonts);
    options.fonts = source;
    options.data_dir = (tmp_ / "data").string();
    options.cache_dir = (tmp_ / "cache").string();
    return options;
  }

  std::filesystem::path tmp_;
};

}  // namespace fontrix::host::testing
