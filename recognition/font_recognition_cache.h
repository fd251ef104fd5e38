#pragma once
// The recognition cache: the recognition network, the optional localisation network, the font
// table that names the network's classes, and the query from a raster of one line of text.
#include <array>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "deepnet/layer_model.h"
#include "hostglue/font_access.h"
#include "recognition/answer_confidence.h"
#include "recognition/installed_lines.h"
#include "recognition/line_scoring.h"
#include "recognition/text_lines.h"
#include "sdk/qv_types.h"
#include "shell/packed_vectors.h"
#include "shell/service_cache.h"

namespace fontrix {

struct RecognitionPaths {
  std::string model, fontTable, localisationModel;
  std::string installedLines;          // in the user's cache folder; "" keeps no lines
  std::string confidence;              // the answers' confidence model; "" or missing: none
  std::string knownFaces, knownLines;  // faces known without being installed; "" or missing: none
};
/// The files in the host's read-only data folder and the user's cache folder, resolved once
/// (main thread) and logged.
const RecognitionPaths& ResolveRecognitionPaths();
void SetRecognitionPaths(const RecognitionPaths& paths);

class FontRecognitionCache : public ServiceCache<FontRecognitionCache, hostglue::FontAccessSlot> {
 public:
  static constexpr size_t kMaxResults = 40;
  static constexpr size_t kSteeringCandidates = 10;
  /// Of a picture of several lines, the most that are read (their scores averaged), unless the
  /// switch "Text/FontRecognitionLargestLine" has only the largest read.
  static constexpr size_t kMostLinesRead = 4;
  /// How much better a picture must match a font's own line than an answer's for a font the
  /// network has no class for to go before that answer.
  static constexpr float kInstalledLinesMargin = 0.01f;
  /// How much better a picture must match a known face's line than an installed answer's for the
  /// known face (not installed) to go before it: kKnownFacesMargin, and kKnownFacesScoreMargin
  /// times the network's score of the answer (0..1), so that an answer the network is sure of
  /// holds its place against the thousands of known faces, near twins of installed ones among them.
  static constexpr float kKnownFacesMargin = 0.01f, kKnownFacesScoreMargin = 0.04f;

  struct Result {
    std::string name;
    double score = 0;
    int32_t fontIndex = -1;
    double likeness = -1;    ///< the picture against the line drawn in the font, 0..1; -1: none
    double confidence = -1;  ///< the chance that the answer is right, 0..1; -1: no model
    double sureAt = -1;      ///< the confidence from which it would be sure, were it first; -1: no model
    bool installed = true;   ///< false: a known face that is not installed (fontIndex -1)
  };
  /// One font-table entry considered by recognition.
  struct Candidate {
    float score = 0;
    int32_t fontIndex = -1, tableIndex = -1;
    std::string fontServerId, name;
    uint32_t status = 0;
  };

  /// Creates the instance and loads the files of ResolveRecognitionPaths() (init task).
  static void Init();

  /// Loads the networks and the font table; false when the recognition network or the table is
  /// missing or cannot be used, or the table's font count is not the number of classes the
  /// network scores (the cache then answers nothing and reports why).
  bool Load(const RecognitionPaths& paths);
  /// Matches the font table's entries to the installed fonts of `fonts` by unique name and, when
  /// the switch "Text/FontRecognitionInstalledLines" is on, reads the line of every installed
  /// font not kept yet (saved in the user's cache folder). True when lines were read.
  bool Update(const std::vector<QVFontHandle>& fonts, uint32_t fontServerId);
  /// The installed fonts in which no line could be drawn and read, by unique name (none while
  /// the installed lines are off).
  std::vector<std::string> UnusableFonts();

  /// The installed fonts most likely shown in `height` rows of `width` grey bytes, best first,
  /// at most 40: the network's best classes steer a weighted similar-font query.
  /// With `withKnown`, the known faces that are not installed (known_faces.h) are merged in by
  /// their lines (while the installed lines are on): each goes before the first answer from which
  /// on the picture matches it better than every answer's line by kKnownFacesMargin.
  std::vector<Result> GetRecognizedFontList(const uint8_t* pixels, int32_t width, int32_t height,
                                            bool withKnown = false);
  /// The same for an image raster of the host.
  std::vector<Result> GetRecognizedFontList(QVRasterHandle image, bool withKnown = false);

  /// The lines of text recognition reads in an image raster of the host, found by their ink;
  /// none when it shows no text.
  std::vector<TextLine> FindText(QVRasterHandle image);

  /// The answer from widened candidates: the installed fonts among them, in order, at most 40.
  /// A face the user has installed is answered whatever its table entry's identifier or status;
  /// a face that is not installed never is.
  std::vector<Result> Answer(const std::vector<Candidate>& widened);

  /// The table's entries ranked by the network's mean probability (before widening).
  std::vector<Candidate> RankClasses(const std::vector<float>& meanProbabilities, bool tableIndexMode);
  /// Widens ranked candidates through the similarity cache's font-set query.
  static std::vector<Candidate> Widen(const std::vector<Candidate>& ranked);

  size_t TableSize();

 private:
  std::shared_mutex lock_;  // queries read, load and update write
  deepnet::layer_model_list recognition_, localisation_;
  std::array<std::vector<std::string>, 6> table_;
  std::vector<uint32_t> status_;
  /// entryToFont_ from the table and installed_, whichever of loading and updating came last.
  /// Caller holds lock_ exclusively.
  void MatchEntries();
  /// Reads the networks and the font table into the members; why they cannot be used, or "".
  std::string LoadData(const RecognitionPaths& paths);
  /// The mean reading of the lines of text found in the picture (its features at unit length);
  /// empty when it shows none that can be read. Caller holds lock_.
  LineReading ReadText(const uint8_t* pixels, int32_t width, int32_t height, size_t mostLines);
  /// Per installed font, the dot product of the picture's reading with its kept line; -1 for a
  /// font without one, or all -1 when the lines are off. Caller holds lock_.
  std::vector<float> LikenessLocked(const std::vector<float>& features) const;
  /// The network's answer with the fonts it has no class for merged in by their likeness.
  /// Caller holds lock_.
  std::vector<Result> MergeLinesLocked(const std::vector<Result>& answer, const std::vector<float>& likeness) const;
  /// The answers' likeness and confidence (`withKnown`: answered over the known faces too). With
  /// `likeness` empty, the answers keep the likeness they have. Caller holds lock_.
  void RateLocked(std::vector<Result>& results, const std::vector<float>& likeness, bool withKnown) const;
  /// Reads, kept or drawn, the line of each of `fonts` (named `names`); saves what was drawn.
  bool IndexInstalledLines(const std::vector<QVFontHandle>& fonts, const std::vector<std::string>& names);
  /// Answer() for a caller that holds lock_.
  std::vector<Result> AnswerLocked(const std::vector<Candidate>& widened) const;
  bool largestLineOnly_ = false;
  std::vector<int32_t> entryToFont_;
  std::vector<std::string> installed_;
  // The installed-lines extension: whether it is on, where the lines are kept, the network they
  // were read with, the lines by font name, and per installed font its line's row in linesByFont_
  // (-1: none) and whether a class names it.
  ConfidenceModel confidence_;
  bool installedLines_ = false;
  std::string linesPath_;
  NetworkPrint networkFingerprint_;
  bool linesOlder_ = false;  // read from a file of the older version: written anew at the next update
  std::vector<InstalledLine> lines_;
  size_t linesFromFile_ = 0;  // the first lines_, read from the file
  std::vector<int32_t> lineOfFont_;
  std::vector<bool> named_;
  /// lineOfFont_ and named_ from installed_, lines_ and entryToFont_. Caller holds lock_ exclusively.
  void MatchLines();

  // Known faces (known_faces.h): their files, their names, their lines (packed, row i for face
  // i), and those that are not installed and have a line, by index. Read at the first question
  // over them, not at load (most processes never ask one), under knownMutex_; empty when the
  // files are missing or cannot be used (said as a warning), or the installed lines are off.
  std::mutex knownMutex_;
  bool knownRead_ = false;
  std::string knownFacesPath_, knownLinesPath_;
  std::vector<std::string> knownNames_;
  PackedVectors knownLines_;
  std::vector<uint32_t> knownAbsent_;
  /// Reads the known faces' files the first time it is called after a load. Caller holds lock_.
  void ReadKnownLocked();
  /// knownAbsent_ from knownNames_, knownLines_ and installed_.
  void MatchKnown();
  /// The answer with the known faces that are not installed merged in. Caller holds lock_.
  /// The answers' likeness is given anew, as the known faces' is (their lines' values' roots).
  std::vector<Result> MergeKnownLocked(std::vector<Result> answer, const std::vector<float>& features) const;
  // Width cuts (letter_proportions.h): whether it is on, the installed fonts' handles (as
  // installed_), and each one's letter proportion once measured (-1: not yet; 0: none).
  bool widthCuts_ = false;
  std::vector<QVFontHandle> handles_;
  mutable std::vector<double> proportionOf_;
  mutable std::mutex proportionMutex_;
  /// Puts a width cut of an answer's family before it where the picture's letter proportion
  /// `seen` is clearly its. Caller holds lock_.
  void OrderWidthCutsLocked(std::vector<Result>& results, double seen) const;
};

}  // namespace fontrix
