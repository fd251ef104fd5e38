#pragma once
#include "deepnet/layer_test.h"

namespace deepnet {

/// Local response normalisation across neighbouring channels.
class layer_model_normcross3d : public layer_model_base {
 public:
  layer_model_normcross3d() : layer_model_base(layer_type_normcross3d) {}
  uint32_t local_size = 5;
  float k = 1.0f, alpha = 1.0f, beta = 0.75f;
  void deserialize(byte_reader& in, const layer_model_list& layers) override;
  void serialize(byte_writer& out) const override;
};

/// out = x / (k + alpha / local_size · Σ x²)^beta over channels c − half .. c + half clipped to
/// the tensor; the divisor stays local_size at the edges, and a zero input gives exactly 0.
class layer_test_normcross3d : public layer_test_base<float> {
 public:
  void allocate(const layer_model_base& model) override;
  void fprop_test(uint64_t batch_count, const layer_model_base& model) override;

 private:
  uint64_t chunks_ = 1;
  std::vector<aligned_buffer<float>> squares_;  ///< per chunk: one sample's squared input
};

}  // namespace deepnet
