// The similarity files: the shipped pair's fixed size, status rules, strict reading of torn or
// mismatched files, appends, and the repair of a torn cache tail.
#include "similarity/similarity_table.h"

#include <gtest/gtest.h>

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
    EXPECT_EQ(t.features.size(), t.Size() * kFeatureDim);
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
  EXPECT_EQ(t.columns[3][1865], "Mine1");
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

TEST_F(SimilarityFiles, SaveAppendsPendingEntriesAndKeepsThemWhenItCannotWrite) {
  Shipped(1864);
  SimilarityTable t;
  ASSERT_EQ(Load(t), kLoadOk);
  const size_t e = t.AddInstalled(AxisVector(3), kStatusInstalled, "Mine-Regular");
  t.pending.push_back(e);  // the same entry twice is written twice
  t.Save();
  EXPECT_TRUE(t.pending.empty());
  SimilarityTable again;
  ASSERT_EQ(Load(again), kLoadOk);
  ASSERT_EQ(again.Size(), 1866u);
  EXPECT_EQ(again.columns[3][1864], "Mine-Regular");
  EXPECT_EQ(again.columns[4][1864], "userFamily");
  EXPECT_EQ(again.columns[5][1865], "userSubFamily");
  EXPECT_EQ(again.columns[2][1864], "0");
  EXPECT_EQ(again.FeatureVector(1865), AxisVector(3));

  t.AddInstalled(AxisVector(4), kStatusInstalled, "Later");
  t.cacheMetaPath = (dir / "missing" / "sys.meta").string();
  t.Save();
  EXPECT_EQ(t.pending.size(), 1u);
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
  EXPECT_EQ(t.columns[3].back(), "Mine2");
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
