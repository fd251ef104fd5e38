#pragma once
// Layer models: the parameters and trained weights of one layer as read from a model file.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace deepnet {

class byte_reader;
class byte_writer;

/// Layer type codes as stored in model files. The gaps (2, 8, 9, 11 to 15) are not layer types
/// and must never be renumbered.
enum layer_type : uint32_t {
  layer_type_data = 0,
  layer_type_conv3d = 1,
  layer_type_fc = 3,
  layer_type_normcross3d = 4,
  layer_type_poolmax3d = 5,
  layer_type_poolavg3d = 6,
  layer_type_activation = 7,
  layer_type_concat = 10,
  layer_type_softmax = 16,
  layer_type_cost_logreg = 17,
};

class layer_model_base;
/// The model list: layer models in file order, shared so that engines can keep them.
using layer_model_list = std::vector<std::shared_ptr<layer_model_base>>;

/// Common part of every layer model: type code, name and the earlier layers it reads.
class layer_model_base {
 public:
  explicit layer_model_base(uint32_t t) : type(t) {}
  virtual ~layer_model_base() = default;

  uint32_t type;
  std::string name;                       ///< raw bytes, compared by length and bytes
  std::vector<layer_model_base*> inputs;  ///< non-owning, into the same model list

  /// Reads type, name and input names; each input name binds to the first layer of `layers`
  /// (which already holds this layer) with the same name. Subclasses call this first.
  virtual void deserialize(byte_reader& in, const layer_model_list& layers);
  /// Writes the common part; subclasses append their own fields.
  virtual void serialize(byte_writer& out) const;

  /// First layer of `layers` whose name equals `name`, or nullptr.
  static layer_model_base* find(const layer_model_list& layers, const std::string& name);
};

/// Creates an empty layer model for a type code, or nullptr when the code is not a layer type.
std::shared_ptr<layer_model_base> deepnet_create_layer_model(uint32_t type);

}  // namespace deepnet
