#pragma once
#include <memory>

#include "deepnet/layer_test.h"

namespace deepnet {

/// Creates the runnable layer for a model's type code, or nullptr for a code that is not a
/// layer type. The data layer reads from `view`.
std::shared_ptr<layer_test_base<float>> deepnet_create_layer_test(uint32_t type, const input_view* view);

}  // namespace deepnet
