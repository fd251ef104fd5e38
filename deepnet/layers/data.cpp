#include "deepnet/layers/data.h"

#include <algorithm>
#include <stdexcept>

#include "deepnet/byte_io.h"

namespace deepnet {

void layer_model_data::deserialize(byte_reader& in, const layer_model_list& layers) {
  layer_model_base::deserialize(in, layers);
  is_1d = in.u32();
}

void layer_model_data::serialize(byte_writer& out) const {
  layer_model_base::serialize(out);
  out.u32(is_1d);
}

void layer_test_data::allocate(const layer_model_base& model) {
  const auto& m = static_cast<const layer_model_data&>(model);
  if (!inputs.empty()) throw std::runtime_error("layer_test_data::allocate(): Incorrect input size");
  if (m.is_1d) {
    set_output(1, view_->channels);
    return;
  }
  // The copy in fprop_test reads width × height values for every sample of the batch.
  if (view_->count < batch || (batch > 0 && view_->data == nullptr) || view_->channels < 1)
    throw std::runtime_error("layer_test_data::allocate(): input view holds fewer images than the batch");
  set_output(3, view_->width, view_->height, view_->channels);
}

void layer_test_data::fprop_test(uint64_t batch_count, const layer_model_base& model) {
  const auto& m = static_cast<const layer_model_data&>(model);
  // Labels are all 0; image input copies one plane per sample and leaves any further channel
  // planes at 0.
  std::fill(y.begin(), y.end(), 0.0f);
  if (m.is_1d) return;
  const uint64_t n = std::min<uint64_t>(view_->width * view_->height * batch_count, y.size());
  std::copy(view_->data, view_->data + n, y.begin());
}

}  // namespace deepnet
