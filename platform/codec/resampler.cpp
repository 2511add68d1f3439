#include "platform/codec/resampler.h"
#include "platform/codec/ffmpeg_library.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <algorithm>

namespace vell::media {

namespace {
// Only openSwrResampler() makes one, so its parts stay open to it.
class SwrResampler final : public Resampler {
public:
    SwrResampler(int inRate, int inChannels, int outRate, int outChannels)
        : Resampler(inRate, inChannels, outRate, outChannels) {}
    ~SwrResampler() override;

    std::size_t maxOutputFrames(std::size_t inFrames) const override;
    Expected<Unit, std::string> convert(const float* const* in, std::size_t frames,
                                        std::vector<std::vector<float>>& out) override;
    Expected<Unit, std::string> drain(std::vector<std::vector<float>>& out) override;

    Expected<Unit, std::string> run(const float* const* in, std::size_t frames, std::vector<std::vector<float>>& out);

    struct Impl;
    std::unique_ptr<Impl> impl_;
};
}  // namespace

struct SwrResampler::Impl {
    SwrContext* swr = nullptr;
    // Mono into several channels is converted as mono and copied: the library's matrix
    // would lower a centred voice by 3 dB on each side.
    bool duplicateMono = false;
    int swrOutChannels = 0;
    ~Impl() { ff().swr_free(&swr); }
};

Expected<std::unique_ptr<Resampler>, std::string> openSwrResampler(int inRate, int inChannels, int outRate,
                                                                   int outChannels) {
    if (auto library = ffmpegLibrary(); !library) return unexpected(library.error());
    if (inRate <= 0 || outRate <= 0 || inChannels <= 0 || outChannels <= 0) {
        return unexpected(std::string("unsupported audio format: ") + std::to_string(inChannels) + " channels at " +
                          std::to_string(inRate) + " Hz");
    }
    std::unique_ptr<SwrResampler> r(new SwrResampler(inRate, inChannels, outRate, outChannels));
    r->impl_ = std::make_unique<SwrResampler::Impl>();
    r->impl_->duplicateMono = inChannels == 1 && outChannels > 1;
    r->impl_->swrOutChannels = r->impl_->duplicateMono ? 1 : outChannels;

    AVChannelLayout inLayout, outLayout;
    ff().av_channel_layout_default(&inLayout, inChannels);
    ff().av_channel_layout_default(&outLayout, r->impl_->swrOutChannels);
    int rc = ff().swr_alloc_set_opts2(&r->impl_->swr, &outLayout, AV_SAMPLE_FMT_FLTP, outRate, &inLayout,
                                 AV_SAMPLE_FMT_FLTP, inRate, 0, nullptr);
    ff().av_channel_layout_uninit(&inLayout);
    ff().av_channel_layout_uninit(&outLayout);
    if (rc < 0) return unexpected("swr_alloc_set_opts2: " + ffmpegErrorText(rc));
    rc = ff().swr_init(r->impl_->swr);
    if (rc < 0) return unexpected("swr_init: " + ffmpegErrorText(rc));
    return std::unique_ptr<Resampler>(std::move(r));
}

SwrResampler::~SwrResampler() = default;

std::size_t SwrResampler::maxOutputFrames(std::size_t inFrames) const {
    int n = ff().swr_get_out_samples(impl_->swr, static_cast<int>(inFrames));
    return n < 0 ? 0 : static_cast<std::size_t>(n);
}

Expected<Unit, std::string> SwrResampler::convert(const float* const* in, std::size_t frames,
                                                  std::vector<std::vector<float>>& out) {
    return run(in, frames, out);
}

Expected<Unit, std::string> SwrResampler::drain(std::vector<std::vector<float>>& out) { return run(nullptr, 0, out); }

Expected<Unit, std::string> SwrResampler::run(const float* const* in, std::size_t frames,
                                              std::vector<std::vector<float>>& out) {
    const int capacity = ff().swr_get_out_samples(impl_->swr, static_cast<int>(frames)) + 16;
    out.resize(static_cast<std::size_t>(outChannels()));
    uint8_t* planes[AV_NUM_DATA_POINTERS] = {};
    for (int c = 0; c < impl_->swrOutChannels; ++c) {
        out[c].resize(static_cast<std::size_t>(capacity));
        planes[c] = reinterpret_cast<uint8_t*>(out[c].data());
    }
    const int produced = ff().swr_convert(impl_->swr, planes, capacity, reinterpret_cast<const uint8_t**>(const_cast<const float**>(in)),
                                     static_cast<int>(frames));
    if (produced < 0) {
        for (auto& plane : out) plane.clear();
        return unexpected("swr_convert: " + ffmpegErrorText(produced));
    }
    for (int c = 0; c < impl_->swrOutChannels; ++c) out[c].resize(static_cast<std::size_t>(produced));
    if (impl_->duplicateMono) {
        for (int c = 1; c < outChannels(); ++c) out[c] = out[0];
    }
    return Unit{};
}

}  // namespace vell::media
