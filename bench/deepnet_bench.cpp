// Forward-pass speed of the reference network (109×109×1 in, "pool4" with 768 values out):
// five convolutions, two normalisations, four max pools. Weights come from the model file in
// FONTRIX_BENCH_MODEL (bench/compare_pytorch.py exports the same weights it times in PyTorch)
// or, without it, from a fixed random generator.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <random>
#include <string>

#include "bench/reference_blas.h"
#include "deepnet/gemm.h"
#include "deepnet/layers/activation.h"
#include "deepnet/layers/conv3d.h"
#include "deepnet/layers/data.h"
#include "deepnet/layers/normcross3d.h"
#include "deepnet/layers/pool3d.h"
#include "deepnet/model_io.h"
#include "deepnet/network.h"
#include "deepnet/parallel.h"

namespace {

using namespace deepnet;

constexpr uint64_t kSide = 109;

layer_model_list generated_reference_net() {
  layer_model_list models;
  std::mt19937 gen(109);
  auto add = [&](auto layer, const std::string& name, const std::string& input) {
    layer->name = name;
    if (!input.empty()) layer->inputs.push_back(layer_model_base::find(models, input));
    models.push_back(layer);
    return layer;
  };
  auto conv = [&](const std::string& name, const std::string& input, uint32_t in, uint32_t out, uint32_t k,
                  uint32_t stride, uint32_t pad) {
    auto c = add(std::make_shared<layer_model_conv3d>(), name, input);
    c->num_input = in;
    c->num_output = out;
    c->kernel_w = c->kernel_h = k;
    c->stride_w = c->stride_h = stride;
    c->pad_w_begin = c->pad_w_end = c->pad_h_begin = c->pad_h_end = pad;
    std::normal_distribution<float> w(0.0f, std::sqrt(2.0f / float(in * k * k)));
    c->weights.resize(c->weight_count());
    for (auto& v : c->weights) v = w(gen);
    c->biases.assign(out, 0.01f);
    add(std::make_shared<layer_model_activation>(), "relu_" + name, name);
    return "relu_" + name;
  };
  auto norm = [&](const std::string& name, const std::string& input) {
    auto n = add(std::make_shared<layer_model_normcross3d>(), name, input);
    n->local_size = 5;
    n->alpha = 1e-4f;
    n->beta = 0.75f;
    n->k = 2.0f;
    return name;
  };
  auto pool = [&](const std::string& name, const std::string& input, uint32_t k, uint32_t s) {
    auto p = add(std::make_shared<layer_model_poolmax3d>(), name, input);
    p->kernel_w = p->kernel_h = k;
    p->stride_w = p->stride_h = s;
    return name;
  };
  add(std::make_shared<layer_model_data>(), "data", "");
  auto x = pool("pool1", norm("norm1", conv("conv1", "data", 1, 64, 11, 2, 0)), 3, 2);
  x = pool("pool2", norm("norm2", conv("conv2", x, 64, 128, 5, 1, 2)), 3, 2);
  x = conv("conv4", conv("conv3", x, 128, 256, 3, 1, 1), 256, 256, 3, 1, 1);
  x = pool("pool3", x, 3, 2);
  pool("pool4", conv("conv5", x, 256, 192, 3, 1, 1), 3, 3);
  return models;
}

const layer_model_list& reference_net() {
  static const layer_model_list models = [] {
    const char* path = std::getenv("FONTRIX_BENCH_MODEL");
    if (!path || !*path) return generated_reference_net();
    layer_model_list loaded;
    deepnet_load_model(path, loaded);
    return loaded;
  }();
  return models;
}

std::vector<float> pixels(uint64_t count) {
  std::mt19937 gen(5);
  std::uniform_real_distribution<float> d(-128.0f, 127.0f);
  std::vector<float> v(count * kSide * kSide);
  for (auto& p : v) p = d(gen);
  return v;
}

// Multiply-adds of the convolutions, counted as two operations each.
double flops_per_sample(const layer_model_list& models, const layer_test_list& tests) {
  double flops = 0;
  for (size_t i = 0; i < models.size(); ++i)
    if (models[i]->type == layer_type_conv3d) {
      const auto& m = static_cast<const layer_model_conv3d&>(*models[i]);
      flops += 2.0 * double(tests[i]->dims[0] * tests[i]->dims[1]) * m.num_output * m.kernel_w * m.kernel_h *
               (m.num_input / m.group);
    }
  return flops;
}

// The network built once for a batch of crops, as the benchmarks of its parts run it.
struct built_net {
  explicit built_net(uint64_t batch) : input(pixels(batch)) {
    input_view view{kSide, kSide, 1, batch, input.data()};
    deepnet_construct_layer_test(tests, reference_net(), view, batch);
  }
  std::vector<float> input;
  layer_test_list tests;
};

void BM_ReferenceNet(benchmark::State& state) {
  const uint64_t batch = uint64_t(state.range(0));
  deepnet_set_num_threads(int(state.range(1)));
  const auto& models = reference_net();
  const auto input = pixels(batch);
  input_view view{kSide, kSide, 1, batch, input.data()};
  double flops = 0;
  for (auto _ : state) {
    // A query builds its runnable list afresh, so construction is part of the cost.
    layer_test_list tests;
    deepnet_construct_layer_test(tests, models, view, batch);
    const size_t i = deepnet_compute_feature(models, tests, batch, "pool4");
    benchmark::DoNotOptimize(tests[i]->y.data());
    if (flops == 0) flops = flops_per_sample(models, tests) * double(batch);
  }
  state.counters["GFLOP/s"] = benchmark::Counter(flops * 1e-9, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["MFLOP/sample"] = flops * 1e-6 / double(batch);
  deepnet_set_num_threads(1);
}
BENCHMARK(BM_ReferenceNet)
    ->ArgNames({"batch", "threads"})
    ->Args({5, 1})
    ->Args({10, 1})
    ->Args({5, 2})
    ->Args({10, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Where the time goes: milliseconds per forward pass spent in each kind of layer (one thread).
void BM_ReferenceNetByLayer(benchmark::State& state) {
  const uint64_t batch = uint64_t(state.range(0));
  deepnet_set_num_threads(1);
  const auto& models = reference_net();
  built_net net(batch);
  layer_test_list& tests = net.tests;
  std::map<uint32_t, double> seconds;
  for (auto _ : state)
    for (size_t j = 0; j < models.size(); ++j) {
      const auto t0 = std::chrono::steady_clock::now();
      tests[j]->fprop_test(batch, *models[j]);
      seconds[models[j]->type] += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    }
  const std::map<uint32_t, const char*> names = {{layer_type_conv3d, "conv_ms"},
                                                 {layer_type_normcross3d, "norm_ms"},
                                                 {layer_type_poolmax3d, "pool_ms"},
                                                 {layer_type_activation, "relu_ms"},
                                                 {layer_type_data, "data_ms"}};
  for (const auto& [type, s] : seconds)
    if (names.count(type)) state.counters[names.at(type)] = s * 1e3 / double(state.iterations());
}

// Each layer's milliseconds at batch 10 on one thread, the convolutions by path: "winograd" as
// shipped, "unfolded" with the Winograd tiles turned off.
void BM_ReferenceNetLayers(benchmark::State& state) {
  const bool winograd = state.range(0) != 0;
  conv3d_allow_winograd(winograd);
  deepnet_set_num_threads(1);
  const uint64_t batch = 10;
  const auto& models = reference_net();
  built_net net(batch);
  layer_test_list& tests = net.tests;
  std::map<std::string, double> seconds;
  for (auto _ : state)
    for (size_t j = 0; j < models.size(); ++j) {
      const auto t0 = std::chrono::steady_clock::now();
      tests[j]->fprop_test(batch, *models[j]);
      seconds[models[j]->name] += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    }
  for (const auto& [name, s] : seconds) state.counters[name + "_ms"] = s * 1e3 / double(state.iterations());
  state.SetLabel(winograd ? "winograd" : "unfolded");
  conv3d_allow_winograd(true);
}
BENCHMARK(BM_ReferenceNetLayers)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReferenceNetByLayer)->ArgNames({"batch"})->Arg(10)->Unit(benchmark::kMillisecond)->UseRealTime();

// The convolutions' matrix products alone, with the shapes the engine gives them at batch 10
// on one thread: the floor for the convolution time, so unfolding cost = conv_ms − this.
void BM_ReferenceNetProductsOnly(benchmark::State& state) {
  deepnet_set_num_threads(1);
  const uint64_t batch = 10;
  const auto& models = reference_net();
  built_net net(batch);
  layer_test_list& tests = net.tests;
  struct product {
    int m, n, k, repeats;
  };
  std::vector<product> products;
  size_t largest = 0;
  for (size_t i = 0; i < models.size(); ++i)
    if (models[i]->type == layer_type_conv3d) {
      const auto& c = static_cast<const layer_model_conv3d&>(*models[i]);
      const int M = int(tests[i]->dims[0] * tests[i]->dims[1]);
      const int K = int(c.kernel_w * c.kernel_h * c.num_input / c.group);
      const int per = std::max(1, int((uint64_t{1} << 20) / uint64_t(K * M)));
      const int samples = std::min<int>(per, int(batch));
      products.push_back({M * samples, int(c.num_output), K, int((batch + samples - 1) / samples)});
      largest = std::max(largest, size_t(M) * samples * std::max(K, int(c.num_output)));
    }
  std::vector<float> a(largest, 0.5f), b(largest, 0.25f), c(largest);
  const bool own = state.range(0) != 0;
  double flops = 0;
  for (const auto& p : products) flops += 2.0 * p.m * p.n * double(p.k) * p.repeats;
  for (auto _ : state)
    for (const auto& p : products)
      for (int r = 0; r < p.repeats; ++r) {
        // The same column-major product: C (positions × outputs) = unfolded · weights.
        if (own)
          gemm(uint64_t(p.n), uint64_t(p.m), uint64_t(p.k), b.data(), uint64_t(p.k), a.data(), uint64_t(p.m), false,
               c.data(), uint64_t(p.m), false);
        else
          deepnet::sgemm('n', 'n', p.m, p.n, p.k, 1.0f, a.data(), p.m, b.data(), p.k, 0.0f, c.data(), p.m);
      }
  state.counters["GFLOP/s"] = benchmark::Counter(flops * 1e-9, benchmark::Counter::kIsIterationInvariantRate);
  state.SetLabel(own ? std::string("engine (") + active_kernels().name + ")" : "reference BLAS");
}
BENCHMARK(BM_ReferenceNetProductsOnly)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  // The reference BLAS runs on one thread, as each of the engine's products does.
  openblas_set_num_threads(1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
