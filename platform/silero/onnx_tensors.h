#pragma once
// Reads the float tensors of an ONNX model file: graph initializers and the values of
// Constant nodes, in the main graph and in every subgraph (If branches). Enough of the
// protobuf wire format to find weights; the graph itself is not interpreted.
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/expected.h"

namespace vell::silero {

struct Tensor {
    std::vector<std::int64_t> dims;
    std::vector<float> values;
    std::size_t count() const;
};

// Tensors by name: an initializer's own name, or the output name of the Constant node that
// holds it. Tensors of other element types than 32-bit float are left out.
Expected<std::map<std::string, Tensor>, std::string> readOnnxTensors(std::string_view bytes);

}  // namespace vell::silero
