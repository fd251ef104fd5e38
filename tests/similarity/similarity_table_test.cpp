// The similarity files: the shipped pair's fixed size, status rules, strict reading of torn or
// mismatched files, appends, and the repair of a torn cache tail.
#include "similarity/similarity_table.h"

#include <gtest/gtest.h>

#include <cmath>
#include <iterator>
#include <limits>

#include "tests/similarity/similarity_fixtures.h"

namespace fontrix {
namespace {

namespace fs = std::filesystem;
using testing::AxisVector;
using testing::WritePair;

class SimilarityFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = fs::temp_directory_path() /
          ("fontrix-simfiles-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
    fs::remove_all(dir);
    fs::create_directories(dir);
    deepnet::deepnet_save_model(path("model.dnm"), testing::MakeTestNetwork());
  }
  void TearDown() override { fs::remove_all(dir); }
  std::string path(const char* name) { return (dir / name).string(); }
  void Shipped(
      size_t n, const std::function<std::string(size_t)>& id = [](size_t) { return std::string("abcdefg"); }) {
    WritePair(
        path("fs.meta"), path("fs.fea"), n, id, [](size_t i) { return "Cloud" + std::to_string(i); },
        [](size_t i) { return AxisVector(i); });
  }
  int Load(SimilarityTable& t) {
    return t.Load(path("fs.meta"), path("fs.fea"), path("sys.meta"), path("sys.fea"), path("model.dnm"));
  }
  // Every column, the statuses and the vectors hold one value per entry.
  static void ExpectWhole(const SimilarityTable& t) {
    for (const auto& column : t.columns) EXPECT_EQ(column.size(), t.Size());
    EXPECT_EQ(t.mappedEntries * kFeatureDim + t.features.size(), t.Size() * kFeatureDim);
  }
  fs::path dir;
};

TEST_F(SimilarityFiles, ShippedPairMustHoldExactly1864Fonts) {
  SimilarityTable t;
  Shipped(1863);
  EXPECT_EQ(Load(t), kLoadShippedFailed);
  EXPECT_EQ(t.Size(), 0u);
  ExpectWhole(t);
  // 1,864 groups but a record more: nothing of the pair stays.
  Shipped(1864);
  {
    std::ofstream(path("fs.fea"), std::ios::app | std::ios::binary)
        .write(reinterpret_cast<const char*>(AxisVector(1).data()), kFeatureRecordBytes);
  }
  EXPECT_EQ(Load(t), kLoadShippedFailed);
  EXPECT_EQ(t.Size(), 0u);
  ExpectWhole(t);
  Shipped(1864);
  EXPECT_EQ(Load(t), kLoadOk);  // no cache pair: an empty cache
  EXPECT_EQ(t.Size(), 1864u);
  EXPECT_FALSE(t.network.empty());
  fs::remove(path("model.dnm"));
  EXPECT_EQ(Load(t), kLoadModelMissing);
}

TEST_F(SimilarityFiles, StatusFromIdentifierLengthAndZeroVectors) {
  const std::vector<std::string> ids = {"abcdefg", "abcdefghijkl", "abcdefgh", ""};
  WritePair(
      path("fs.meta"), path("fs.fea"), 1864, [&](size_t i) { return ids[i % 4]; },
      [](size_t i) { return "F" + std::to_string(i); },
      [](size_t i) { return i == 5 ? std::vector<float>(kFeatureDim, 0.0f) : AxisVector(i); });
  WritePair(
      path("sys.meta"), path("sys.fea"), 2, [](size_t) { return std::string("0"); },
      [](size_t i) { return "Mine" + std::to_string(i); },
      [](size_t i) { return i == 1 ? std::vector<float>(kFeatureDim, 0.0f) : AxisVector(i); }, "0");
  SimilarityTable t;
  ASSERT_EQ(Load(t), kLoadOk);
  EXPECT_EQ(t.status[0], kStatusIdentifier7);
  EXPECT_EQ(t.status[1], kStatusIdentifier12);
  EXPECT_EQ(t.status[2], kStatusIdentifierOther);
  EXPECT_EQ(t.status[3], kStatusIdentifierOther);
  EXPECT_EQ(t.status[5], kStatusUnusable);  // shipped but all zeros
  EXPECT_EQ(t.status[1864], kStatusInstalled);
  EXPECT_EQ(t.status[1865], kStatusUnusable);
  EXPECT_EQ(t.columns[kFieldName][1865], "Mine1");
}

TEST_F(SimilarityFiles, TornOrMismatchedCacheFailsTheCachePairOnly) {
  Shipped(1864);
  SimilarityTable t;
  {
    std::ofstream meta(path("sys.meta"));
    for (int i = 0; i < 13; ++i) meta << "line\n";  // two groups and a line
  }
  EXPECT_EQ(SimilarityTable::ReadMeta(path("sys.meta"), t.columns), -1);
  EXPECT_EQ(Load(t), kLoadCacheFailed);
  EXPECT_EQ(t.Size(), 1864u);  // the shipped entries stay, and nothing of the torn group
  ExpectWhole(t);

  WritePair(
      path("sys.meta"), path("sys.fea"), 2, [](size_t) { return std::string("0"); },
      [](size_t i) { return "Mine" + std::to_string(i); }, [](size_t i) { return AxisVector(i); }, "0");
  { std::ofstream(path("sys.fea"), std::ios::app | std::ios::binary) << std::string(100, 'x'); }
  EXPECT_EQ(Load(t), kLoadCacheFailed);  // 3072 x 2 + 100 bytes
  EXPECT_EQ(t.Size(), 1864u);
  ExpectWhole(t);
  fs::resize_file(path("sys.fea"), kFeatureRecordBytes);
  EXPECT_EQ(Load(t), kLoadCacheFailed);  // two groups, one record
  EXPECT_EQ(t.Size(), 1864u);
  ExpectWhole(t);
}

TEST_F(SimilarityFiles, SaveAppendsEachNameOnceAndKeepsPendingEntriesWhenItCannotWrite) {
  Shipped(1864);
  SimilarityTable t, other;
  ASSERT_EQ(Load(t), kLoadOk);
  ASSERT_EQ(Load(other), kLoadOk);  // another process on the same folder
  const size_t e = t.AddInstalled(AxisVector(3), kStatusInstalled, "Mine-Regular");
  t.pending.push_back(e);  // the same entry twice is written once
  EXPECT_EQ(t.Save(), "");
  EXPECT_TRUE(t.pending.empty());
  other.AddInstalled(AxisVector(3), kStatusInstalled, "Mine-Regular");  // saved by the first since
  other.AddInstalled(AxisVector(5), kStatusInstalled, "Mine-Bold");
  EXPECT_EQ(other.Save(), "");
  SimilarityTable again;
  ASSERT_EQ(Load(again), kLoadOk);
  ASSERT_EQ(again.Size(), 1866u);
  EXPECT_EQ(again.columns[kFieldName][1864], "Mine-Regular");
  EXPECT_EQ(again.columns[kFieldName][1865], "Mine-Bold");
  EXPECT_EQ(again.columns[kFieldFamily][1864], "userFamily");
  EXPECT_EQ(again.columns[kFieldStyle][1865], "userSubFamily");
  EXPECT_EQ(again.columns[kFieldOrigin][1864], "0");
  EXPECT_EQ(again.FeatureVector(1865), AxisVector(5));

  t.AddInstalled(AxisVector(4), kStatusInstalled, "Later");
  t.cacheMetaPath = (dir / "missing" / "sys.meta").string();
  EXPECT_NE(t.Save().find("cannot write the similarity cache's check sums " + CacheSumsPath(t.cacheMetaPath) +
                          ": No such file"),
            std::string::npos);
  EXPECT_EQ(t.pending.size(), 1u);
}

TEST_F(SimilarityFiles, SaveMovesAnInconsistentPairAsideFirst) {
  Shipped(1864);
  SimilarityTable t;
  ASSERT_EQ(Load(t), kLoadOk);
  // Written since by two processes whose saves interleaved: every name twice.
  WritePair(
      path("sys.meta"), path("sys.fea"), 4, [](size_t) { return std::string("0"); },
      [](size_t i) { return "Mine" + std::to_string(i / 2); }, [](size_t i) { return AxisVector(i); }, "0");
  t.AddInstalled(AxisVector(7), kStatusInstalled, "Mine7");
  EXPECT_NE(t.Save().find("moved aside"), std::string::npos);
  EXPECT_TRUE(fs::exists(path("sys.fea") + ".damaged"));
  SimilarityTable again;
  ASSERT_EQ(Load(again), kLoadOk);
  ASSERT_EQ(again.Size(), 1865u);
  EXPECT_EQ(again.columns[kFieldName][1864], "Mine7");
}

TEST_F(SimilarityFiles, EntriesMovedOrRemovedSinceTheirSaveFailTheirCheckSums) {
  Shipped(1864);
  auto saved = [&] {
    for (const std::string& file : {path("sys.meta"), path("sys.fea"), CacheSumsPath(path("sys.meta"))})
      fs::remove(file);
    SimilarityTable t;
    EXPECT_EQ(Load(t), kLoadOk);
    for (size_t i = 0; i < 3; ++i) t.AddInstalled(AxisVector(i), kStatusInstalled, "Mine" + std::to_string(i));
    EXPECT_EQ(t.Save(), "");
    std::ifstream in(path("sys.meta"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  };
  auto rewrite = [&](const std::vector<std::string>& lines) {
    std::ofstream out(path("sys.meta"), std::ios::trunc);
    for (const std::string& line : lines) out << line << '\n';
  };
  SimilarityTable t;
  std::vector<std::string> lines = saved();
  ASSERT_EQ(Load(t), kLoadOk);
  EXPECT_EQ(t.Size(), 1867u);
  std::swap(lines[3], lines[9]);  // two names swapped
  rewrite(lines);
  EXPECT_EQ(Load(t), kLoadCacheFailed);
  EXPECT_EQ(t.problem, path("sys.fea") + ": the entry of Mine1 does not match its check sum");
  EXPECT_EQ(t.Size(), 1864u);

  lines = saved();
  lines.erase(lines.begin() + 6, lines.begin() + 12);  // the middle group removed
  rewrite(lines);
  RepairCachePair(path("sys.meta"), path("sys.fea"));  // as the next start does: one record too many
  EXPECT_EQ(Load(t), kLoadCacheFailed);

  saved();
  {
    std::ofstream(path("sys.meta"), std::ios::app) << "0\n0\n0\nAdded\nuserFamily\nuserSubFamily\n";
    std::ofstream(path("sys.fea"), std::ios::app | std::ios::binary)
        .write(reinterpret_cast<const char*>(AxisVector(8).data()), kFeatureRecordBytes);
  }
  EXPECT_EQ(Load(t), kLoadOk);  // an entry without its sum could be anyone's: left out, and cut from the files
  EXPECT_EQ(t.Size(), 1867u);
  EXPECT_NE(t.note.find("1 entries"), std::string::npos) << t.note;
  EXPECT_EQ(Load(t), kLoadOk);
  EXPECT_EQ(t.note, "");

  // Without any sums (the file lost), two names swapped would be accepted: nothing is trusted.
  lines = saved();
  std::swap(lines[3], lines[9]);
  rewrite(lines);
  fs::remove(CacheSumsPath(path("sys.meta")));
  EXPECT_EQ(Load(t), kLoadOk);
  EXPECT_EQ(t.Size(), 1864u);
  EXPECT_EQ(fs::file_size(path("sys.fea")), 0u);

  // Sums without the header line are an older module's, of another hash: they vouch for nothing,
  // and the entries are computed again rather than taken for damage.
  saved();
  std::string sums;
  {
    std::ifstream in(CacheSumsPath(path("sys.meta")));
    std::getline(in, sums);
    ASSERT_EQ(sums, kCacheSumsHeader);
    sums.assign(std::istreambuf_iterator<char>(in), {});
  }
  std::ofstream(CacheSumsPath(path("sys.meta")), std::ios::trunc) << sums;
  EXPECT_EQ(Load(t), kLoadOk);
  EXPECT_EQ(t.Size(), 1864u);
  EXPECT_NE(t.note.find("3 entries"), std::string::npos) << t.note;
}

// A save writes the sums before the entries: killed between the two, the sums list entries the
// pair does not hold yet, and the pair still loads; the next save writes them for what it holds.
TEST_F(SimilarityFiles, SumsAheadOfTheirEntriesAreNoDamageAndAStaleTemporaryGoes) {
  Shipped(1864);
  SimilarityTable t;
  ASSERT_EQ(Load(t), kLoadOk);
  for (size_t i = 0; i < 3; ++i) t.AddInstalled(AxisVector(i), kStatusInstalled, "Mine" + std::to_string(i));
  ASSERT_EQ(t.Save(), "");
  CutCachePair(path("sys.meta"), path("sys.fea"), 1);  // as if the append had not happened
  std::ofstream(CacheSumsPath(path("sys.meta")) + ".tmp") << "left by a killed save\n";
  SimilarityTable again;
  ASSERT_EQ(Load(again), kLoadOk);
  EXPECT_EQ(again.Size(), 1865u);
  again.AddInstalled(AxisVector(9), kStatusInstalled, "Later");
  ASSERT_EQ(again.Save(), "");
  EXPECT_FALSE(fs::exists(CacheSumsPath(path("sys.meta")) + ".tmp"));
  ASSERT_EQ(Load(again), kLoadOk);
  ASSERT_EQ(again.Size(), 1866u);
  EXPECT_EQ(again.columns[kFieldName][1865], "Later");
  std::ifstream sums(CacheSumsPath(path("sys.meta")));
  size_t lines = 0;
  std::string header;
  std::getline(sums, header);
  EXPECT_EQ(header, kCacheSumsHeader);
  for (std::string line; std::getline(sums, line);) ++lines;
  EXPECT_EQ(lines, 2u);
}

// A process that could not get the cache folder's lock reads what another is writing without
// changing a byte: the entries whole and matching their sums, up to the first that is not.
TEST_F(SimilarityFiles, AReadOnlyLoadReadsTheConsistentEntriesAndWritesNothing) {
  Shipped(1864);
  WritePair(
      path("sys.meta"), path("sys.fea"), 4, [](size_t) { return std::string("0"); },
      [](size_t i) { return "Mine" + std::to_string(i); }, [](size_t i) { return AxisVector(i); }, "0");
  // The writer's sums cover a fifth entry it is appending: half its meta lines, no record yet.
  std::ofstream(CacheSumsPath(path("sys.meta")), std::ios::app)
      << SumText(EntrySum("Mine4", AxisVector(4).data())) << '\n';
  std::ofstream(path("sys.meta"), std::ios::app) << "0\n0\n0\nMine4\n";
  // And the third entry's record was changed under its sum.
  {
    std::fstream fea(path("sys.fea"), std::ios::in | std::ios::out | std::ios::binary);
    fea.seekp(2 * kFeatureRecordBytes);
    fea.write(reinterpret_cast<const char*>(AxisVector(7).data()), kFeatureRecordBytes);
  }
  const auto before = std::make_pair(fs::file_size(path("sys.meta")), fs::file_size(path("sys.fea")));
  SimilarityTable t;
  ASSERT_EQ(t.Load(path("fs.meta"), path("fs.fea"), path("sys.meta"), path("sys.fea"), path("model.dnm"),
                   CacheAccess::kReadOnly),
            kLoadOk);
  EXPECT_EQ(t.Size(), 1866u);
  EXPECT_EQ(t.columns[kFieldName].back(), "Mine1");
  EXPECT_NE(t.note, "");
  ExpectWhole(t);
  EXPECT_EQ(before, std::make_pair(fs::file_size(path("sys.meta")), fs::file_size(path("sys.fea"))));
}

TEST_F(SimilarityFiles, RecordsThatCannotBeVectorsFailTheirPair) {
  Shipped(1864);
  auto cache = [&](size_t n, const std::function<std::string(size_t)>& name,
                   const std::function<std::vector<float>(size_t)>& vec) {
    WritePair(
        path("sys.meta"), path("sys.fea"), n, [](size_t) { return std::string("0"); }, name, vec, "0");
    SimilarityTable t;
    const int result = Load(t);
    return std::make_pair(result, t.problem);
  };
  auto numbered = [](size_t i) { return "Mine" + std::to_string(i); };
  auto with = [](size_t at, float value) {
    return [=](size_t i) {
      std::vector<float> v = AxisVector(i);
      if (i == 1) v[at] = value;
      return v;
    };
  };
  const std::vector<float> zero(kFeatureDim, 0.0f);
  EXPECT_EQ(cache(3, numbered, [](size_t i) { return AxisVector(i); }).first, kLoadOk);
  EXPECT_EQ(cache(3, numbered, with(5, std::nanf(""))).first, kLoadCacheFailed);
  EXPECT_EQ(cache(3, numbered, with(400, 1e30f)).first, kLoadCacheFailed);
  EXPECT_EQ(cache(3, numbered, with(700, 0.5f)).first, kLoadCacheFailed);  // a half no longer of length 1
  EXPECT_EQ(cache(
                3, [](size_t i) { return i ? "Twice" : "Once"; }, [](size_t i) { return AxisVector(i); }),
            std::make_pair(int(kLoadCacheFailed), path("sys.fea") + ": Twice is there twice"));
  EXPECT_EQ(cache(2, numbered, [&](size_t) { return zero; }).first, kLoadCacheFailed);  // every record zero
  EXPECT_EQ(cache(2, numbered, [&](size_t i) { return i ? zero : AxisVector(i); }).first, kLoadOk);  // one unusable

  WritePair(
      path("fs.meta"), path("fs.fea"), 1864, [](size_t) { return std::string("abcdefg"); }, numbered,
      with(9, std::numeric_limits<float>::infinity()));
  SimilarityTable t;
  EXPECT_EQ(Load(t), kLoadShippedFailed);
  EXPECT_EQ(t.problem.rfind(path("fs.fea") + ": the vector of Mine1", 0), 0u) << t.problem;
}

TEST_F(SimilarityFiles, TornTailIsCutBackToTheLastWholeEntry) {
  Shipped(1864);
  WritePair(
      path("sys.meta"), path("sys.fea"), 3, [](size_t) { return std::string("0"); },
      [](size_t i) { return "Mine" + std::to_string(i); }, [](size_t i) { return AxisVector(i); }, "0");
  EXPECT_EQ(RepairCachePair(path("sys.meta"), path("sys.fea")), "");  // whole: untouched
  // A save cut short: the meta file got 2 lines of the fourth group, the features half a record.
  { std::ofstream(path("sys.meta"), std::ios::app) << "0\n0\n0\nMine3\nuserFam"; }
  { std::ofstream(path("sys.fea"), std::ios::app | std::ios::binary) << std::string(kFeatureRecordBytes / 2, '\0'); }
  EXPECT_NE(RepairCachePair(path("sys.meta"), path("sys.fea")), "");
  SimilarityTable t;
  ASSERT_EQ(Load(t), kLoadOk);
  EXPECT_EQ(t.Size(), 1864u + 3u);
  EXPECT_EQ(t.columns[kFieldName].back(), "Mine2");
  // Features written, meta not: the extra record goes.
  {
    std::ofstream(path("sys.fea"), std::ios::app | std::ios::binary)
        .write(reinterpret_cast<const char*>(AxisVector(9).data()), kFeatureRecordBytes);
  }
  EXPECT_NE(RepairCachePair(path("sys.meta"), path("sys.fea")), "");
  EXPECT_EQ(fs::file_size(path("sys.fea")), 3 * kFeatureRecordBytes);
}

}  // namespace
}  // namespace fontrix
