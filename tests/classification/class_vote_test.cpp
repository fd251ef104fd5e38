// The class vote: its data file, the vote on a small hand-made table, and the feature suite's
// answers joined with it through the module, with the switch, a damaged file and no similarity.
#include "classification/class_vote.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "classification/class_answers.h"
#include "classification/kept_class_votes.h"
#include "deepnet/model_io.h"
#include "shell/feature_switches.h"
#include "tests/classification/class_head_fixtures.h"
#include "tests/plugin/test_host.h"

namespace fontrix {
namespace {

constexpr uint32_t kScript = 32, kSerif = 64, kSlab = 128, kSans = 16;

std::string Bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string Rules(const std::string& slab = "0.5\t0.8") {
  std::string text;
  for (int c = 0; c < kStyleClassCount; ++c) {
    const std::string label = LabelName(kClassBits[c].attribute);
    text += "rule\t" + label + "\t" +
            (label == "fs_slab_serif" ? slab
             : label == "fs_script"   ? "0\t0.6"
                                      : "0\tinf") +
            "\n";
  }
  return text;
}

ClassVoteTable Parse(const std::string& text) {
  std::istringstream in(text);
  return ParseClassVoteTable(in, "classes.tsv");
}

TEST(ClassVoteFile, ReadsTheHeaderAndEveryFace) {
  const ClassVoteTable t = Parse("# comment\nk\t3\ntemperature\t0.05\n" + Rules() +
                                 "faces\t2\nface\tabcdefg\tSlab-Bold\t128\nface\t1234567\tScript-Regular\t32\n");
  EXPECT_EQ(t.neighbours, 3);
  EXPECT_DOUBLE_EQ(t.temperature, 0.05);
  EXPECT_DOUBLE_EQ(t.rules[7].low, 0.5);
  EXPECT_DOUBLE_EQ(t.rules[7].high, 0.8);
  EXPECT_TRUE(std::isinf(t.rules[0].high));
  ASSERT_EQ(t.faces.size(), 2u);
  EXPECT_EQ(t.faces[1].identifier, "1234567");
  EXPECT_EQ(t.faces[1].name, "Script-Regular");
  EXPECT_EQ(t.faces[1].mask, kScript);
}

// Each damage is refused with a sentence naming what is wrong; the caller then answers the
// linear classes.
TEST(ClassVoteFile, RefusesDamagedFiles) {
  const std::string head = "k\t3\ntemperature\t0.05\n";
  const std::string faces = "faces\t1\nface\tabcdefg\tA\t1\n";
  const std::map<std::string, std::string> damaged = {
      {"no k", "temperature\t0.05\n" + Rules() + faces},
      {"k is not a number", "k\tthree\ntemperature\t0.05\n" + Rules() + faces},
      {"a temperature of 0", "k\t3\ntemperature\t0\n" + Rules() + faces},
      {"a rule missing", head + Rules().substr(Rules().find('\n') + 1) + faces},
      {"a rule for no class", head + Rules() + "rule\tfs_italic\t0\t1\n" + faces},
      {"low above 1", head + Rules("1.5\t2") + faces},
      {"high below low", head + Rules("0.5\t0.2") + faces},
      {"a mask with bits of no class", head + Rules() + "faces\t1\nface\tabcdefg\tA\t256\n"},
      {"a face twice", head + Rules() + "faces\t2\nface\tabcdefg\tA\t1\nface\tbcdefgh\tA\t2\n"},
      {"fewer faces than counted", head + Rules() + "faces\t2\nface\tabcdefg\tA\t1\n"},
      {"a face before the count", head + Rules() + "face\tabcdefg\tA\t1\nfaces\t1\n"},
      {"a face line cut short", head + Rules() + "faces\t1\nface\tabcdefg\tA\n"},
      {"a line of another file", head + Rules() + faces + "0\n0\n1\n"},
  };
  for (const auto& [what, text] : damaged) {
    try {
      Parse(text);
      ADD_FAILURE() << what << ": accepted";
    } catch (const ClassVoteFileError& e) {
      EXPECT_EQ(std::string(e.what()).rfind("classes.tsv: ", 0), 0u) << what << ": " << e.what();
    }
  }
  EXPECT_THROW(ReadClassVoteFile("/nonexistent/similarity_table_classes.tsv"), ClassVoteFileError);
}

// Six faces in a plane of four values: three scripts near (1, 0), a slab serif at (1, 0.2), two
// serifs near (0, 1). Scores are dot products, so a font at (1, 0) has the scripts and the slab
// nearest.
class HandMadeTable : public ::testing::Test {
 protected:
  ClassVote Vote(int k, double temperature, ClassVoteRule slab, ClassVoteRule script = {0, 0.6}) {
    ClassVoteTable t;
    t.neighbours = k;
    t.temperature = temperature;
    for (auto& r : t.rules) r = {0, INFINITY};
    t.rules[5] = script;
    t.rules[7] = slab;
    t.faces = {{"a", "ScriptA", kScript},      {"b", "ScriptB", kScript}, {"c", "ScriptC", kScript},
               {"d", "SlabD", kSlab | kSerif}, {"e", "SerifE", kSerif},   {"f", "SerifF", kSerif}};
    return ClassVote(t);
  }
  std::vector<uint32_t> Masks(const ClassVote& vote, const std::vector<std::string>& names,
                              const std::vector<std::vector<float>>& at, const std::vector<uint32_t>& linear,
                              std::vector<bool> voting = std::vector<bool>(6, true)) {
    std::vector<float> vectors;
    for (const auto& v : at) vectors.insert(vectors.end(), v.begin(), v.end());
    return vote.Masks(names, vectors.data(), linear, voters_.data(), voting, 4);
  }
  const std::vector<float> voters_ = {1, 0,    0, 0, 0.98f, 0.05f, 0, 0, 0.97f, 0.1f,  0, 0,
                                      1, 0.2f, 0, 0, 0,     1,     0, 0, 0.1f,  0.97f, 0, 0};
};

TEST_F(HandMadeTable, AFaceAmongScriptsIsScriptAndTheRuleFollowsTheSupport) {
  const ClassVote vote = Vote(3, 1.0, {0.5, 0.8});
  // Nearest to (1, 0.05): ScriptA, ScriptB, SlabD, so script has two thirds of the weight: above
  // high (0.6) it is set without the linear rows; slab's third is below low and vetoes their slab.
  EXPECT_EQ(Masks(vote, {"New"}, {{1, 0.05f, 0, 0}}, {kSans | kSlab})[0], kSans | kScript);
  // Among the serifs: no script, and the linear rows' classes kept where the rule keeps them.
  EXPECT_EQ(Masks(vote, {"New"}, {{0.05f, 1, 0, 0}}, {kSerif | kSans})[0], kSerif | kSans);
}

TEST_F(HandMadeTable, AFaceNeverVotesForItselfAndUnusableFacesNotAtAll) {
  const ClassVote vote = Vote(1, 0.1, {0, 0.5});
  const std::vector<float> at = {1, 0.2f, 0, 0};  // exactly where SlabD is
  // Another font there gets SlabD's slab serif; SlabD itself is answered by its nearest other face.
  EXPECT_EQ(Masks(vote, {"Other"}, {at}, {0})[0] & kSlab, kSlab);
  EXPECT_EQ(Masks(vote, {"SlabD"}, {at}, {0})[0] & kSlab, 0u);
  // A face without a usable vector takes no part.
  std::vector<bool> voting(6, true);
  voting[3] = false;
  EXPECT_EQ(Masks(vote, {"Other"}, {at}, {0}, voting)[0] & kSlab, 0u);
  // Nobody left to vote: the linear classes stand where low is 0.
  EXPECT_EQ(Masks(vote, {"Other"}, {at}, {kSerif}, std::vector<bool>(6, false))[0], kSerif);
}

// More fonts than one product's block: every font gets the answer it gets alone.
TEST_F(HandMadeTable, ManyFontsAnswerAsEachAlone) {
  const ClassVote vote = Vote(3, 0.05, {0.2, 0.6});
  std::vector<std::string> names;
  std::vector<std::vector<float>> at;
  std::vector<uint32_t> linear;
  for (int i = 0; i < 600; ++i) {
    const float a = float(i) / 600.0f * 1.5708f;
    names.push_back(i == 7 ? "SlabD" : "Font" + std::to_string(i));
    at.push_back({std::cos(a), std::sin(a), 0, 0});
    linear.push_back(i % 3 ? kSlab : kSans);
  }
  const std::vector<uint32_t> together = Masks(vote, names, at, linear);
  std::set<uint32_t> seen;
  for (size_t i = 0; i < names.size(); i += 37) {
    EXPECT_EQ(together[i], Masks(vote, {names[i]}, {at[i]}, {linear[i]})[0]) << names[i];
    seen.insert(together[i]);
  }
  EXPECT_GT(seen.size(), 2u);  // the fonts do not all get one answer
}

// Through the module: a shipped table of 1,864 faces made here, fonts named like some of them,
// their linear classes given, and the feature suite's answers.
class ClassAnswersTest : public testing::HostTest {
 protected:
  static constexpr int kFaces = kShippedFontCount;

  void SetUp() override {
    HostTest::SetUp();
    const auto data = dir_ / "data";
    std::filesystem::copy_file("data/NQ_sim_model.dnm", data / "NQ_sim_model.dnm");
    // Face i points along axis i % 96 (both halves), so faces 0, 96, 192 ... are alike. Faces on
    // axis 0 are script, on axis 1 slab serif, the rest sans serif.
    std::ofstream meta(data / "NQ_sim_meta_fs.bin", std::ios::binary),
        fea(data / "NQ_sim_fea_fs.bin", std::ios::binary);
    std::ofstream classes(data / kClassVoteFileName, std::ios::binary);
    classes << "k\t5\ntemperature\t0.1\n" << Rules("0.5\t0.8") << "faces\t" << kFaces << "\n";
    for (int i = 0; i < kFaces; ++i) {
      const std::string name = "Face" + std::to_string(i);
      meta << "lib" << 1000 + i << "\n0\n1\n" << name << "\nFamily" << i << "\nRegular\n";
      std::vector<float> v(768, 0.0f);
      v[size_t(i % 96)] = v[384 + size_t(i % 96)] = 1.0f;
      fea.write(reinterpret_cast<const char*>(v.data()), std::streamsize(v.size() * sizeof(float)));
      classes << "face\tlib" << 1000 + i << "\t" << name << "\t"
              << (i % 96 == 0   ? kScript
                  : i % 96 == 1 ? kSlab
                                : kSans)
              << "\n";
    }
    // Installed: a face on the script axis classed sans by the rows, one on the slab axis classed
    // slab, one on a sans axis classed slab, and a font without a vector.
    linear_ = {{"Face96", kSans}, {"Face97", kSlab | kSerif}, {"Face98", kSlab | kSans}, {"Alpha-Regular", kSerif}};
    fonts_->fonts.clear();
    for (const auto& [name, mask] : linear_) fonts_->fonts.push_back(testing::Font(name));
    FontFeatureCache::SetClassifier([this](hostglue::FontAccess& access, QVFontHandle font) -> int64_t {
      hostglue::FontNames n;
      return access.Names(font, n) ? int64_t(linear_.at(n.uniqueName)) : -1;
    });
  }
  void TearDown() override {
    FontFeatureCache::SetClassifier(nullptr);
    HostTest::TearDown();
  }

  std::map<std::string, uint32_t> Answers() {
    const auto* feature = static_cast<const FontrixFeatureSuite*>(host_->AcquireSuite(kFontrixFeatureSuite, 1));
    std::map<std::string, uint32_t> masks;
    for (const auto& [name, mask] : linear_) masks[name] = 0;
    for (int32_t c = 0; c < kStyleClassCount; ++c) {
      std::vector<std::string> names;
      FontrixFontList list{&names, nullptr, [](void* n, const FontrixFontResult* f) {
                             static_cast<std::vector<std::string>*>(n)->push_back(f->name);
                           }};
      EXPECT_EQ(feature->GetFontsWithLabel(&c, &list), kQVNoErr);
      for (const auto& n : names) masks[n] |= 1u << c;
    }
    host_->ReleaseSuite(kFontrixFeatureSuite, 1);
    return masks;
  }
  std::string ClassificationReport() {
    const auto* progress = static_cast<const FontrixProgressSuite*>(
        host_->AcquireSuite(kFontrixProgressSuite, kFontrixProgressSuiteVersion));
    int32_t severity = 0;
    char text[1024] = "";
    EXPECT_EQ(progress->GetServiceReport(kFontrixServiceClassification, &severity, text, sizeof text), kQVNoErr);
    host_->ReleaseSuite(kFontrixProgressSuite, kFontrixProgressSuiteVersion);
    return severity == kFontrixReportNothing ? "" : text;
  }
  void Restart(std::map<std::string, bool> switches) {
    ASSERT_EQ(host_->ApplicationShutdown(), kQVNoErr);
    host_.reset();
    TerminateCaches();
    Fontrix::ResetForTesting();
    Started(std::move(switches));
  }

  std::string VotesPath() const { return (dir_ / "cache" / kKeptClassVotesFileName).string(); }
  /// The kept votes by name, for whatever inputs the file says it was written for.
  std::map<std::string, KeptClassVote> KeptVotes(uint64_t* identity = nullptr) {
    const uint64_t written = ReadKeptClassVotes(VotesPath(), 0).identity;
    const KeptClassVotes file = ReadKeptClassVotes(VotesPath(), written);
    EXPECT_EQ(file.source, KeptClassVotes::kFile);
    if (identity) *identity = written;
    std::map<std::string, KeptClassVote> votes;
    for (const KeptClassVote& v : file.votes) votes[v.name] = v;
    return votes;
  }
  /// The kept votes with a class no font here has put in each joined mask: an answer with it
  /// was taken from the file.
  static std::vector<KeptClassVote> Marked(const std::map<std::string, KeptClassVote>& votes) {
    std::vector<KeptClassVote> marked;
    for (auto [name, vote] : votes) {
      vote.joined |= kMark;
      marked.push_back(vote);
    }
    return marked;
  }
  static constexpr uint32_t kMark = 1;  // blackletter

  const std::map<std::string, bool> switches_ = {{"TextDebug/FontRecognition", false}};
  std::map<std::string, uint32_t> linear_;
};

TEST_F(ClassAnswersTest, TheSuiteAnswersTheJoinedClassesAndTheCacheKeepsTheLinearOnes) {
  Started({{"TextDebug/FontRecognition", false}});
  const std::map<std::string, uint32_t> joined = Answers();
  EXPECT_EQ(joined.at("Face96"), kSans | kScript);  // its look-alikes are script
  EXPECT_EQ(joined.at("Face97"), kSlab | kSerif);   // the look-alikes back the rows' slab serif
  EXPECT_EQ(joined.at("Face98"), kSans);            // slab serif vetoed: no look-alike has it
  EXPECT_EQ(joined.at("Alpha-Regular"), kSerif);    // no vector: the rows' classes
  EXPECT_EQ(ClassificationReport(), "");
  // The feature cache (and its file) keep the rows' classes.
  auto cache = FontFeatureCache::Instance();
  ASSERT_TRUE(cache);
  EXPECT_EQ(cache->Mask("Face96"), int64_t(kSans));
  EXPECT_EQ(cache->Mask("Face98"), int64_t(kSlab | kSans));

  // A font installed later is answered with joined classes too: what was worked out before the
  // caches changed is not kept.
  linear_["Face192"] = kSerif;
  fonts_->fonts.push_back(testing::Font("Face192"));
  ASSERT_EQ(host_->FontListChanged(), kQVNoErr);
  ASSERT_TRUE(WaitIdle());
  EXPECT_EQ(Answers().at("Face192"), kSerif | kScript);

  Restart({{"TextDebug/FontRecognition", false}, {"Text/FontClassVote", false}});
  for (const auto& [name, mask] : linear_) EXPECT_EQ(Answers().at(name), mask) << name;
}

// A damaged, missing or unreadable file is said as the classification service's warning: the
// classes change without it.
TEST_F(ClassAnswersTest, ADamagedOrMissingFileGivesTheLinearClasses) {
  const auto path = dir_ / "data" / kClassVoteFileName;
  std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);  // cut short mid-face
  Started({{"TextDebug/FontRecognition", false}});
  for (const auto& [name, mask] : linear_) EXPECT_EQ(Answers().at(name), mask) << name;
  EXPECT_NE(ClassificationReport().find(kClassVoteFileName), std::string::npos) << ClassificationReport();

  std::filesystem::remove(path);
  Restart({{"TextDebug/FontRecognition", false}});
  for (const auto& [name, mask] : linear_) EXPECT_EQ(Answers().at(name), mask) << name;
  EXPECT_NE(ClassificationReport().find(path.string() + " is missing"), std::string::npos) << ClassificationReport();

  std::filesystem::create_directory(path);  // reading a folder fails inside the stream library
  Restart({{"TextDebug/FontRecognition", false}});
  for (const auto& [name, mask] : linear_) EXPECT_EQ(Answers().at(name), mask) << name;
  EXPECT_NE(ClassificationReport().find("is a folder"), std::string::npos) << ClassificationReport();
}

// The joined classes are kept in the cache folder at shut-down: the next process answers the same
// from them, votes again only on a font whose linear classes or vector changed, and drops fonts
// it was not asked about. Switched off, the vote leaves the file alone.
TEST_F(ClassAnswersTest, KeptVotesAnswerAsAFreshVoteAndOnlyChangedFontsAreVotedAgain) {
  Started(switches_);
  const std::map<std::string, uint32_t> fresh = Answers();
  EXPECT_FALSE(std::filesystem::exists(VotesPath()));  // written at shut-down
  Restart(switches_);
  uint64_t identity = 0;
  const std::map<std::string, KeptClassVote> kept = KeptVotes(&identity);
  ASSERT_EQ(kept.size(), 3u);  // the fonts with a vector
  for (const auto& [name, vote] : kept) {
    EXPECT_EQ(vote.linear, linear_.at(name)) << name;
    EXPECT_EQ(vote.joined, fresh.at(name)) << name;
  }
  EXPECT_EQ(Answers(), fresh);

  std::vector<KeptClassVote> marked = Marked(kept);
  for (KeptClassVote& vote : marked) {
    if (vote.name == "Face97") vote.linear ^= kSans;  // the rows classed it otherwise then
    if (vote.name == "Face98") vote.vector ^= 1;      // its vector was another
  }
  Restart(switches_);
  WriteKeptClassVotes(VotesPath(), identity, marked);
  std::map<std::string, uint32_t> answers = Answers();
  EXPECT_EQ(answers.at("Face96"), fresh.at("Face96") | kMark);
  EXPECT_EQ(answers.at("Face97"), fresh.at("Face97"));
  EXPECT_EQ(answers.at("Face98"), fresh.at("Face98"));
  EXPECT_EQ(answers.at("Alpha-Regular"), fresh.at("Alpha-Regular"));
  Restart(switches_);
  std::map<std::string, KeptClassVote> now = KeptVotes();
  EXPECT_EQ(now.at("Face96").joined, fresh.at("Face96") | kMark);
  EXPECT_EQ(now.at("Face97"), kept.at("Face97"));
  EXPECT_EQ(now.at("Face98"), kept.at("Face98"));

  // Switched off, the vote or the similarity it needs: the linear classes, the file as it was.
  const std::string before = Bytes(VotesPath());
  for (const char* off : {kClassVoteSwitch, kSimilaritySwitch}) {
    std::map<std::string, bool> switches = switches_;
    switches[off] = false;
    Restart(switches);
    for (const auto& [name, mask] : linear_) EXPECT_EQ(Answers().at(name), mask) << off << ": " << name;
  }
  Restart(switches_);
  EXPECT_EQ(Bytes(VotesPath()), before);
  EXPECT_EQ(KeptVotes().size(), 3u);

  // A font the classification cache no longer holds (made again without it) leaves the file.
  auto& fonts = fonts_->fonts;
  fonts.erase(
      std::remove_if(fonts.begin(), fonts.end(), [](const host::HostFont& f) { return f.unique_name == "Face98"; }),
      fonts.end());
  linear_.erase("Face98");
  std::filesystem::remove(FontFeatureCache::CacheFilePath());
  Restart(switches_);
  answers = Answers();
  EXPECT_EQ(answers.at("Face96"), fresh.at("Face96") | kMark);  // still as kept
  Restart(switches_);
  now = KeptVotes();
  EXPECT_EQ(now.size(), 2u);
  EXPECT_EQ(now.count("Face98"), 0u);
}

// A file that is not whole, not ours or kept for other inputs gives nothing: every font is voted
// on again and the file written anew. A folder in its place costs the time only.
TEST_F(ClassAnswersTest, ADamagedOrForeignVotesFileIsIgnoredAndWrittenAgain) {
  Started(switches_);
  const std::map<std::string, uint32_t> fresh = Answers();
  Restart(switches_);
  uint64_t identity = 0;
  const std::map<std::string, KeptClassVote> kept = KeptVotes(&identity);
  const std::string good = KeptClassVotesBytes(identity, Marked(kept));
  std::string unlike = good;
  unlike[unlike.size() - 12] ^= 1;  // the last record's joined mask, after its sum was taken
  const std::map<std::string, std::string> damaged = {
      {"cut short", good.substr(0, good.size() - 3)},
      {"not ours", "[{\"name\": \"Face96\", \"featureValue\": 1}]"},
      {"a record unlike its sum", unlike},
      {"kept for other inputs", KeptClassVotesBytes(identity + 1, Marked(kept))},
      {"empty", ""},
  };
  for (const auto& [what, bytes] : damaged) {
    Restart(switches_);
    std::ofstream(VotesPath(), std::ios::binary | std::ios::trunc) << bytes;
    EXPECT_EQ(Answers(), fresh) << what;
    Restart(switches_);
    const std::map<std::string, KeptClassVote> again = KeptVotes();
    EXPECT_EQ(again, kept) << what;
  }

  std::filesystem::remove(VotesPath());
  std::filesystem::create_directory(VotesPath());
  Restart(switches_);
  EXPECT_EQ(Answers(), fresh);
  Restart(switches_);
  EXPECT_TRUE(std::filesystem::is_directory(VotesPath()));
  EXPECT_FALSE(std::filesystem::exists(VotesPath() + ".tmp"));
  EXPECT_EQ(Answers(), fresh);
}

// A class head over the 768-value vectors that calls a font slab serif when its vector lies on
// axis 2 (one of the sans serif axes) and nothing else.
void WriteSlabHead(const std::filesystem::path& path) {
  std::vector<float> hidden(768, 0.0f);
  hidden[2] = 1;
  deepnet::deepnet_save_model(path.string(), testing::HeadNetwork(768, hidden, {0}, {0, 0, 0, 0, 0, 0, 0, 20},
                                                                  {-9, -9, -9, -9, -9, -9, -9, -5}));
}

// The head's answers join by the head rules when its file and rules are there; switched off, or
// without its file (a warning), the rows and the vote answer as before.
TEST_F(ClassAnswersTest, TheClassHeadJoinsByItsRulesAndIsLeftOutWithoutItsFile) {
  const auto path = dir_ / "data" / kClassVoteFileName;
  std::string text = Bytes(path.string());
  std::string rules;
  for (int c = 0; c < kStyleClassCount; ++c) {
    const std::string label = LabelName(kClassBits[c].attribute);
    rules += "head_rule\t" + label + "\t" +
             (label == "fs_slab_serif" ? "0.2\t0.5\t1"
              : label == "fs_script"   ? "0\t0.6\t0"
                                       : "0\tinf\t0") +
             "\n";
  }
  text.insert(text.find("faces\t"), rules);
  std::ofstream(path, std::ios::binary) << text;
  WriteSlabHead(dir_ / "data" / kClassHeadFileName);

  Started(switches_);
  std::map<std::string, uint32_t> joined = Answers();
  EXPECT_EQ(joined.at("Face96"), kSans | kScript);  // the vote's part stays
  EXPECT_EQ(joined.at("Face97"), kSerif) << "the head vetoes slab serif: its vector is not on axis 2";
  EXPECT_EQ(joined.at("Face98"), kSlab | kSans) << "the head backs the rows' slab serif the vote vetoed";
  EXPECT_EQ(joined.at("Alpha-Regular"), kSerif);
  EXPECT_EQ(ClassificationReport(), "");

  Restart({{"TextDebug/FontRecognition", false}, {"Text/FontClassHead", false}});
  EXPECT_EQ(Answers().at("Face97"), kSlab | kSerif);
  EXPECT_EQ(Answers().at("Face98"), kSans);

  std::filesystem::remove(dir_ / "data" / kClassHeadFileName);
  Restart(switches_);
  EXPECT_EQ(Answers().at("Face97"), kSlab | kSerif);
  EXPECT_EQ(Answers().at("Face98"), kSans);
  EXPECT_NE(ClassificationReport().find(kClassHeadFileName), std::string::npos) << ClassificationReport();
}

}  // namespace
}  // namespace fontrix
