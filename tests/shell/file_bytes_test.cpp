#include "shell/file_bytes.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace fontrix {
namespace {

namespace fs = std::filesystem;

class FileBytesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("fontrix-file-bytes-" + std::to_string(::getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string Write(const std::string& name, const std::string& bytes) {
    const std::string path = (dir_ / name).string();
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  fs::path dir_;
};

// The bytes exactly, empty files included; what is not a readable file is a reason in words.
TEST_F(FileBytesTest, ReadsWholeFilesAndSaysWhyNot) {
  std::string bytes = "old", why;
  std::string big(200000, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = char(i * 7);
  EXPECT_EQ(ReadFileBytes(Write("big", big), bytes, why), FileState::kRead);
  EXPECT_EQ(bytes, big);
  EXPECT_EQ(ReadFileBytes(Write("empty", ""), bytes, why), FileState::kRead);
  EXPECT_EQ(bytes, "");
  EXPECT_EQ(ReadFileBytes((dir_ / "absent").string(), bytes, why), FileState::kMissing);
  EXPECT_EQ(ReadFileBytes((dir_ / "absent" / "deeper").string(), bytes, why), FileState::kMissing);
  EXPECT_EQ(ReadFileBytes(dir_.string(), bytes, why), FileState::kUnreadable);
  EXPECT_EQ(why, dir_.string() + " is a folder, not a file");
}

// Floats land after what the vector held; a file of a size that is no whole number of floats
// (cut short mid-value) leaves the vector as it was.
TEST_F(FileBytesTest, FloatsAreAppendedOrNothingIs) {
  const float three[3] = {1.5f, -2.0f, 3.25f};
  const std::string path = Write("floats", std::string(reinterpret_cast<const char*>(three), sizeof three));
  std::vector<float> values = {9.0f};
  std::string why;
  ASSERT_EQ(AppendFileFloats(path, values, why), FileState::kRead);
  EXPECT_EQ(values, (std::vector<float>{9.0f, 1.5f, -2.0f, 3.25f}));
  const std::string cut = Write("cut", std::string(reinterpret_cast<const char*>(three), sizeof three - 1));
  EXPECT_EQ(AppendFileFloats(cut, values, why), FileState::kUnreadable);
  EXPECT_NE(why.find("whole values"), std::string::npos) << why;
  EXPECT_EQ(values.size(), 4u);
  EXPECT_EQ(AppendFileFloats((dir_ / "absent").string(), values, why), FileState::kMissing);
  EXPECT_EQ(AppendFileFloats(dir_.string(), values, why), FileState::kUnreadable);
  EXPECT_EQ(values.size(), 4u);
  EXPECT_EQ(AppendFileFloats(Write("none", ""), values, why), FileState::kRead);
  EXPECT_EQ(values.size(), 4u);
}

// A replaced file holds the new bytes whole; one that cannot be written keeps the old and
// leaves no temporary file.
TEST_F(FileBytesTest, ReplacedFilesAreWholeOrUntouched) {
  const std::string path = Write("cache", "old bytes");
  ReplaceFile(path, "new bytes, longer");
  std::string bytes, why;
  ASSERT_EQ(ReadFileBytes(path, bytes, why), FileState::kRead);
  EXPECT_EQ(bytes, "new bytes, longer");
  fs::create_directory(path + ".tmp");  // the temporary cannot be made: a folder is in its place
  EXPECT_THROW(ReplaceFile(path, "lost"), std::runtime_error);
  ASSERT_EQ(ReadFileBytes(path, bytes, why), FileState::kRead);
  EXPECT_EQ(bytes, "new bytes, longer");
  fs::remove(path + ".tmp");
  const std::string into_folder = (dir_ / "folder").string();
  fs::create_directory(into_folder);
  EXPECT_THROW(ReplaceFile(into_folder, "x"), std::runtime_error);  // rename over a folder fails
  EXPECT_FALSE(fs::exists(into_folder + ".tmp"));
}

// A mapping shows the file's bytes and moves with its owner; what cannot be mapped is a reason.
TEST_F(FileBytesTest, MappedFilesShowTheBytesAndMove) {
  std::string why;
  MappedFile mapped;
  ASSERT_EQ(mapped.Map(Write("data", "shipped bytes"), why), FileState::kRead);
  ASSERT_EQ(mapped.Size(), 13u);
  EXPECT_EQ(std::string(static_cast<const char*>(mapped.Data()), mapped.Size()), "shipped bytes");
  MappedFile moved = std::move(mapped);
  EXPECT_EQ(mapped.Data(), nullptr);
  EXPECT_EQ(std::string(static_cast<const char*>(moved.Data()), moved.Size()), "shipped bytes");
  EXPECT_EQ(moved.Map(Write("empty", ""), why), FileState::kRead);
  EXPECT_EQ(moved.Size(), 0u);
  EXPECT_EQ(moved.Map((dir_ / "absent").string(), why), FileState::kMissing);
  EXPECT_EQ(moved.Map(dir_.string(), why), FileState::kUnreadable);
  EXPECT_EQ(why, dir_.string() + " is a folder, not a file");
  EXPECT_EQ(moved.Data(), nullptr);
}

}  // namespace
}  // namespace fontrix
