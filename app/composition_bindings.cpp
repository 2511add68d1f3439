// The Linux bindings behind the core's ports: PulseAudio with the ALSA fallback for capture,
// FFmpeg for files and conversion, the Silero network for speech (WebRTC's voice detector
// for the benchmark's comparison), WebRTC's echo canceller, libcurl and libplist for the
// service, libsecret for session storage. Nothing else in the core names them.
#include <mutex>

#include "app/clipboard.h"
#include "app/composition.h"
#include "audio/echo_canceller.h"
#include "audio/mic_capture.h"
#include "audio/microphone_settings.h"
#include "audio/output_route.h"
#include "platform/aec/webrtc_echo_canceller.h"
#include "platform/alsa/alsa_mic_engine.h"
#include "insurance/insurance_chunk_writer.h"
#include "insurance/preview_player.h"
#include "platform/codec/aac_writer.h"
#include "platform/codec/adts_decoder.h"
#include "platform/desktop/command_clipboard.h"
#include "platform/codec/resampler.h"
#include "platform/http/curl_session.h"
#include "platform/http/http_user_agent.h"
#include "platform/http/plist_cookies.h"
#include "platform/pulse/pulse_input_devices.h"
#include "platform/pulse/pulse_mic_engine.h"
#include "platform/pulse/pulse_output_route.h"
#include "platform/pulse/preview_player.h"
#include "platform/secrets/secret_store.h"
#include "platform/silero/silero_classifier.h"
#include "platform/vad/webrtc_vad.h"

namespace vell::app {

void installPlatformBindings() {
    static std::once_flag once;
    std::call_once(once, [] {
        media::setDefaultAacWriterFactory(&media::openAacWriter);
        media::Resampler::setFactory(&media::openSwrResampler);
        media::VoiceActivityDetector::setFactory(&media::openWebRtcVad);
        audio::setSpeechClassifierFactory(&silero::loadSpeechClassifier);
        audio::EchoCanceller::setFactory(&aec::openWebRtcEchoCanceller);
        audio::OutputRouteWatcher::setFactory(&platform::makePulseOutputRouteWatcher);
        audio::MicCapture::setDefaultEngines([] { return platform::makePulseMicEngine(); },
                                             [] { return platform::makeAlsaMicEngine(); });
        // Insurance mode: the server hands over the chunks' mono 16 kHz in 200 ms blocks (half the
        // wake-ups of 100 ms, and at most that much is still in the server when a chunk is sealed).
        audio::MicCapture::setListeningEngine([] {
            return platform::makePulseMicEngine(
                {static_cast<uint32_t>(insurance::kEncoderRows.front().sampleRate), 1, 0.2});
        });
        audio::MicrophoneSettings::setDefaultDeviceProvider([] { return platform::makePulseInputDevices(); });
        insurance::setPreviewPlayerFactory([] {
            return platform::makePulsePreviewPlayer([](const std::filesystem::path& file) -> std::optional<platform::PlaybackPcm> {
                auto decoded = media::decodeAdtsFile(file);
                if (!decoded) return std::nullopt;
                return platform::PlaybackPcm{decoded->sampleRate, decoded->channels, std::move(decoded->samples)};
            });
        });
        // A tray replaces it with the toolkit's clipboard.
        installClipboard(platform::makeCommandClipboard());
        secret::setSystemStore([]() -> secret::Store& { return secret::libsecretStore(); });
        http::install({
            .makeSession = [] { return std::unique_ptr<http::Session>(std::make_unique<http::CurlSession>()); },
            .hostOf = [](const std::string& url) { return http::hostOf(url); },
            .userAgent = [] { return http::userAgent(); },
            .encodeCookies = [](const std::vector<http::Cookie>& cookies) { return plist::encodeCookies(cookies); },
            .decodeCookies = [](const std::string& bytes) { return plist::decodeCookies(bytes); },
        });
    });
}

}  // namespace vell::app
