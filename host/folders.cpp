// Where the host's folders are and which feature switches are on.
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "host/host_impl.h"

namespace fontrix::host {
namespace fs = std::filesystem;

namespace {

std::string Env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

// Absolute and without a trailing slash, so the module can join names with one '/' and its
// worker threads do not depend on the working directory.
std::string Clean(const fs::path& path) {
  std::string text = fs::absolute(path).lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

std::string HomeDir() {
  std::string home = Env("HOME");
  if (!home.empty()) return home;
  const passwd* pw = getpwuid(getuid());
  return pw && pw->pw_dir ? pw->pw_dir : "/tmp";
}

}  // namespace

std::string ExecutableDir() {
  std::error_code ec;
  fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  return ec ? "" : exe.parent_path().string();
}

std::string ResolveDataDir(const std::string& option) {
  if (!option.empty()) return Clean(option);
  if (std::string env = Env("FONTRIX_DATA_DIR"); !env.empty()) return Clean(env);
  const std::string exe_dir = ExecutableDir();
  const fs::path installed = fs::path(exe_dir) / ".." / "share" / "fontrix";
  std::error_code ec;
  if (!exe_dir.empty() && fs::is_directory(installed, ec)) return Clean(installed);
  return Clean(FONTRIX_SOURCE_DATA_DIR);
}

std::string ResolveCacheDir(const std::string& option) {
  if (!option.empty()) return Clean(option);
  if (std::string env = Env("FONTRIX_CACHE_DIR"); !env.empty()) return Clean(env);
  // The XDG base directory rules ignore a relative XDG_CACHE_HOME.
  if (std::string xdg = Env("XDG_CACHE_HOME"); !xdg.empty() && xdg[0] == '/') return Clean(fs::path(xdg) / "fontrix");
  return Clean(fs::path(HomeDir()) / ".cache" / "fontrix");
}

std::vector<std::string> ServiceSwitches(const std::string& services) {
  static const std::map<std::string, std::string> kServices = {
      {"classification", kSwitchClassification},  {"similarity", kSwitchSimilarity},
      {"recognition", kSwitchRecognition},        {"class-vote", kSwitchClassVote},
      {"class-head", kSwitchClassHead},           {"installed-lines", kSwitchRecognitionInstalledLines},
      {"width-cuts", kSwitchRecognitionWidthCuts}};
  std::vector<std::string> keys;
  for (size_t start = 0; start <= services.size();) {
    const size_t comma = std::min(services.find(',', start), services.size());
    const std::string service = services.substr(start, comma - start);
    start = comma + 1;
    if (service.empty()) continue;  // "a,,b" and a trailing comma name nothing more
    auto it = kServices.find(service);
    if (it == kServices.end())
      throw std::runtime_error(
          "unknown service '" + service +
          "' (known: classification, similarity, recognition, class-vote, class-head, installed-lines, "
          "width-cuts)");
    keys.push_back(it->second);
  }
  return keys;
}

std::map<std::string, bool> ResolveSwitches(const std::map<std::string, bool>& overrides) {
  std::map<std::string, bool> switches = {{kSwitchClassification, true},
                                          {kSwitchSimilarity, true},
                                          {kSwitchRecognition, true},
                                          {kSwitchClassVote, true},
                                          {kSwitchClassHead, true},
                                          {kSwitchDumpDebugInfo, false},
                                          {kSwitchRecognitionLargestLine, false},
                                          {kSwitchRecognitionInstalledLines, true},
                                          {kSwitchRecognitionWidthCuts, true}};
  if (const std::string disabled = Env("FONTRIX_DISABLE"); !disabled.empty()) {
    try {
      for (const std::string& key : ServiceSwitches(disabled)) switches[key] = false;
    } catch (const std::runtime_error& e) {
      throw std::runtime_error(std::string("FONTRIX_DISABLE: ") + e.what());
    }
  }
  for (const auto& [key, on] : overrides) switches[key] = on;
  return switches;
}

}  // namespace fontrix::host
