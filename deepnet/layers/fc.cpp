#include "deepnet/layers/fc.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "deepnet/byte_io.h"
#include "deepnet/gemm.h"

namespace deepnet {

void layer_model_fc::deserialize(byte_reader& in, const layer_model_list& layers) {
  layer_model_base::deserialize(in, layers);
  input_sizes.resize(inputs.size());
  uint64_t total = 0;
  for (auto& size : input_sizes) {
    size = in.u32();
    total += size;
  }
  num_output = in.u32();
  // total < 2^64 / 2^32 inputs' worth; the product saturates rather than wraps.
  const uint64_t count = (num_output && total > std::numeric_limits<uint64_t>::max() / num_output)
                             ? std::numeric_limits<uint64_t>::max()
                             : total * num_output;
  in.floats(weights, count);
  in.floats(biases, num_output);
}

void layer_model_fc::serialize(byte_writer& out) const {
  layer_model_base::serialize(out);
  for (uint32_t size : input_sizes) out.u32(size);
  out.u32(num_output);
  out.floats(weights);
  out.floats(biases);
}

void layer_test_fc::allocate(const layer_model_base& model) {
  const auto& m = static_cast<const layer_model_fc&>(model);
  uint64_t needed = 0;
  for (const auto* in : inputs) {
    const uint64_t n = in->y_size_1d();
    if (n > uint64_t{std::numeric_limits<int>::max()})
      throw std::runtime_error("layer_test_fc::allocate(): input too large");
    needed += n * m.num_output;
  }
  if (needed > m.weights.size())
    throw std::runtime_error("layer_test_fc::allocate(): inputs need more weights than the model holds");
  set_output(1, m.num_output);
  std::vector<uint64_t> sizes;
  for (const auto* in : inputs) sizes.push_back(in->y_size_1d());
  const isa_kernels& kernels = active_kernels();
  packed_ = m.packed_cache.get(
      [&](const layer_model_fc::packed_weights& p) { return p.kernels == &kernels && p.input_sizes == sizes; },
      [&] {
        auto p = std::make_shared<layer_model_fc::packed_weights>();
        p->kernels = &kernels;
        p->input_sizes = sizes;
        const float* w = m.weights.data();
        // Input k's block holds num_output rows of its size: transposed, it is the product's B.
        for (uint64_t n : sizes) {
          p->blocks.emplace_back(n, m.num_output, w, n, true, kernels);
          w += n * m.num_output;
        }
        return std::shared_ptr<const layer_model_fc::packed_weights>(std::move(p));
      });
}

void layer_test_fc::fprop_test(uint64_t batch_count, const layer_model_base& model) {
  const auto& m = static_cast<const layer_model_fc&>(model);
  const uint64_t B = std::min(batch_count, batch), N = m.num_output;
  std::fill(y.begin(), y.end(), 0.0f);
  // Row-major: y (B × N) += x (B × Nk) · wᵀ, each input's block holding N rows of its Nk.
  for (size_t i = 0; i < inputs.size(); ++i)
    gemm(B, inputs[i]->y.data(), inputs[i]->y_size_1d(), packed_->blocks[i], y.data(), N, true);
  for (uint64_t b = 0; b < B; ++b)
    for (uint64_t o = 0; o < N; ++o) y[b * N + o] += m.biases[o];
}

}  // namespace deepnet
