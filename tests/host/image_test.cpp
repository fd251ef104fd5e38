// Images: PNG and JPEG of every kind read into grey, and the one-sentence failures.
#include "host/image.h"

#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>

#include "host_test_support.h"
#include "image_files.h"

namespace fontrix::host::testing {
namespace {

class ImageTest : public HostTest {
 protected:
  std::string Save(const std::string& name, const std::vector<uint8_t>& bytes) {
    const std::string path = (tmp_ / name).string();
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    return path;
  }
  /// The grey values of an image file, row by row.
  std::vector<uint8_t> Grey(const std::vector<uint8_t>& file, int* width = nullptr, int* height = nullptr) {
    const auto image = LoadImageRaster(Save("image", file));
    if (width) *width = image->width();
    if (height) *height = image->height();
    std::vector<uint8_t> grey;
    for (int32_t y = 0; y < image->height(); ++y)
      grey.insert(grey.end(), image->row(y), image->row(y) + image->width());
    return grey;
  }
  /// The message LoadImageRaster throws for `file` saved as `name`.
  std::string Error(const std::string& name, const std::vector<uint8_t>& file) {
    const std::string path = Save(name, file);
    try {
      LoadImageRaster(path);
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "(no error)";
  }
};

TEST_F(ImageTest, PngOfEveryColourTypeBecomesGrey) {
  PngPicture grey;
  grey.width = 3;
  grey.samples = {0, 128, 255};
  EXPECT_EQ(Grey(EncodePng(grey)), (std::vector<uint8_t>{0, 128, 255}));

  PngPicture bits = grey;  // 1-bit grey: 1 0 1
  bits.bit_depth = 1;
  bits.samples = {0xA0};
  EXPECT_EQ(Grey(EncodePng(bits)), (std::vector<uint8_t>{255, 0, 255}));

  PngPicture deep = grey;  // 16 bits, scaled with rounding
  deep.bit_depth = 16;
  deep.samples = {0x80, 0x00, 0x01, 0x01, 0xFF, 0xFF};
  EXPECT_EQ(Grey(EncodePng(deep)), (std::vector<uint8_t>{128, 1, 255}));

  // RGBA: luma 0.299 R + 0.587 G + 0.114 B, composited on white by alpha.
  PngPicture rgba;
  rgba.width = 4;
  rgba.color_type = PNG_COLOR_TYPE_RGB_ALPHA;
  rgba.samples = {255, 0, 0, 255, 0, 0, 255, 255, 0, 0, 0, 128, 0, 255, 0, 0};
  EXPECT_EQ(Grey(EncodePng(rgba)), (std::vector<uint8_t>{76, 29, 127, 255}));

  // A 2-bit palette with transparency: opaque red, half-transparent black, clear.
  PngPicture palette;
  palette.width = 3;
  palette.color_type = PNG_COLOR_TYPE_PALETTE;
  palette.bit_depth = 2;
  palette.palette = {{255, 0, 0}, {0, 0, 0}, {0, 0, 0}};
  palette.trns = {255, 128, 0};
  palette.samples = {0x18};  // indices 0 1 2
  EXPECT_EQ(Grey(EncodePng(palette)), (std::vector<uint8_t>{76, 127, 255}));

  // Interlaced and not: the same pixels.
  PngPicture rgb;
  rgb.width = 13;
  rgb.height = 9;
  rgb.color_type = PNG_COLOR_TYPE_RGB;
  for (int i = 0; i < rgb.width * rgb.height * 3; ++i) rgb.samples.push_back(uint8_t(i * 37));
  PngPicture interlaced = rgb;
  interlaced.interlaced = true;
  int width = 0, height = 0;
  EXPECT_EQ(Grey(EncodePng(interlaced), &width, &height), Grey(EncodePng(rgb)));
  EXPECT_EQ(width, 13);
  EXPECT_EQ(height, 9);
}

TEST_F(ImageTest, JpegGreyColourAndCmykBecomeGrey) {
  const int w = 16, h = 8;  // flat blocks, so the lossy coding keeps the values nearly exact
  auto flat = [&](std::vector<uint8_t> left, std::vector<uint8_t> right) {
    std::vector<uint8_t> samples;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        samples.insert(samples.end(), x < 8 ? left.begin() : right.begin(), x < 8 ? left.end() : right.end());
    return samples;
  };
  auto expect = [&](const std::vector<uint8_t>& grey, int left, int right) {
    ASSERT_EQ(grey.size(), size_t(w * h));
    EXPECT_NEAR(grey[0], left, 2);
    EXPECT_NEAR(grey[w * h - 1], right, 2);
  };
  expect(Grey(EncodeJpeg(w, h, JCS_GRAYSCALE, 1, flat({40}, {200}))), 40, 200);
  expect(Grey(EncodeJpeg(w, h, JCS_RGB, 3, flat({255, 0, 0}, {0, 0, 255}), true)), 76, 29);  // progressive
  // CMYK with the APP14 segment, stored inverted: no ink is white, full black is black, full cyan is (0, 255, 255).
  const std::vector<uint8_t> cmyk_flat = flat({255, 255, 255, 255}, {0, 255, 255, 255});
  expect(Grey(EncodeJpeg(w, h, JCS_CMYK, 4, cmyk_flat)), 255, 179);
  expect(Grey(EncodeJpeg(w, h, JCS_CMYK, 4, flat({255, 255, 255, 0}, {255, 255, 255, 255}))), 0, 255);
}

TEST_F(ImageTest, UnreadableFilesGiveOneClearSentence) {
  PngPicture picture;
  picture.width = 40;
  picture.height = 30;
  picture.samples.assign(1200, 0);
  for (size_t i = 0; i < picture.samples.size(); ++i) picture.samples[i] = uint8_t(i * 7);
  const std::vector<uint8_t> png = EncodePng(picture);
  std::vector<uint8_t> jpeg = EncodeJpeg(40, 30, JCS_GRAYSCALE, 1, picture.samples);
  auto cut = [](std::vector<uint8_t> bytes, size_t size) {
    bytes.resize(size);
    return bytes;
  };
  std::vector<uint8_t> damaged = png;
  damaged[png.size() / 2] ^= 0xFF;  // inside the compressed data: its CRC no longer matches

  const std::string dir = tmp_.string();
  EXPECT_EQ(Error("cut.png", cut(png, png.size() / 2)),
            "cannot load the image " + dir + "/cut.png: the file ends before its PNG image does");
  EXPECT_EQ(Error("no-end.png", cut(png, png.size() - 6)),
            "cannot load the image " + dir + "/no-end.png: the file ends before its PNG image does");
  EXPECT_EQ(Error("cut.jpg", cut(jpeg, jpeg.size() / 2)),
            "cannot load the image " + dir + "/cut.jpg: the file ends before its JPEG image does");
  EXPECT_EQ(Error("bad.png", damaged).rfind("cannot load the image " + dir + "/bad.png: its PNG data is damaged (", 0),
            0u)
      << Error("bad.png", damaged);
  EXPECT_EQ(Error("text.png", {'h', 'e', 'l', 'l', 'o'}),
            "cannot load the image " + dir + "/text.png: it is neither a PNG nor a JPEG image");
  EXPECT_EQ(Error("image.png", {'G', 'I', 'F', '8', '9', 'a', 0, 0}),
            "cannot load the image " + dir + "/image.png: it is a GIF image, and only PNG and JPEG images can be read");
  EXPECT_EQ(Error("empty.jpg", {}), "cannot load the image " + dir + "/empty.jpg: the file is empty");
  for (const auto& file : {png, jpeg}) {
    try {
      LoadImageRasterFromMemory(file.data(), file.size(), "big", 1000);
      ADD_FAILURE() << "a 40 x 30 image passed a 1000-pixel limit";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "cannot load the image big: it has 40 x 30 pixels, more than the 1000 an image may have");
    }
  }
  EXPECT_THROW(LoadImageRaster(dir + "/none.png"), std::runtime_error);
  EXPECT_THROW(LoadImageRaster(dir), std::runtime_error);  // a folder
}

TEST_F(ImageTest, WrittenPngReadsBack) {
  std::vector<uint8_t> pixels(5 * 7);  // rows of 7 bytes, 5 used
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = uint8_t(i * 11);
  const std::string path = (tmp_ / "out.png").string();
  WritePng(path, {5, 3, 7, pixels.data()});
  const auto image = LoadImageRaster(path);
  ASSERT_EQ(image->width(), 5);
  ASSERT_EQ(image->height(), 3);
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 5; ++x) EXPECT_EQ(image->row(y)[x], pixels[size_t(y * 7 + x)]);
  EXPECT_THROW(WritePng((tmp_ / "no" / "such" / "dir.png").string(), {5, 3, 7, pixels.data()}), std::runtime_error);
  EXPECT_THROW(WritePng(path, {0, 0, 0, nullptr}), std::runtime_error);
}

}  // namespace
}  // namespace fontrix::host::testing
