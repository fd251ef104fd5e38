#pragma once
// The reference host of the Fontrix module: it loads the module, implements every suite of
// sdk/qv_host_suites.h and sdk/qv_font_suites.h over the machine's fonts (fontconfig and
// FreeType) with the font engine of sdk/qv_font_engine.h (FreeType and HarfBuzz, host/engine.h),
// and runs the main-thread loop that delivers notifications and timer messages.
//
// The C suite functions reach the host through a static pointer, so at most one Host is alive
// at a time. The module calls `main` on the thread that calls the Host's methods (the main
// thread); the font, memory, alert and log suites may also be called from the module's worker
// threads.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "sdk/qv_plugin.h"

namespace fontrix::host {

/// One installed font face as the host lists it.
struct HostFont {
  std::string unique_name, family, style, file;
  int face_index = 0;  ///< FreeType's face index: (named instance << 16) | index in the file
  bool bitmap_only = false, symbol = false;
  int usable = -1;  ///< has a usable outline program: 1 yes, 0 no, -1 not known yet (asked of FreeType)
  int weight = 80, width = 100,
      slant = 0;               ///< fontconfig's values (regular 80, bold 200; normal width 100; italic 100)
  uint64_t outline_print = 0;  ///< digest of the advances of a-z, A-Z, 0-9: equal for one face in two files; 0 unknown
  /// The advances of a-z, A-Z, 0-9 at 1000 units to the em (-1: no glyph); empty when unknown.
  /// One face in two files has them within a unit or two: the files' rounding differs.
  std::vector<int16_t> advances{};
  int glyphs = 0;              ///< glyphs in the face: of two copies of one face, the fuller file is the one used
  std::string duplicate_of{};  ///< file of the copy of this face used under its name; empty if none
};

/// Where the host's font list comes from.
class FontSource {
 public:
  virtual ~FontSource() = default;
  /// Every face, in the order the host lists them. May throw std::runtime_error. The host's
  /// first call comes from a thread of its own, started by its constructor.
  virtual std::vector<HostFont> List() = 0;
  /// True when a List() now would give what the last one gave (a source that cannot tell says
  /// false): the host then has no change to tell the module.
  virtual bool Unchanged() { return false; }
  /// Of the faces the running List() must open (new or changed files), how many it has opened
  /// and how many there are; {0, 0} when it opens none or cannot tell. Any thread may ask.
  virtual std::pair<uint64_t, uint64_t> Reading() const { return {0, 0}; }
};

/// The installed system and user fonts: every face fontconfig lists and FreeType opens, sorted
/// by format, file and face index. Faces FreeType cannot open are left out, and so is
/// fontconfig's pattern of a whole variable font with named instances (it lists each instance
/// as a face of its own; the default face, index 0, stands for the named instance at the
/// default coordinates and takes its names). A face without a PostScript name gets "Family-Style" with the spaces
/// removed. Names are then made unique as NameFaces (host/font_names.h) says: OpenType and TrueType files come first,
/// so of one face in several formats the OpenType copy is the one used. Faces read once are remembered in memory by
/// file, modification time and size, so a second List() only opens new or changed files. With `listing` (a file path),
/// what was read of each face is kept there too, so a new process opens only faces whose file is new or changed (by
/// modification time and size).
std::unique_ptr<FontSource> MakeFontconfigSource(const std::string& listing = "");

/// A fixed list of fonts, for tests.
class MemoryFontSource : public FontSource {
 public:
  std::vector<HostFont> fonts;
  std::vector<HostFont> List() override { return fonts; }
};

/// Feature switch keys the host knows.
inline constexpr const char* kSwitchClassification = "Text/FontClassification";
inline constexpr const char* kSwitchSimilarity = "Text/FontSimilarity";
inline constexpr const char* kSwitchRecognition = "TextDebug/FontRecognition";
inline constexpr const char* kSwitchDumpDebugInfo = "TextDebug/DumpDebugInfo";
/// The style classes joined with the vote of look-alike faces (on unless "class-vote" is disabled).
inline constexpr const char* kSwitchClassVote = "Text/FontClassVote";
/// The style classes joined with the class head's reading of the similarity vectors (on unless
/// "class-head" is disabled).
inline constexpr const char* kSwitchClassHead = "Text/FontClassHead";
/// Recognition reads only the largest line of a picture of several (fontrix recognize --largest-line).
inline constexpr const char* kSwitchRecognitionLargestLine = "Text/FontRecognitionLargestLine";
/// Recognition also compares pictures with a line drawn in each installed font (on unless
/// "installed-lines" is disabled).
inline constexpr const char* kSwitchRecognitionInstalledLines = "Text/FontRecognitionInstalledLines";
inline constexpr const char* kSwitchRecognitionWidthCuts = "Text/FontRecognitionWidthCuts";

/// The feature switches of a comma-separated list of services ("classification", "similarity",
/// "recognition", "class-vote" for the vote the style classes are joined with, "class-head" for
/// the class head), as --disable and FONTRIX_DISABLE give them. Throws std::runtime_error naming an unknown service.
std::vector<std::string> ServiceSwitches(const std::string& services);

/// The folder of the running program ("" when unknown).
std::string ExecutableDir();

/// A result code as people read it: its four characters in quotes ('UIN?') when they are
/// printable, else the number.
std::string ErrorText(QVErr err);

struct HostOptions {
  std::string data_dir, cache_dir;       ///< empty: $FONTRIX_DATA_DIR / $FONTRIX_CACHE_DIR, then the defaults
  std::map<std::string, bool> switches;  ///< overrides of the feature switches (win over FONTRIX_DISABLE)
  std::shared_ptr<FontSource> fonts;     ///< null: fontconfig
  std::function<double()> clock;         ///< seconds; null: the real clock. Also drives timer periods.
};

/// The host process around one module. Timer periods are in milliseconds.
class Host {
 public:
  /// Builds the font list. Throws std::runtime_error when the fonts cannot be listed or
  /// FONTRIX_DISABLE names an unknown service, std::logic_error when another Host is alive.
  explicit Host(HostOptions options);
  /// Shuts a started module down, then unloads it unless it holds an access handle.
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  /// dlopen + dlsym("main"); throws std::runtime_error with one sentence naming the path. When
  /// the module file or a file of the data folder changed since the caches were made, removes
  /// the module's caches (see ForgetCachesOfOtherModules).
  void LoadModule(const std::string& path);
  /// Uses an entry point linked into this process instead of a loaded module.
  void UseModuleEntry(QVPluginMainProc entry);

  /// Removes the module's cache files from the cache folder unless "module_stamp.txt" there
  /// records this module file and data folder (size and time of each file); then records them.
  void ForgetCachesOfOtherModules(const std::string& module);

  QVErr Startup();              ///< "KP Interface"/"Startup"; a failure forgets what the module registered
  QVErr ApplicationStarted();   ///< delivers "QV Application Started Notifier" now
  QVErr FontListChanged();      ///< rebuilds the font list, then delivers "QV Font List Changed Notifier" now
  QVErr ApplicationShutdown();  ///< delivers "QV Application Shutdown Notifier" now
  QVErr Shutdown();             ///< "KP Interface"/"Shutdown"; forgets the module's notifiers, timers and suites
  /// Any other message, with plain QVMessageData.
  QVErr Send(const char* caller, const char* selector);

  /// One idle tick: delivers the notifications queued before it, then fires the active timers that are due.
  void Idle();
  /// Idle ticks until done() (true) or timeout_seconds of real time have passed (false). Sleeps
  /// ~5 ms after a tick that delivered nothing and whose timers returned within 1 ms.
  bool RunUntil(const std::function<bool()>& done, double timeout_seconds, const std::function<void()>& on_tick = {});

  /// Acquires a suite as a client plug-in would; nullptr when absent.
  const void* AcquireSuite(const char* name, int32_t version);
  void ReleaseSuite(const char* name, int32_t version);

  // What the host holds and has seen, for tests and the command-line tool.
  std::vector<std::string> Alerts() const;
  std::vector<std::string> DeliveredNotifications() const;  ///< types, one per message, in order
  int AccessCount() const;
  int ContextDepth() const;
  bool TimerActive(const std::string& name) const;
  std::vector<std::string> RegisteredSuites() const;  ///< names registered through AddSuite
  int SuiteAcquisitions(const std::string& name, int32_t version) const;
  size_t LiveBlocks() const;  ///< blocks and MdMemory allocations not yet freed
  void* Globals() const;
  std::string PluginName() const;
  const std::vector<HostFont>& Fonts() const;
  /// Whether the first listing, which runs from the host's construction on a thread of its own,
  /// has ended, waiting up to `seconds` for it; Reading() of the source while it runs.
  bool FontsListed(double seconds = 0) const;
  std::pair<uint64_t, uint64_t> ListingProgress() const;
  uint32_t FontListGeneration() const;       ///< 1 after construction, +1 per FontListChanged
  std::string FolderPath(int32_t id) const;  ///< "" for an unknown id; creates nothing

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace fontrix::host
