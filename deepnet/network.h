#pragma once
// Building a runnable network for one batch and running it up to a named layer.
#include <cstdint>

#include "deepnet/layer_model.h"
#include "deepnet/layer_test.h"

namespace deepnet {

/// Appends one runnable layer per layer model, in model order, each sized for `batch` samples
/// of `view`. Throws std::runtime_error on an unknown type code or a shape the layer refuses.
void deepnet_construct_layer_test(layer_test_list& tests, const layer_model_list& models, const input_view& view,
                                  uint64_t batch);

/// Runs layers 0..i, where i is the first layer named `name`, and returns i; the caller reads
/// tests[i]->y and dims. Throws when no layer has that name.
size_t deepnet_compute_feature(const layer_model_list& models, layer_test_list& tests, uint64_t batch,
                               const char* name);

}  // namespace deepnet
