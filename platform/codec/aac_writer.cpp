#include "platform/codec/aac_writer.h"

#include <system_error>

#include "platform/codec/aac_encoder.h"
#include "platform/codec/aac_packet_sink.h"
#include "platform/codec/adts_file_sink.h"
#include "platform/codec/mpeg4_file_sink.h"

namespace vell::media {

namespace {

// One encoder feeding one container sink; every error is prefixed with the file's path.
class EncodingAacWriter final : public AacWriter {
public:
    EncodingAacWriter(std::filesystem::path path, AacSettings settings, std::unique_ptr<AacEncoder> encoder,
                      std::unique_ptr<AacPacketSink> sink)
        : path_(std::move(path)), settings_(std::move(settings)), encoder_(std::move(encoder)), sink_(std::move(sink)) {}

    ~EncodingAacWriter() override {
        if (open_) (void)finish();
    }

    Expected<Unit, std::string> write(const float* const* planes, int channels, std::size_t frames,
                                      int sampleRate) override {
        if (!open_) return closed();
        return named(encoder_->write(planes, channels, frames, sampleRate, *sink_));
    }

    Expected<Unit, std::string> syncToDisk() override {
        if (!open_) return closed();
        return named(sink_->syncToDisk());
    }

    Expected<Unit, std::string> finish() override {
        if (!open_) return closed();
        open_ = false;
        auto result = encoder_->flush(*sink_);
        // The container is closed even when the last frames failed: what is on disk stays
        // playable.
        auto closedSink = sink_->finish();
        if (result) result = closedSink;
        sink_.reset();
        return named(std::move(result));
    }

    Expected<Unit, std::string> continueInto(const std::filesystem::path& path) override {
        if (!open_) return closed();
        if (settings_.container != AacContainer::adts)
            return unexpected(path.string() + ": only ADTS files can continue into another file");
        auto next = AdtsFileSink::create(path, encoder_->context());
        if (!next) return unexpected(path.string() + ": " + next.error());
        // The old file keeps what reached it even if its last flush fails; the stream goes on.
        (void)sink_->finish();
        sink_ = std::move(*next);
        path_ = path;
        return Unit{};
    }

    const AacSettings& settings() const override { return settings_; }
    std::int64_t framesWritten() const override { return encoder_->framesAccepted(); }
    const std::filesystem::path& path() const override { return path_; }

private:
    Expected<Unit, std::string> named(Expected<Unit, std::string> result) const {
        if (result) return result;
        return unexpected(path_.string() + ": " + result.error());
    }
    Unexpected<std::string> closed() const { return unexpected(path_.string() + ": the file is closed"); }

    std::filesystem::path path_;
    AacSettings settings_;
    std::unique_ptr<AacEncoder> encoder_;  // outlives the sink, which reads its parameters
    std::unique_ptr<AacPacketSink> sink_;
    bool open_ = true;
};

}  // namespace

Expected<std::unique_ptr<AacWriter>, std::string> openAacWriter(const std::filesystem::path& path,
                                                                const AacSettings& settings) {
    auto named = [&](const std::string& reason) { return unexpected(path.string() + ": " + reason); };
    if (settings.sampleRate <= 0 || settings.channels <= 0 || settings.channels > 8) {
        return named("unsupported format (" + std::to_string(settings.channels) + " channels at " +
                     std::to_string(settings.sampleRate) + " Hz)");
    }
    const bool mpeg4 = settings.container == AacContainer::mpeg4;
    // The encoder first: a format it refuses leaves no file behind.
    auto encoder = AacEncoder::open({settings.sampleRate, settings.channels, settings.bitRate, mpeg4});
    if (!encoder) return named(encoder.error());

    std::unique_ptr<AacPacketSink> sink;
    if (mpeg4) {
        bool created = false;
        auto made = Mpeg4FileSink::create(path, (*encoder)->context(), created);
        if (!made) {
            if (created) {
                std::error_code ignored;
                std::filesystem::remove(path, ignored);
            }
            return named(made.error());
        }
        sink = std::move(*made);
    } else {
        auto made = AdtsFileSink::create(path, (*encoder)->context());
        if (!made) return named(made.error());
        sink = std::move(*made);
    }
    return std::unique_ptr<AacWriter>(
        std::make_unique<EncodingAacWriter>(path, settings, std::move(*encoder), std::move(sink)));
}

}  // namespace vell::media
