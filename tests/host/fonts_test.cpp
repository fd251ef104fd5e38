// The font suites over a memory font list, and the fontconfig source on this machine.
#include <fontconfig/fontconfig.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <future>
#include <map>
#include <set>
#include <thread>

#include "host/fontconfig_source.h"
#include "host/host.h"
#include "host_test_support.h"
#include "sdk/qv_font_suites.h"

namespace fontrix::host::testing {
namespace {

HostFont Face(const std::string& name, const std::string& file, int index = 0) {
  HostFont font;
  font.unique_name = name;
  font.family = name.substr(0, name.find('-'));
  font.style = name.find('-') == std::string::npos ? "Regular" : name.substr(name.find('-') + 1);
  font.file = file;
  font.face_index = index;
  return font;
}

class FontSuitesTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    source_ = std::make_shared<MemoryFontSource>();
    HostFont bitmap = Face("Fixed-Bold", "/fonts/fixed.pcf");
    bitmap.bitmap_only = true;
    HostFont symbol = Face("Dingbats", "/fonts/dingbats.ttf");
    symbol.symbol = true;
    source_->fonts = {Face("Serif-Book", "/fonts/serif.ttc", 0),
                      Face("Serif-Italic", "/fonts/serif.ttc", 1),
                      bitmap,
                      symbol,
                      Face("Serif-Book", "/usr/local/fonts/serif-copy.ttf"),
                      Face("Var-Light", "/fonts/var.ttf", 2 << 16)};
    HostOptions options = Options();
    options.fonts = source_;
    host_.emplace(options);
    // The first listing runs on a thread of its own: the tests change the source only after it.
    host_->FontListGeneration();
    fonts_ = static_cast<const QVFontSuite*>(host_->AcquireSuite(kQVFontSuite, kQVFontSuiteVersion));
    glue_ = static_cast<const QVFontGlueSuite*>(host_->AcquireSuite(kQVFontGlueSuite, kQVFontGlueSuiteVersion));
    ASSERT_NE(fonts_, nullptr);
    ASSERT_NE(glue_, nullptr);
  }
  void TearDown() override {
    host_.reset();
    HostTest::TearDown();
  }

  QVFontHandle At(int32_t index) {
    QVFontHandle font = nullptr;
    EXPECT_EQ(fonts_->IndexFontList(index, &font), kQVNoErr);
    return font;
  }
  std::string Name(QVFontHandle font) {
    const char* name = nullptr;
    EXPECT_EQ(fonts_->GetFontNames(font, &name, nullptr, nullptr), kQVNoErr);
    return name ? name : "";
  }
  // Bitmap-only, symbol, duplicate and kind of a face, as one string: "b s d kind".
  std::string Qualification(QVFontHandle font) {
    QVBool bitmap = 9, symbol = 9, duplicate = 9;
    int32_t kind = -1;
    EXPECT_EQ(glue_->IsBitmapOnly(font, &bitmap), kQVNoErr);
    EXPECT_EQ(glue_->IsSymbolFont(font, &symbol), kQVNoErr);
    EXPECT_EQ(glue_->IsDuplicateName(font, &duplicate), kQVNoErr);
    EXPECT_EQ(glue_->GetFontKind(font, &kind), kQVNoErr);
    return std::to_string(bitmap) + " " + std::to_string(symbol) + " " + std::to_string(duplicate) + " " +
           std::to_string(kind);
  }

  std::shared_ptr<MemoryFontSource> source_;
  std::optional<Host> host_;
  const QVFontSuite* fonts_ = nullptr;
  const QVFontGlueSuite* glue_ = nullptr;
};

TEST_F(FontSuitesTest, ListNamesFilesAndQualification) {
  int32_t count = 0;
  ASSERT_EQ(fonts_->CountFonts(&count), kQVNoErr);
  ASSERT_EQ(count, 6);
  EXPECT_EQ(host_->FontListGeneration(), 1u);

  const char *name = nullptr, *family = nullptr, *style = nullptr, *path = nullptr;
  int32_t face_index = -1;
  ASSERT_EQ(fonts_->GetFontNames(At(1), &name, &family, &style), kQVNoErr);
  EXPECT_STREQ(name, "Serif-Italic");
  EXPECT_STREQ(family, "Serif");
  EXPECT_STREQ(style, "Italic");
  ASSERT_EQ(fonts_->GetFontFile(At(5), &path, &face_index), kQVNoErr);
  EXPECT_STREQ(path, "/fonts/var.ttf");
  EXPECT_EQ(face_index, 2 << 16);

  EXPECT_EQ(Qualification(At(0)), "0 0 0 1");
  EXPECT_EQ(Qualification(At(2)), "1 0 0 33");
  EXPECT_EQ(Qualification(At(3)), "0 1 0 1");
  EXPECT_EQ(Qualification(At(4)), "0 0 1 1");  // the second "Serif-Book"

  QVFontHandle found = nullptr;
  ASSERT_EQ(fonts_->FindFontByName("Serif-Book", &found), kQVNoErr);
  EXPECT_EQ(found, At(0));
  EXPECT_EQ(fonts_->FindFontByName("Serif-Bold", &found), kQVNotFoundErr);

  QVFontHandle none = nullptr;
  EXPECT_EQ(fonts_->IndexFontList(6, &none), kQVBadParameterErr);
  EXPECT_EQ(fonts_->IndexFontList(-1, &none), kQVBadParameterErr);
  int stranger = 0;
  QVBool answer = 0;
  EXPECT_EQ(fonts_->GetFontNames(reinterpret_cast<QVFontHandle>(&stranger), &name, nullptr, nullptr),
            kQVBadParameterErr);
  EXPECT_EQ(glue_->IsSymbolFont(reinterpret_cast<QVFontHandle>(&stranger), &answer), kQVBadParameterErr);

  void *engine = nullptr, *procedure = &engine;  // engine_test.cpp has the engine's procedures
  ASSERT_EQ(glue_->GetEngineInterface(&engine), kQVNoErr);
  EXPECT_NE(engine, nullptr);
  EXPECT_EQ(glue_->GetEngineProcedure(engine, "RenderGlyph", &procedure), kQVNotFoundErr);
  EXPECT_EQ(procedure, nullptr);
}

TEST_F(FontSuitesTest, RebuildKeepsUnchangedHandlesAndRecomputesDuplicates) {
  const QVFontHandle italic = At(1), first_book = At(0), copy = At(4);
  source_->fonts.erase(source_->fonts.begin());  // the copy becomes the first "Serif-Book"
  source_->fonts[0].style = "Oblique";           // changed names: a new handle
  EXPECT_EQ(host_->FontListChanged(), kQVNoErr);
  EXPECT_EQ(host_->FontListGeneration(), 2u);
  ASSERT_EQ(host_->Fonts().size(), 5u);
  EXPECT_EQ(host_->Fonts()[0].style, "Oblique");

  EXPECT_NE(At(0), italic);
  EXPECT_EQ(At(3), copy);
  EXPECT_EQ(Qualification(copy), "0 0 0 1");
  QVFontHandle found = nullptr;
  ASSERT_EQ(fonts_->FindFontByName("Serif-Book", &found), kQVNoErr);
  EXPECT_EQ(found, copy);
  // A handle of the earlier list still answers, so a module that has not caught up is safe.
  EXPECT_EQ(Name(first_book), "Serif-Book");
}

// The module's worker threads read fonts and allocate while the main thread rebuilds the list.
TEST_F(FontSuitesTest, WorkerThreadsMayReadWhileTheListIsRebuilt) {
  auto* blocks = static_cast<const QVBlocksSuite*>(host_->AcquireSuite(kQVBlocksSuite, kQVBlocksSuiteVersion));
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  auto reader = [&] {
    while (!stop) {
      int32_t count = 0;
      QVFontHandle font = nullptr;
      const char* name = nullptr;
      void* block = nullptr;
      fonts_->CountFonts(&count);
      if (fonts_->IndexFontList(count - 1, &font) == kQVNoErr &&
          fonts_->GetFontNames(font, &name, nullptr, nullptr) != kQVNoErr)
        ++failures;
      if (fonts_->FindFontByName("Serif-Italic", &font) == kQVNoErr && Name(font) != "Serif-Italic") ++failures;
      if (blocks->AllocateBlock(8, "worker", &block) != kQVNoErr || blocks->FreeBlock(block) != kQVNoErr) ++failures;
    }
  };
  std::thread a(reader), b(reader);
  for (int round = 0; round < 50; ++round) {
    source_->fonts.push_back(Face("Extra-" + std::to_string(round), "/fonts/extra.ttf", round));
    EXPECT_EQ(host_->FontListChanged(), kQVNoErr);
  }
  stop = true;
  a.join();
  b.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(host_->LiveBlocks(), 0u);
}

// A source that lists only when let go, and says how far it has read.
class HeldSource : public FontSource {
 public:
  std::vector<HostFont> List() override {
    go.get_future().wait();
    return {Face("Held-Regular", "/fonts/held.ttf")};
  }
  std::pair<uint64_t, uint64_t> Reading() const override { return {3, 7}; }
  std::promise<void> go;
};

// The first listing runs beside the host's caller: the font suites wait for it, the caller can
// watch it, and the list is there once it has ended.
TEST_F(HostTest, TheFirstListingRunsBesideTheCallerWhoCanWatchIt) {
  auto source = std::make_shared<HeldSource>();
  HostOptions options = Options();
  options.fonts = source;
  Host host(options);
  EXPECT_FALSE(host.FontsListed(0.01));
  EXPECT_EQ(host.ListingProgress(), (std::pair<uint64_t, uint64_t>{3, 7}));
  auto* fonts = static_cast<const QVFontSuite*>(host.AcquireSuite(kQVFontSuite, kQVFontSuiteVersion));
  std::future<int32_t> counted = std::async(std::launch::async, [fonts] {
    int32_t count = -1;
    return fonts->CountFonts(&count) == kQVNoErr ? count : -1;
  });
  EXPECT_EQ(counted.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);  // waits for the list
  source->go.set_value();
  EXPECT_EQ(counted.get(), 1);
  EXPECT_TRUE(host.FontsListed());
  host.ReleaseSuite(kQVFontSuite, kQVFontSuiteVersion);
}

TEST(FontconfigSource, ListsTheInstalledDejaVuFaces) {
  auto source = MakeFontconfigSource();
  const auto start = std::chrono::steady_clock::now();
  const std::vector<HostFont> fonts = source->List();
  const double first = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("fontconfig source: %zu faces in %.1f ms\n", fonts.size(), first * 1000);
  ASSERT_FALSE(fonts.empty());

  const HostFont* sans = nullptr;
  for (const HostFont& font : fonts) {
    EXPECT_FALSE(font.unique_name.empty()) << font.file;
    EXPECT_TRUE(std::filesystem::exists(font.file)) << font.file;
    if (font.unique_name == "DejaVuSans") sans = &font;
  }
  ASSERT_NE(sans, nullptr) << "fonts-dejavu-core is not installed";
  EXPECT_EQ(sans->family, "DejaVu Sans");
  EXPECT_EQ(sans->style, "Book");
  EXPECT_FALSE(sans->bitmap_only);
  EXPECT_FALSE(sans->symbol);

  // The second list reuses what the first read and gives the same answer.
  const std::vector<HostFont> again = source->List();
  ASSERT_EQ(again.size(), fonts.size());
  for (size_t i = 0; i < fonts.size(); ++i) {
    EXPECT_EQ(again[i].unique_name, fonts[i].unique_name);
    EXPECT_EQ(again[i].file, fonts[i].file);
    EXPECT_EQ(again[i].face_index, fonts[i].face_index);
  }
}

// Unique names are the PostScript names fontconfig reports, except for the faces of variable
// fonts: fontconfig names their named instances by axis values, as it would an arbitrary
// instance ("Inter_900wght"), or several alike ("Inter-Display"); the host keeps FreeType's
// names, made as PostScript names of named instances ("Inter-Black", "InterDisplay-Regular").
TEST(FontconfigSource, UniqueNamesArePostScriptNames) {
  const std::vector<HostFont> fonts = MakeFontconfigSource()->List();
  FcPattern* pattern = FcPatternCreate();
  FcObjectSet* objects = FcObjectSetBuild(FC_FILE, FC_INDEX, FC_POSTSCRIPT_NAME, FC_VARIABLE, nullptr);
  FcFontSet* set = FcFontList(nullptr, pattern, objects);
  ASSERT_NE(set, nullptr);
  std::map<std::pair<std::string, int>, std::string> postscript;
  std::set<std::string> variable_files;
  for (int i = 0; i < set->nfont; ++i) {
    FcChar8 *file = nullptr, *name = nullptr;
    int index = 0;
    FcBool variable = FcFalse;
    FcPatternGetString(set->fonts[i], FC_FILE, 0, &file);
    FcPatternGetInteger(set->fonts[i], FC_INDEX, 0, &index);
    FcPatternGetBool(set->fonts[i], FC_VARIABLE, 0, &variable);
    if (variable) variable_files.insert(reinterpret_cast<const char*>(file));
    if (FcPatternGetString(set->fonts[i], FC_POSTSCRIPT_NAME, 0, &name) == FcResultMatch)
      postscript[{reinterpret_cast<const char*>(file), index}] = reinterpret_cast<const char*>(name);
  }
  FcFontSetDestroy(set);
  FcObjectSetDestroy(objects);
  FcPatternDestroy(pattern);

  size_t compared = 0, variable = 0;
  for (const HostFont& font : fonts) {
    if (variable_files.count(font.file)) {
      ++variable;
      continue;
    }
    const auto it = postscript.find({font.file, font.face_index});
    ASSERT_NE(it, postscript.end()) << font.file;
    // A face whose name an earlier, different face holds gets a derived name.
    std::string family_style = font.family + "-" + font.style;
    family_style.erase(std::remove(family_style.begin(), family_style.end(), ' '), family_style.end());
    const bool derived = font.unique_name.rfind(it->second + "-", 0) == 0 || font.unique_name == family_style;
    EXPECT_TRUE(font.unique_name == it->second || derived) << font.file << " " << font.face_index;
    ++compared;
  }
  std::printf("%zu faces named as fontconfig names them, %zu faces of variable fonts\n", compared, variable);
  EXPECT_GT(compared, 100u);  // DejaVu, Liberation, URW (OpenType and Type 1), TeX Gyre, a collection
  EXPECT_GT(variable, 10u);   // Inter
}

}  // namespace
}  // namespace fontrix::host::testing

namespace fontrix::host {
namespace {

// A listing written by one process is what the next reads for unchanged files (a family changed
// through the listing's own writer proves the face was not opened again); a listing edited
// behind its writer's back, cut short, or not ours is ignored.
TEST(FontconfigSource, ListingOnDiskServesTheNextProcessUnlessEdited) {
  const auto listing = std::filesystem::temp_directory_path() / "fontrix-listing-test.txt";
  std::filesystem::remove(listing);
  const std::vector<HostFont> first = MakeFontconfigSource(listing.string())->List();
  ASSERT_TRUE(std::filesystem::exists(listing));
  auto family_of_dejavu_sans = [&] {
    for (const HostFont& f : MakeFontconfigSource(listing.string())->List())
      if (f.unique_name == "DejaVuSans") return f.family;
    return std::string("absent");
  };
  std::string text;
  {
    std::ifstream in(listing);
    text.assign(std::istreambuf_iterator<char>(in), {});
    in.seekg(0);
    FontListing read = ReadFontListing(in);
    ASSERT_FALSE(read.empty());
    for (auto& [key, face] : read)
      if (face.result && face.result->unique_name == "DejaVuSans") face.result->family = "DejaVu Edit";
    std::ofstream out(listing, std::ios::trunc);
    WriteFontListing(out, read);
  }
  EXPECT_EQ(family_of_dejavu_sans(), "DejaVu Edit");

  const size_t at = text.find("\tDejaVu Sans\tBook\t");
  ASSERT_NE(at, std::string::npos);
  const std::string whole = text;
  text.replace(at, 13, "\tDejaVu Edit\t");
  for (const std::string& bad : {text, whole.substr(0, whole.rfind("end ")), std::string("something else\n")}) {
    { std::ofstream(listing) << bad; }
    EXPECT_EQ(family_of_dejavu_sans(), "DejaVu Sans") << bad.substr(0, 40);
  }
  const std::vector<HostFont> fresh = MakeFontconfigSource(listing.string())->List();
  ASSERT_EQ(fresh.size(), first.size());
  for (size_t i = 0; i < fresh.size(); ++i) EXPECT_EQ(fresh[i].family, first[i].family);
  std::filesystem::remove(listing);
}

}  // namespace
}  // namespace fontrix::host
