#pragma once
// Our own forward pass of the Silero voice-activity network (versions 5 and 6 share one
// graph): a short-time Fourier transform done as a convolution, four convolution layers,
// one LSTM cell and a one-unit decoder. It takes 16 kHz mono audio in chunks of 512 samples
// (32 ms) and gives each chunk the probability that it holds speech. Only the weights come
// from the ONNX file; the arithmetic is here, so no ONNX runtime is needed.
#include <array>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/expected.h"

namespace vell::silero {

inline constexpr int kSampleRate = 16000;
inline constexpr int kChunkSamples = 512;
inline constexpr int kContextSamples = 64;

// The network's parameters, laid out for the forward pass. Shared read-only by every stream.
struct Weights {
    struct Conv {
        int in = 0, out = 0, stride = 1;
        std::vector<float> weight;  // [out][tap 0..2][in]
        std::vector<float> bias;    // [out]
    };
    std::vector<float> basis;         // [258][256]: real then imaginary parts of 129 bins
    std::array<Conv, 4> encoder;
    std::vector<float> inputWeights;  // [512][128], gates in the order input, forget, cell, output
    std::vector<float> hiddenWeights; // [512][128]
    std::vector<float> gateBias;      // [512]: both biases summed
    std::vector<float> decoderWeight; // [128]
    float decoderBias = 0;
};

// Reads the 16 kHz branch of a Silero VAD ONNX file (version 5 or 6).
Expected<std::shared_ptr<const Weights>, std::string> loadWeights(const std::filesystem::path& file);
Expected<std::shared_ptr<const Weights>, std::string> parseWeights(std::string_view onnxBytes);

// One audio stream through the network: keeps the recurrent state and the 64 samples of
// context that each chunk is analysed with. Not thread-safe; one per analysis stream.
class Stream {
public:
    explicit Stream(std::shared_ptr<const Weights> weights);
    // kChunkSamples samples in -1...1; returns the speech probability of the chunk.
    float process(const float* chunk);
    void reset();

private:
    std::shared_ptr<const Weights> w_;
    std::array<float, kContextSamples> context_{};
    std::array<float, 128> hidden_{}, cell_{};
    // Scratch, kept to avoid allocation per chunk.
    std::vector<float> padded_, magnitudes_, layerA_, layerB_, gates_;
};

}  // namespace vell::silero
