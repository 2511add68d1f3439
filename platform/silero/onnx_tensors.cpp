#include "platform/silero/onnx_tensors.h"

#include <cstring>
#include <functional>

namespace vell::silero {

namespace {

// Field numbers of onnx.proto (ModelProto, GraphProto, NodeProto, AttributeProto, TensorProto).
constexpr int kModelGraph = 7;
constexpr int kGraphNode = 1, kGraphInitializer = 5;
constexpr int kNodeOutput = 2, kNodeOpType = 4, kNodeAttribute = 5;
constexpr int kAttributeName = 1, kAttributeTensor = 5, kAttributeGraph = 6;
constexpr int kTensorDims = 1, kTensorDataType = 2, kTensorFloatData = 4, kTensorName = 8, kTensorRawData = 9;
constexpr std::uint64_t kFloat = 1;

struct Field {
    int number = 0;
    int wire = 0;
    std::uint64_t varint = 0;   // wire type 0
    std::string_view bytes;     // wire types 1, 2, 5
};

class Reader {
public:
    explicit Reader(std::string_view data) : data_(data) {}
    bool done() const { return pos_ >= data_.size(); }

    bool next(Field& field) {
        std::uint64_t key = 0;
        if (!varint(key)) return false;
        field.number = static_cast<int>(key >> 3);
        field.wire = static_cast<int>(key & 7);
        switch (field.wire) {
            case 0: return varint(field.varint);
            case 1: return take(8, field.bytes);
            case 5: return take(4, field.bytes);
            case 2: {
                std::uint64_t length = 0;
                return varint(length) && take(length, field.bytes);
            }
            default: return false;  // groups are not used by ONNX
        }
    }

    bool varint(std::uint64_t& value) {
        value = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            if (pos_ >= data_.size()) return false;
            const auto byte = static_cast<std::uint8_t>(data_[pos_++]);
            value |= std::uint64_t(byte & 0x7f) << shift;
            if (byte < 0x80) return true;
        }
        return false;
    }

private:
    bool take(std::uint64_t length, std::string_view& out) {
        if (length > data_.size() - pos_) return false;
        out = data_.substr(pos_, length);
        pos_ += length;
        return true;
    }

    std::string_view data_;
    std::size_t pos_ = 0;
};

using Tensors = std::map<std::string, Tensor>;

bool readFloats(std::string_view bytes, std::vector<float>& out) {
    if (bytes.size() % 4 != 0) return false;
    const std::size_t start = out.size();
    out.resize(start + bytes.size() / 4);
    std::memcpy(out.data() + start, bytes.data(), bytes.size());  // little-endian, as stored
    return true;
}

// Fills `tensor` (and its name when it has one); `isFloat` tells whether to keep it.
bool readTensor(std::string_view bytes, Tensor& tensor, std::string& name, bool& isFloat) {
    Reader reader(bytes);
    Field f;
    std::uint64_t type = 0;
    while (!reader.done()) {
        if (!reader.next(f)) return false;
        if (f.number == kTensorDims) {
            if (f.wire == 0) {
                tensor.dims.push_back(static_cast<std::int64_t>(f.varint));
            } else {
                Reader packed(f.bytes);
                std::uint64_t v = 0;
                while (!packed.done()) {
                    if (!packed.varint(v)) return false;
                    tensor.dims.push_back(static_cast<std::int64_t>(v));
                }
            }
        } else if (f.number == kTensorDataType && f.wire == 0) {
            type = f.varint;
        } else if (f.number == kTensorName && f.wire == 2) {
            name = std::string(f.bytes);
        } else if ((f.number == kTensorRawData || f.number == kTensorFloatData) && f.wire != 0) {
            if (!readFloats(f.bytes, tensor.values)) return false;
        }
    }
    isFloat = type == kFloat;
    return !isFloat || tensor.values.size() == tensor.count();
}

bool readGraph(std::string_view bytes, Tensors& out);

bool readNode(std::string_view bytes, Tensors& out) {
    Reader reader(bytes);
    Field f;
    std::string firstOutput, opType;
    std::vector<std::string_view> attributes;
    while (!reader.done()) {
        if (!reader.next(f)) return false;
        if (f.number == kNodeOutput && f.wire == 2 && firstOutput.empty()) firstOutput = std::string(f.bytes);
        if (f.number == kNodeOpType && f.wire == 2) opType = std::string(f.bytes);
        if (f.number == kNodeAttribute && f.wire == 2) attributes.push_back(f.bytes);
    }
    for (auto attribute : attributes) {
        Reader ar(attribute);
        std::string name;
        while (!ar.done()) {
            if (!ar.next(f)) return false;
            if (f.number == kAttributeName && f.wire == 2) name = std::string(f.bytes);
            if (f.number == kAttributeGraph && f.wire == 2 && !readGraph(f.bytes, out)) return false;
            if (f.number == kAttributeTensor && f.wire == 2 && opType == "Constant") {
                Tensor tensor;
                std::string ignored;
                bool isFloat = false;
                if (!readTensor(f.bytes, tensor, ignored, isFloat)) return false;
                if (isFloat) out[firstOutput] = std::move(tensor);
            }
        }
    }
    return true;
}

bool readGraph(std::string_view bytes, Tensors& out) {
    Reader reader(bytes);
    Field f;
    while (!reader.done()) {
        if (!reader.next(f)) return false;
        if (f.wire != 2) continue;
        if (f.number == kGraphNode && !readNode(f.bytes, out)) return false;
        if (f.number == kGraphInitializer) {
            Tensor tensor;
            std::string name;
            bool isFloat = false;
            if (!readTensor(f.bytes, tensor, name, isFloat)) return false;
            if (isFloat) out[name] = std::move(tensor);
        }
    }
    return true;
}

}  // namespace

std::size_t Tensor::count() const {
    std::size_t n = 1;
    for (auto d : dims) n *= static_cast<std::size_t>(d);
    return n;
}

Expected<std::map<std::string, Tensor>, std::string> readOnnxTensors(std::string_view bytes) {
    Reader reader(bytes);
    Field f;
    Tensors tensors;
    bool sawGraph = false;
    while (!reader.done()) {
        if (!reader.next(f)) return unexpected(std::string("not an ONNX model (damaged protobuf)"));
        if (f.number == kModelGraph && f.wire == 2) {
            sawGraph = true;
            if (!readGraph(f.bytes, tensors)) return unexpected(std::string("not an ONNX model (damaged graph)"));
        }
    }
    if (!sawGraph) return unexpected(std::string("not an ONNX model (no graph)"));
    return tensors;
}

}  // namespace vell::silero
