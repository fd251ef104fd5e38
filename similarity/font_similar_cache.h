#pragma once
// The similarity cache: the process-wide owner of the similarity table, loaded by the init
// task, brought up to date with the installed fonts by the update task, appended to its cache
// files when torn down, and read by the similar-font queries.
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "hostglue/font_access.h"
#include "sdk/qv_types.h"
#include "shell/packed_vectors.h"
#include "shell/service_cache.h"
#include "similarity/known_faces.h"
#include "similarity/known_families.h"
#include "similarity/similarity_table.h"

namespace fontrix {

/// The six files of the similarity service.
struct SimilarityPaths {
  std::string model, computedFeature, computedMeta, cachedFeature, cachedMeta, debugInfo;
  /// The faces and families known without being installed (known_faces.h, known_families.h);
  /// "" or missing: none.
  std::string knownFaces, knownVectors, knownFamilies;
};

/// Computes the six paths through the host's folders (main thread) and logs them; done once.
const SimilarityPaths& ResolveSimilarityPaths();
/// Replaces the paths (tests; a host with other folders).
void SetSimilarityPaths(const SimilarityPaths& paths);

/// One candidate of a ranking.
struct RankedRecord {
  float score = 0;
  int32_t fontIndex = -1;    ///< the installed font matched to the entry, or -1
  std::string fontServerId;  ///< field 1, when fontIndex is -1
  std::string name;          ///< field 4, when fontIndex is -1
  uint32_t status = 0;
};

/// A face of the shipped pair, and whether the last matching pass found it installed.
struct ShippedFace {
  std::string name, family, style;
  bool installed = false;
};

class FontSimilarCache : public ServiceCache<FontSimilarCache, hostglue::FontAccessSlot> {
 public:
  static constexpr size_t kMaxSimilarFonts = 80;
  static constexpr size_t kMaxFontSetSize = 5;

  /// Saves the pending entries and releases the instance.
  static void Terminate();
  /// Creates the instance and loads the files of ResolveSimilarityPaths() (init task).
  static void Init();

  /// Loads the shipped pair, the cache pair (cut back first when a save was torn) and the
  /// model, when nothing is loaded yet and the model exists; the table's load result.
  int Load(const SimilarityPaths& paths);
  /// Brings the table up to date with `fonts`, the font list of generation `fontServerId`: fonts
  /// matched by identifier or name keep their entry, the others are drawn and computed. Does
  /// nothing for a lower identifier. True when a font was stored or found unusable.
  bool Update(const std::vector<QVFontHandle>& fonts, uint32_t fontServerId);
  /// Appends the entries computed since the last save to the cache files.
  void SaveCache();
  /// The installed fonts whose specimens could not be drawn or drew nothing, by unique name.
  std::vector<std::string> UnusableFonts();
  void LogFontCounts();

  /// Scores every entry by dot product with the query vector, best first. `queryEntry` (a
  /// valid table index) supplies the vector and is left out; otherwise `queryVector` is used.
  std::vector<RankedRecord> RankByVector(int64_t queryEntry, const std::vector<float>& queryVector);
  /// The installed fonts most like installed font `fontName`, best first, at most 80; a font
  /// without a usable entry gets the single answer (its name, 1.0).
  std::vector<std::pair<std::string, double>> GetSimilarFonts(const std::string& fontName);
  std::vector<std::string> GetSimilarFontNames(const std::string& fontName);
  /// The usable faces of the shipped pair, in table order.
  std::vector<ShippedFace> ShippedFaces();
  /// The installed fonts most like the shipped face `name` (exact), best first, at most 80; the
  /// face's own installed font is left out. Nothing when no usable shipped face has that name.
  std::optional<std::vector<std::pair<std::string, double>>> GetSimilarToShippedFace(const std::string& name);
  /// `visit(face, installed)` for every known face, in the data's order.
  void VisitKnownFaces(const std::function<void(const KnownFace&, bool)>& visit);
  /// The installed fonts most like the known faces `names` (best first: their vectors weighted
  /// 1, 1/2, 1/3 ...), best first, at most 80, the faces themselves left out. Nothing when none
  /// of the names is a known face with a vector.
  std::optional<std::vector<std::pair<std::string, double>>> GetSimilarToKnownFaces(
      const std::vector<std::string>& names);
  /// The well-known family that is not open named `name` (or an alias), when the table has it.
  std::optional<KnownFamily> FindKnownFamily(const std::string& name);
  /// Ranks by the weighted sum of the vectors of up to five installed fonts (by their index in
  /// the last matching pass) that have entries; cloud fonts included.
  std::vector<RankedRecord> GetSimilarToFontSet(const std::vector<int32_t>& fontIndices,
                                                const std::vector<float>& weights);

  /// Installed-font names of the last matching pass, in font-list order.
  std::vector<std::string> InstalledFonts();
  /// Entries in the table.
  size_t Size();
  /// The vectors of the fonts or faces named `names`, one row of kFeatureDim floats each, in that
  /// order: each name's first usable entry (a shipped face's before a cached one). `found[i]`
  /// tells whether name i has one; its row is zeros when not.
  std::vector<float> VectorsByName(const std::vector<std::string>& names, std::vector<bool>& found);
  /// The same vectors without a copy: `visit(i, vector)` for each name i that has one, in order,
  /// under the cache's lock (`visit` must not call the cache).
  void VisitVectorsByName(const std::vector<std::string>& names,
                          const std::function<void(size_t, const float*)>& visit);
  /// A copy of one entry's vector and status (tests, diagnostics).
  std::pair<std::vector<float>, uint32_t> Entry(size_t index);

 private:
  struct Scored {
    float score;
    uint32_t entry;
    int32_t fontIndex;
  };
  int LoadLocked(const SimilarityPaths& paths);  // with the update mutex held
  // Ranking and turning its results into records, with the cache mutex held.
  std::vector<Scored> RankLocked(int64_t queryEntry, const std::vector<float>& queryVector);
  std::vector<RankedRecord> Records(const std::vector<Scored>& scored);
  void StoreFont(size_t fontIndex, int drawResult, const struct Specimens& specimens);

  std::mutex mutex_;  // guards the table and the maps against the queries
  SimilarityTable table_;
  std::vector<int32_t> entryToFont_, fontToEntry_;
  std::vector<std::string> installedNames_;
  size_t storedThisRun_ = 0;               // entries this instance added
  std::set<std::string> unusableThisRun_;  // fonts that could not be imaged, by name
  // Faces and families known without being installed, read from knownPaths_ at the first
  // question over them, not at load (most processes never ask one); empty when their files are
  // missing or cannot be used (said as a warning).
  SimilarityPaths knownPaths_;
  bool knownRead_ = false;
  std::vector<KnownFace> knownFaces_;
  std::unordered_map<std::string, size_t> knownByName_;
  std::vector<int64_t> knownShippedEntry_;  ///< per known face, its shipped pair's entry, or -1
  PackedVectors knownVectors_;
  std::vector<KnownFamily> knownFamilies_;
  /// Reads them the first time it is called after a load; with mutex_ held.
  void ReadKnownLocked();
  /// Known face `k`'s vector into `out` (kFeatureDim floats); false when it has none.
  bool KnownVectorLocked(size_t k, float* out);
};

}  // namespace fontrix
