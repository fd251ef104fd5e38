// dnm-run: runs a model file on raw images and writes one layer's output.
//
//   dnm-run --model M.dnm --layer NAME --width W --height H --count N
//           --input IN.f32 --output OUT.f32 [--threads T]
//
// Input: N single-channel W×H images as raw little-endian f32, image after image, row after
// row. Output: the layer's values, N × values-per-sample raw f32. Prints one JSON line
// {"layer": NAME, "dims": [...], "count": N}. Any error: the message on stderr, exit status 1.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "deepnet/model_io.h"
#include "deepnet/network.h"
#include "deepnet/parallel.h"

namespace {

const char* kUsage =
    "usage: dnm-run --model M.dnm --layer NAME --width W --height H --count N --input IN.f32 --output OUT.f32 "
    "[--threads T]";

uint64_t parse_count(const std::string& flag, const std::string& text) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 12)
    throw std::runtime_error(flag + " needs a whole number, not '" + text + "'");
  return std::stoull(text);
}

std::string json_string(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += char(c);
    } else if (c < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += char(c);
    }
  }
  return out + "\"";
}

// Host byte order is little-endian on every platform we build for; the raw files are too.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "raw f32 files are little-endian");

int run(int argc, char** argv) {
  std::map<std::string, std::string> args;
  const std::vector<std::string> known = {"--model", "--layer", "--width",  "--height",
                                          "--count", "--input", "--output", "--threads"};
  for (int i = 1; i < argc; ++i) {
    std::string flag = argv[i];
    if (flag == "--help" || flag == "-h") {
      std::cout << kUsage << "\n";
      return 0;
    }
    bool ok = false;
    for (const auto& k : known) ok = ok || k == flag;
    if (!ok) throw std::runtime_error("unknown argument '" + flag + "'\n" + kUsage);
    if (i + 1 >= argc) throw std::runtime_error(flag + " needs a value\n" + kUsage);
    args[flag] = argv[++i];
  }
  for (const auto& k : known)
    if (k != "--threads" && !args.count(k)) throw std::runtime_error("missing " + k + "\n" + kUsage);

  const uint64_t width = parse_count("--width", args["--width"]);
  const uint64_t height = parse_count("--height", args["--height"]);
  const uint64_t count = parse_count("--count", args["--count"]);
  if (args.count("--threads"))
    deepnet::deepnet_set_num_threads(int(parse_count("--threads", args["--threads"]) % 1024));

  deepnet::layer_model_list models;
  deepnet::deepnet_load_model(args["--model"], models);

  const uint64_t values = width * height * count;
  if (width && height && values / width / height != count) throw std::runtime_error("input size overflows");
  std::ifstream in(args["--input"], std::ios::binary | std::ios::ate);
  if (!in) throw std::runtime_error("cannot open " + args["--input"] + ": " + std::strerror(errno));
  const std::streamoff bytes = in.tellg();
  if (bytes < 0 || uint64_t(bytes) != values * 4)
    throw std::runtime_error(args["--input"] + " holds " + std::to_string(bytes) + " bytes; " + std::to_string(count) +
                             " images of " + std::to_string(width) + "x" + std::to_string(height) + " f32 need " +
                             std::to_string(values * 4));
  std::vector<float> pixels(values);
  in.seekg(0);
  if (values && !in.read(reinterpret_cast<char*>(pixels.data()), std::streamsize(values * 4)))
    throw std::runtime_error("cannot read " + args["--input"]);

  deepnet::input_view view;
  view.width = width;
  view.height = height;
  view.channels = 1;
  view.count = count;
  view.data = pixels.data();
  deepnet::layer_test_list tests;
  deepnet::deepnet_construct_layer_test(tests, models, view, count);
  const size_t i = deepnet::deepnet_compute_feature(models, tests, count, args["--layer"].c_str());
  const auto& layer = *tests[i];

  std::ofstream out(args["--output"], std::ios::binary | std::ios::trunc);
  const uint64_t n = count * layer.y_size_1d();
  if (!out.write(reinterpret_cast<const char*>(layer.y.data()), std::streamsize(n * 4)) || !out.flush())
    throw std::runtime_error("cannot write " + args["--output"]);

  std::cout << "{\"layer\": " << json_string(args["--layer"]) << ", \"dims\": [";
  for (uint64_t d = 0; d < layer.ndim; ++d) std::cout << (d ? ", " : "") << layer.dims[d];
  std::cout << "], \"count\": " << count << "}\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    std::cerr << "dnm-run: " << e.what() << "\n";
  } catch (...) {
    std::cerr << "dnm-run: unexpected error\n";
  }
  return 1;
}
