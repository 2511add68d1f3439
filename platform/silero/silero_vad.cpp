#include "platform/silero/silero_vad.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

#include "platform/silero/onnx_tensors.h"

namespace vell::silero {

namespace {

constexpr int kFilterLength = 256;
constexpr int kHop = 128;
constexpr int kBins = kFilterLength / 2 + 1;                        // 129
constexpr int kFrames = (kContextSamples + kChunkSamples + kContextSamples - kFilterLength) / kHop + 1;  // 4
constexpr int kHidden = 128;

// Eight partial sums, so the compiler can keep them in vector registers.
inline float dot(const float* a, const float* b, int n) {
    float acc[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    int i = 0;
    for (; i + 8 <= n; i += 8)
        for (int j = 0; j < 8; ++j) acc[j] += a[i + j] * b[i + j];
    float sum = ((acc[0] + acc[4]) + (acc[1] + acc[5])) + ((acc[2] + acc[6]) + (acc[3] + acc[7]));
    for (; i < n; ++i) sum += a[i] * b[i];
    return sum;
}

inline float sigmoid(float x) { return 1.0f / (1.0f + std::exp(-x)); }

using Tensors = std::map<std::string, Tensor>;

// Both branches of the graph (16 and 8 kHz) hold tensors of the same names under different
// prefixes; the 16 kHz one is the branch whose transform basis is 258 x 1 x 256.
Expected<std::string, std::string> sixteenKilohertzPrefix(const Tensors& tensors) {
    const std::string suffix = "stft.forward_basis_buffer";
    for (const auto& [name, tensor] : tensors) {
        if (name.size() >= suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0 &&
            tensor.dims == std::vector<std::int64_t>{2 * kBins, 1, kFilterLength})
            return name.substr(0, name.size() - suffix.size());
    }
    return unexpected(std::string("no 16 kHz Silero VAD graph (version 5 or 6) in this file"));
}

Expected<const Tensor*, std::string> find(const Tensors& tensors, const std::string& prefix, const std::string& name,
                                          std::vector<std::int64_t> dims) {
    auto it = tensors.find(prefix + name);
    if (it == tensors.end()) return unexpected("the model has no tensor " + name);
    if (it->second.dims != dims) return unexpected("the model's tensor " + name + " has an unexpected shape");
    return &it->second;
}

}  // namespace

Expected<std::shared_ptr<const Weights>, std::string> parseWeights(std::string_view onnxBytes) {
    auto tensors = readOnnxTensors(onnxBytes);
    if (!tensors) return unexpected(tensors.error());
    auto prefix = sixteenKilohertzPrefix(*tensors);
    if (!prefix) return unexpected(prefix.error());
    auto w = std::make_shared<Weights>();

    auto basis = find(*tensors, *prefix, "stft.forward_basis_buffer", {2 * kBins, 1, kFilterLength});
    if (!basis) return unexpected(basis.error());
    w->basis = (*basis)->values;

    const int shapes[4][3] = {{kBins, 128, 1}, {128, 64, 2}, {64, 64, 2}, {64, 128, 1}};  // in, out, stride
    for (int layer = 0; layer < 4; ++layer) {
        const int in = shapes[layer][0], out = shapes[layer][1];
        const std::string base = "encoder." + std::to_string(layer) + ".reparam_conv.";
        auto weight = find(*tensors, *prefix, base + "weight", {out, in, 3});
        if (!weight) return unexpected(weight.error());
        auto bias = find(*tensors, *prefix, base + "bias", {out});
        if (!bias) return unexpected(bias.error());
        auto& conv = w->encoder[static_cast<std::size_t>(layer)];
        conv.in = in;
        conv.out = out;
        conv.stride = shapes[layer][2];
        conv.bias = (*bias)->values;
        conv.weight.resize(static_cast<std::size_t>(out * 3 * in));
        const auto& src = (*weight)->values;  // [out][in][tap]
        for (int o = 0; o < out; ++o)
            for (int i = 0; i < in; ++i)
                for (int k = 0; k < 3; ++k)
                    conv.weight[static_cast<std::size_t>((o * 3 + k) * in + i)] =
                        src[static_cast<std::size_t>((o * in + i) * 3 + k)];
    }

    auto wih = find(*tensors, *prefix, "decoder.rnn.weight_ih", {4 * kHidden, kHidden});
    auto whh = find(*tensors, *prefix, "decoder.rnn.weight_hh", {4 * kHidden, kHidden});
    auto bih = find(*tensors, *prefix, "decoder.rnn.bias_ih", {4 * kHidden});
    auto bhh = find(*tensors, *prefix, "decoder.rnn.bias_hh", {4 * kHidden});
    auto dw = find(*tensors, *prefix, "decoder.decoder.2.weight", {1, kHidden, 1});
    auto db = find(*tensors, *prefix, "decoder.decoder.2.bias", {1});
    for (const auto* t : {&wih, &whh, &bih, &bhh, &dw, &db})
        if (!*t) return unexpected(t->error());
    w->inputWeights = (*wih)->values;
    w->hiddenWeights = (*whh)->values;
    w->gateBias.resize(4 * kHidden);
    for (int g = 0; g < 4 * kHidden; ++g) w->gateBias[static_cast<std::size_t>(g)] = (*bih)->values[g] + (*bhh)->values[g];
    w->decoderWeight = (*dw)->values;
    w->decoderBias = (*db)->values[0];
    return std::shared_ptr<const Weights>(std::move(w));
}

Expected<std::shared_ptr<const Weights>, std::string> loadWeights(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return unexpected("cannot read " + file.string());
    std::ostringstream bytes;
    bytes << in.rdbuf();
    auto weights = parseWeights(bytes.str());
    if (!weights) return unexpected(file.string() + ": " + weights.error());
    return weights;
}

Stream::Stream(std::shared_ptr<const Weights> weights)
    : w_(std::move(weights)),
      padded_(kContextSamples + kChunkSamples + kContextSamples),
      magnitudes_(kFrames * kBins),
      layerA_(kFrames * 128),
      layerB_(kFrames * 128),
      gates_(4 * kHidden) {}

void Stream::reset() {
    context_.fill(0);
    hidden_.fill(0);
    cell_.fill(0);
}

float Stream::process(const float* chunk) {
    const Weights& w = *w_;
    // The chunk behind its context, then mirrored at the right edge (the edge sample is not
    // repeated), so that the last frame of the transform is complete.
    constexpr int n = kContextSamples + kChunkSamples;
    std::copy(context_.begin(), context_.end(), padded_.begin());
    std::copy(chunk, chunk + kChunkSamples, padded_.begin() + kContextSamples);
    for (int k = 0; k < kContextSamples; ++k) padded_[static_cast<std::size_t>(n + k)] = padded_[static_cast<std::size_t>(n - 2 - k)];
    std::copy(chunk + kChunkSamples - kContextSamples, chunk + kChunkSamples, context_.begin());

    // Magnitude spectrum, time-major: magnitudes_[t][bin].
    for (int t = 0; t < kFrames; ++t) {
        const float* frame = padded_.data() + t * kHop;
        for (int bin = 0; bin < kBins; ++bin) {
            const float re = dot(w.basis.data() + bin * kFilterLength, frame, kFilterLength);
            const float im = dot(w.basis.data() + (kBins + bin) * kFilterLength, frame, kFilterLength);
            magnitudes_[static_cast<std::size_t>(t * kBins + bin)] = std::sqrt(re * re + im * im);
        }
    }

    // Encoder: kernel 3, padding 1, ReLU; activations time-major.
    const float* in = magnitudes_.data();
    int length = kFrames;
    std::vector<float>* outputs[4] = {&layerA_, &layerB_, &layerA_, &layerB_};
    for (int layer = 0; layer < 4; ++layer) {
        const auto& conv = w.encoder[static_cast<std::size_t>(layer)];
        const int outLength = (length + 2 - 3) / conv.stride + 1;
        float* out = outputs[layer]->data();
        for (int t = 0; t < outLength; ++t) {
            for (int o = 0; o < conv.out; ++o) {
                float sum = conv.bias[static_cast<std::size_t>(o)];
                for (int k = 0; k < 3; ++k) {
                    const int source = t * conv.stride + k - 1;
                    if (source < 0 || source >= length) continue;
                    sum += dot(conv.weight.data() + (o * 3 + k) * conv.in, in + source * conv.in, conv.in);
                }
                out[t * conv.out + o] = std::max(sum, 0.0f);
            }
        }
        in = out;
        length = outLength;
    }

    // One LSTM step on the single encoded frame.
    for (int g = 0; g < 4 * kHidden; ++g)
        gates_[static_cast<std::size_t>(g)] = w.gateBias[static_cast<std::size_t>(g)] +
                                              dot(w.inputWeights.data() + g * kHidden, in, kHidden) +
                                              dot(w.hiddenWeights.data() + g * kHidden, hidden_.data(), kHidden);
    float decoded = w.decoderBias;
    for (int j = 0; j < kHidden; ++j) {
        const float input = sigmoid(gates_[static_cast<std::size_t>(j)]);
        const float forget = sigmoid(gates_[static_cast<std::size_t>(kHidden + j)]);
        const float candidate = std::tanh(gates_[static_cast<std::size_t>(2 * kHidden + j)]);
        const float output = sigmoid(gates_[static_cast<std::size_t>(3 * kHidden + j)]);
        cell_[static_cast<std::size_t>(j)] = forget * cell_[static_cast<std::size_t>(j)] + input * candidate;
        hidden_[static_cast<std::size_t>(j)] = output * std::tanh(cell_[static_cast<std::size_t>(j)]);
        decoded += w.decoderWeight[static_cast<std::size_t>(j)] * std::max(hidden_[static_cast<std::size_t>(j)], 0.0f);
    }
    return sigmoid(decoded);
}

}  // namespace vell::silero
