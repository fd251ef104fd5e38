#pragma once
#include "deepnet/layer_test.h"

namespace deepnet {

class layer_model_cost_logreg : public layer_model_base {
 public:
  layer_model_cost_logreg() : layer_model_base(layer_type_cost_logreg) {}
};

/// Mean negative log-probability of each sample's label: input 0 holds the probabilities,
/// input 1 one label per sample. A label outside the probability vector is an error.
class layer_test_cost_logreg : public layer_test_base<float> {
 public:
  void allocate(const layer_model_base& model) override;
  void fprop_test(uint64_t batch_count, const layer_model_base& model) override;
};

}  // namespace deepnet
