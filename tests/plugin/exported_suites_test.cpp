// The suites other plug-ins call: "UIN?" before a cache exists, answers after, and the
// progress suite that tells when the background work is done.
#include "plugin/exported_suites.h"

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/image.h"
#include "tests/plugin/test_host.h"

namespace fontrix {
namespace {

using testing::HostTest;

struct Collected {
  std::vector<std::pair<std::string, double>> fonts;
  int clears = 0;
  FontrixFontList list() {
    return {
        this, [](void* c) { static_cast<Collected*>(c)->clears++; },
        [](void* c, const FontrixFontResult* f) { static_cast<Collected*>(c)->fonts.emplace_back(f->name, f->score); }};
  }
};

TEST_F(HostTest, SuitesAnswerNotInitialisedUntilTheirCacheExists) {
  auto& h = MakeHost({{"Text/FontSimilarity", false}});
  ASSERT_EQ(h.Startup(), kQVNoErr);
  const auto* feature = static_cast<const FontrixFeatureSuite*>(h.AcquireSuite(kFontrixFeatureSuite, 1));
  const auto* similar = static_cast<const FontrixSimilarSuite*>(h.AcquireSuite(kFontrixSimilarSuite, 1));
  const auto* recognition = static_cast<const FontrixRecognitionSuite*>(h.AcquireSuite(kFontrixRecognitionSuite, 1));
  const auto* text = static_cast<const FontrixTextSuite*>(h.AcquireSuite(kFontrixTextSuite, kFontrixTextSuiteVersion));
  ASSERT_TRUE(feature && similar && recognition && text);
  Collected out;
  auto list = out.list();
  FontrixTextLineList lines{nullptr, [](void*, const FontrixTextLine*) {}};
  const int32_t label = 4;
  EXPECT_EQ(feature->GetFontsWithLabel(&label, &list), kQVNotInitialisedErr);
  EXPECT_EQ(similar->GetSimilarFontNames("Alpha-Regular", &list), kQVNotInitialisedErr);
  EXPECT_EQ(recognition->GetRecognizedFonts(reinterpret_cast<QVRasterHandle>(1), &list), kQVNotInitialisedErr);
  EXPECT_EQ(text->FindTextLines(reinterpret_cast<QVRasterHandle>(1), &lines), kQVNotInitialisedErr);
  EXPECT_TRUE(out.fonts.empty());
  EXPECT_EQ(out.clears, 0);  // untouched

  ASSERT_EQ(h.ApplicationStarted(), kQVNoErr);
  ASSERT_TRUE(WaitIdle());
  EXPECT_EQ(feature->GetFontsWithLabel(&label, &list), kQVNoErr);
  EXPECT_EQ(feature->GetFontsWithLabel(nullptr, &list), kQVBadParameterErr);
  EXPECT_EQ(text->FindTextLines(nullptr, &lines), kQVBadParameterErr);
  // Similarity is switched off: its suite stays registered and answers "UIN?" to the end.
  EXPECT_EQ(similar->GetSimilarFontNames("Alpha-Regular", &list), kQVNotInitialisedErr);
  ASSERT_EQ(h.ApplicationShutdown(), kQVNoErr);
  EXPECT_EQ(feature->GetFontsWithLabel(&label, &list), kQVNotInitialisedErr);
  EXPECT_EQ(text->FindTextLines(reinterpret_cast<QVRasterHandle>(1), &lines), kQVNotInitialisedErr);
}

TEST_F(HostTest, SimilarSuiteClearsTheListAndAnswersUnknownFontsWithThemselves) {
  auto& h = Started();
  const auto* similar = static_cast<const FontrixSimilarSuite*>(h.AcquireSuite(kFontrixSimilarSuite, 1));
  Collected out;
  out.fonts = {{"stale", 0.5}};
  auto list = out.list();
  ASSERT_EQ(similar->GetSimilarFontNames("Nobody-Regular", &list), kQVNoErr);
  EXPECT_EQ(out.clears, 1);
  // The collector does not clear itself; what matters is that clear was called first.
  EXPECT_EQ(out.fonts.back(), (std::pair<std::string, double>{"Nobody-Regular", 1.0}));
}

// The table suite stands beside the three font suites: "UIN?" while similarity is off, and
// "not found" for a face the (here empty) shipped table lacks, with the list left alone.
TEST_F(HostTest, TableSuiteAnswersFromTheSimilarityCache) {
  for (const bool similarity : {false, true}) {
    auto& h = Started({{"Text/FontSimilarity", similarity}});
    const auto* table =
        static_cast<const FontrixTableSuite*>(h.AcquireSuite(kFontrixTableSuite, kFontrixTableSuiteVersion));
    ASSERT_TRUE(table);
    std::vector<std::string> faces;
    FontrixTableFontList sink{&faces, [](void* c, const FontrixTableFont* f) {
                                static_cast<std::vector<std::string>*>(c)->push_back(f->name);
                              }};
    Collected out;
    auto list = out.list();
    if (!similarity) {
      EXPECT_EQ(table->GetTableFonts(&sink), kQVNotInitialisedErr);
      EXPECT_EQ(table->GetSimilarToTableFont("Alpha-Regular", &list), kQVNotInitialisedErr);
    } else {
      EXPECT_EQ(table->GetTableFonts(&sink), kQVNoErr);
      EXPECT_EQ(table->GetSimilarToTableFont("Alpha-Regular", &list), kQVNotFoundErr);
      EXPECT_EQ(table->GetSimilarToTableFont(nullptr, &list), kQVBadParameterErr);
      EXPECT_EQ(table->GetTableFonts(nullptr), kQVBadParameterErr);
    }
    EXPECT_TRUE(faces.empty());
    EXPECT_EQ(out.clears, 0);
    h.ReleaseSuite(kFontrixTableSuite, kFontrixTableSuiteVersion);
    ASSERT_EQ(h.ApplicationShutdown(), kQVNoErr);
    host_.reset();
    TerminateCaches();
    Fontrix::ResetForTesting();
  }
}

TEST_F(HostTest, ProgressSuiteReportsServicesAndTheFontList) {
  auto& h = Started({{"TextDebug/FontRecognition", false}});
  const auto* progress =
      static_cast<const FontrixProgressSuite*>(h.AcquireSuite(kFontrixProgressSuite, kFontrixProgressSuiteVersion));
  FontrixServiceProgress p{};
  ASSERT_EQ(progress->GetServiceProgress(kFontrixServiceClassification, &p), kQVNoErr);
  EXPECT_TRUE(p.enabled);
  EXPECT_TRUE(p.idle);
  EXPECT_EQ(p.fontsTotal, 2u);
  EXPECT_EQ(p.fontsDone, 2u);
  ASSERT_EQ(progress->GetServiceProgress(kFontrixServiceRecognition, &p), kQVNoErr);
  EXPECT_FALSE(p.enabled);
  EXPECT_EQ(progress->GetServiceProgress(7, &p), kQVBadParameterErr);
  std::vector<QVFontHandle> fonts;
  FontrixFontHandleList sink{&fonts,
                             [](void* c, QVFontHandle f) { static_cast<std::vector<QVFontHandle>*>(c)->push_back(f); }};
  uint32_t generation = 0;
  ASSERT_EQ(progress->GetFontList(&sink, &generation), kQVNoErr);
  EXPECT_EQ(fonts.size(), 2u);
  EXPECT_EQ(generation, 1u);
  // Fonts a service could not use: none here; a service switched off names none; bad requests
  // are refused.
  std::vector<std::string> unusable;
  FontrixUnusableFontList named{&unusable, [](void* c, const char* name, const char* reason) {
                                  static_cast<std::vector<std::string>*>(c)->push_back(std::string(name) + reason);
                                }};
  for (int32_t service = 0; service < kFontrixServiceCount; ++service)
    EXPECT_EQ(progress->GetUnusableFonts(service, &named), kQVNoErr) << service;
  EXPECT_TRUE(unusable.empty());
  EXPECT_EQ(progress->GetUnusableFonts(kFontrixServiceCount, &named), kQVBadParameterErr);
  EXPECT_EQ(progress->GetUnusableFonts(kFontrixServiceSimilarity, nullptr), kQVBadParameterErr);
}

// The text suite answers as the recognition suite does, name for name and score for score, and
// adds how sure it is: on the machine's fonts with the shipped networks, a sample line of
// Liberation Serif Bold.
TEST_F(HostTest, TextSuiteRecognisesAsTheRecognitionSuiteWithConfidence) {
  for (const char* file : {"NQ_rec_model.dnm", "NQ_rec_font.bin", "NQ_loc_model.dnm", "NQ_sim_model.dnm",
                           "NQ_sim_meta_fs.bin", "NQ_sim_fea_fs.bin", "recognition_confidence.tsv"})
    std::filesystem::copy_file(std::string("data/") + file, dir_ / "data" / file);
  real_fonts_ = true;
  // The paths are worked out once a process: an earlier test of this one may have set others.
  const std::string data = (dir_ / "data").string() + "/", cache = (dir_ / "cache").string() + "/";
  SetSimilarityPaths({data + "NQ_sim_model.dnm", data + "NQ_sim_fea_fs.bin", data + "NQ_sim_meta_fs.bin",
                      cache + "NQ_sim_fea_sys.cch", cache + "NQ_sim_meta_sys.cch", cache + "NQ_sim_debug.txt", "", "",
                      ""});
  SetRecognitionPaths({data + "NQ_rec_model.dnm", data + "NQ_rec_font.bin", data + "NQ_loc_model.dnm",
                       cache + kInstalledLinesFileName, data + kConfidenceFileName, "", ""});
  auto& h = Started({{"Text/FontClassification", false}}, 600.0);
  const auto image = host::LoadImageRaster("data/samples/line-liberation-serif-bold.png");
  const auto* recognition = static_cast<const FontrixRecognitionSuite*>(h.AcquireSuite(kFontrixRecognitionSuite, 1));
  const auto* text = static_cast<const FontrixTextSuite*>(h.AcquireSuite(kFontrixTextSuite, kFontrixTextSuiteVersion));
  ASSERT_TRUE(recognition && text && h.AcquireSuite(kFontrixTextSuite, 1));
  Collected plain;
  auto list = plain.list();
  ASSERT_EQ(recognition->GetRecognizedFonts(image->handle(), &list), kQVNoErr);
  std::vector<std::pair<std::string, FontrixRecognizedFont>> rated;
  FontrixRecognizedFontList ratedList{&rated, [](void* c, const FontrixRecognizedFont* f) {
                                        static_cast<decltype(rated)*>(c)->emplace_back(f->name, *f);
                                      }};
  double sureAt = -2;
  ASSERT_EQ(text->RecognizeFonts(image->handle(), &ratedList, &sureAt), kQVNoErr);
  ASSERT_EQ(rated.size(), plain.fonts.size());
  ASSERT_FALSE(rated.empty());
  for (size_t i = 0; i < rated.size(); ++i) {
    EXPECT_EQ(rated[i].first, plain.fonts[i].first);
    EXPECT_DOUBLE_EQ(rated[i].second.score, plain.fonts[i].second);
    EXPECT_GE(rated[i].second.confidence, 0.0);
    EXPECT_LE(rated[i].second.confidence, 1.0);
  }
  EXPECT_GT(sureAt, 0.0);
  EXPECT_LT(sureAt, 1.0);
  // The first answer is the sample's face or its twin, and the most likely right by far.
  EXPECT_TRUE(rated[0].first == "LiberationSerif-Bold" || rated[0].first == "Tinos-Bold") << rated[0].first;
  for (size_t i = 1; i < rated.size(); ++i) EXPECT_LT(rated[i].second.confidence, rated[0].second.confidence);
  EXPECT_EQ(text->RecognizeFonts(image->handle(), &ratedList, nullptr), kQVBadParameterErr);
}

// The known fonts suite on the shipped data and the machine's fonts: known faces listed with
// whether they are installed, installed fonts most like a face the machine lacks, the well-known
// families, and recognition over the known faces, which keeps the installed answer's order.
TEST_F(HostTest, KnownFontsSuiteAnswersForFontsTheMachineLacks) {
  for (const char* file : {"NQ_rec_model.dnm", "NQ_rec_font.bin", "NQ_loc_model.dnm", "NQ_sim_model.dnm",
                           "NQ_sim_meta_fs.bin", "NQ_sim_fea_fs.bin", "recognition_confidence.tsv", kKnownFacesFileName,
                           kKnownVectorsFileName, kKnownLinesFileName, kKnownFamiliesFileName})
    std::filesystem::copy_file(std::string("data/") + file, dir_ / "data" / file);
  real_fonts_ = true;
  const std::string data = (dir_ / "data").string() + "/", cache = (dir_ / "cache").string() + "/";
  SetSimilarityPaths({data + "NQ_sim_model.dnm", data + "NQ_sim_fea_fs.bin", data + "NQ_sim_meta_fs.bin",
                      cache + "NQ_sim_fea_sys.cch", cache + "NQ_sim_meta_sys.cch", cache + "NQ_sim_debug.txt",
                      data + kKnownFacesFileName, data + kKnownVectorsFileName, data + kKnownFamiliesFileName});
  SetRecognitionPaths({data + "NQ_rec_model.dnm", data + "NQ_rec_font.bin", data + "NQ_loc_model.dnm",
                       cache + kInstalledLinesFileName, data + kConfidenceFileName, data + kKnownFacesFileName,
                       data + kKnownLinesFileName});
  auto& h = Started({{"Text/FontClassification", false}}, 600.0);
  const auto* known = static_cast<const FontrixKnownFontsSuite*>(
      h.AcquireSuite(kFontrixKnownFontsSuite, kFontrixKnownFontsSuiteVersion));
  const auto* text = static_cast<const FontrixTextSuite*>(h.AcquireSuite(kFontrixTextSuite, kFontrixTextSuiteVersion));
  ASSERT_TRUE(known && text);
  const std::vector<std::string> listed = FontSimilarCache::Instance()->InstalledFonts();
  const std::set<std::string> installed(listed.begin(), listed.end());

  std::map<std::string, bool> faces;
  FontrixKnownFaceList facesList{&faces, [](void* c, const FontrixKnownFace* f) {
                                   EXPECT_TRUE(*f->family && *f->source && f->weight >= 1 && f->weight <= 1000);
                                   (*static_cast<std::map<std::string, bool>*>(c))[f->name] = f->installed != 0;
                                 }};
  ASSERT_EQ(known->GetKnownFaces(&facesList), kQVNoErr);
  EXPECT_GT(faces.size(), 7000u);
  for (const auto& [name, isInstalled] : faces) ASSERT_EQ(isInstalled, installed.count(name) > 0) << name;

  // A face the machine lacks: installed fonts only, best first, itself never among them.
  const char* montserrat[] = {"MontserratThin-Regular", "NoSuchFace-Regular"};
  ASSERT_FALSE(faces.at(montserrat[0]));
  Collected like;
  auto likeList = like.list();
  ASSERT_EQ(known->GetSimilarToKnownFaces(montserrat, 2, &likeList), kQVNoErr);
  ASSERT_FALSE(like.fonts.empty());
  for (size_t i = 0; i < like.fonts.size(); ++i) {
    EXPECT_TRUE(installed.count(like.fonts[i].first)) << like.fonts[i].first;
    if (i > 0) {
      EXPECT_LE(like.fonts[i].second, like.fonts[i - 1].second);
    }
  }
  EXPECT_EQ(known->GetSimilarToKnownFaces(montserrat + 1, 1, &likeList), kQVNotFoundErr);
  EXPECT_EQ(known->GetSimilarToKnownFaces(montserrat, 0, &likeList), kQVBadParameterErr);

  // A well-known family by an alias's spelling, and one the table lacks.
  struct Family {
    std::string name, styleClass;
    std::vector<std::string> open, why;
  } family;
  const auto found = [](void* c, const FontrixKnownFamily* f) {
    auto& out = *static_cast<Family*>(c);
    out.name = f->family;
    out.styleClass = f->styleClass;
    for (int32_t i = 0; i < f->openFamilyCount; ++i) {
      out.open.emplace_back(f->openFamilies[i]);
      out.why.emplace_back(f->why[i]);
    }
  };
  ASSERT_EQ(known->GetKnownFamily("helvetica-neue", &family, found), kQVNoErr);
  EXPECT_EQ(family.name, "Helvetica Neue");
  EXPECT_EQ(family.styleClass, "fs_sans_serif");
  ASSERT_FALSE(family.open.empty());
  for (const std::string& why : family.why) EXPECT_TRUE(why == "clone" || why == "revival" || why == "look-alike");
  EXPECT_EQ(known->GetKnownFamily("No Such Family", &family, found), kQVNotFoundErr);

  // Recognition over the known faces: the sample's own face, installed, stays first, and the
  // installed answers come in the text suite's order; the rest are known faces the machine lacks.
  const auto image = host::LoadImageRaster("data/samples/line-liberation-serif-bold.png");
  std::vector<std::pair<std::string, bool>> answers;
  FontrixKnownAnswerList answerList{&answers, [](void* c, const FontrixKnownAnswer* a) {
                                      static_cast<decltype(answers)*>(c)->emplace_back(a->name, a->installed != 0);
                                    }};
  std::vector<std::string> plain;
  FontrixRecognizedFontList plainList{&plain, [](void* c, const FontrixRecognizedFont* f) {
                                        static_cast<std::vector<std::string>*>(c)->push_back(f->name);
                                      }};
  double sureAt = -2;
  ASSERT_EQ(known->RecognizeKnownFonts(image->handle(), &answerList, &sureAt), kQVNoErr);
  ASSERT_EQ(text->RecognizeFonts(image->handle(), &plainList, &sureAt), kQVNoErr);
  ASSERT_FALSE(answers.empty());
  EXPECT_TRUE(answers[0].second);
  EXPECT_EQ(answers[0].first, plain[0]);
  std::vector<std::string> installedAnswers;
  for (const auto& [name, isInstalled] : answers) {
    if (isInstalled) {
      installedAnswers.push_back(name);
    } else {
      EXPECT_FALSE(installed.count(name)) << name;
      EXPECT_TRUE(faces.count(name)) << name;
    }
  }
  EXPECT_EQ(installedAnswers,
            std::vector<std::string>(plain.begin(), plain.begin() + ptrdiff_t(installedAnswers.size())));
  EXPECT_EQ(known->RecognizeKnownFonts(image->handle(), &answerList, nullptr), kQVBadParameterErr);
}

}  // namespace
}  // namespace fontrix
