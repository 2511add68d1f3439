#pragma once
// Plays one audio file for the recovery panel's preview: decoded and sent to the sound
// server, with the position readable while it plays. The platform supplies the player.
//
// Made and used on the main executor; the playing itself runs on the player's own thread.
#include <filesystem>
#include <functional>
#include <memory>

namespace vell::insurance {

class PreviewPlayer {
public:
    virtual ~PreviewPlayer() = default;
    // Decodes the file and starts playing it; false when it cannot be read or played.
    virtual bool play(const std::filesystem::path& file) = 0;
    virtual void pause() = 0;
    virtual void resume() = 0;
    // Stops at once; the file is no longer read afterwards.
    virtual void stop() = 0;
    // Seconds of the file heard so far.
    virtual double currentTime() const = 0;
    // Playing now: false once paused, stopped, or at the end of the file.
    virtual bool isPlaying() const = 0;
};

using PreviewPlayerFactory = std::function<std::unique_ptr<PreviewPlayer>()>;
// The process's player (installed by the composition root); empty when none.
void setPreviewPlayerFactory(PreviewPlayerFactory factory);
PreviewPlayerFactory previewPlayerFactory();

}  // namespace vell::insurance
