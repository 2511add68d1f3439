// The recovery controller as a state machine: a scripted transcription, an injected clock,
// real chunk files and the real concatenation.
#include <gtest/gtest.h>

#include <fstream>

#include "base/manual_executor.h"
#include "base/paths.h"
#include "base/runtime.h"
#include "insurance/insurance_messages.h"
#include "insurance/insurance_recovery_controller.h"
#include "tests/insurance/adts_fixture.h"
#include "tests/support/temp_home.h"

namespace vell::insurance {
namespace {

namespace fs = std::filesystem;
using service::APIError;
using Kind = Phase::Kind;

WallTime at(double seconds) { return WallTime{std::chrono::milliseconds(static_cast<long long>(seconds * 1000))}; }

struct Call {
    fs::path file;
    std::string body;  // the file's bytes when it was sent
    std::function<void(std::string)> draft;
    std::function<void(Expected<std::string, APIError>)> done;
};

// What the preview player was asked to do, and what it reports back.
struct PlayerScript {
    bool refuse = false;
    std::optional<fs::path> file;
    std::string bytes;  // the file's content when play() was called
    double time = 0;
    bool playing = false;
    int pauses = 0, resumes = 0, stops = 0;
};

class ScriptedPlayer final : public PreviewPlayer {
public:
    explicit ScriptedPlayer(std::shared_ptr<PlayerScript> s) : s_(std::move(s)) {}
    bool play(const fs::path& file) override {
        s_->file = file;
        std::ifstream in(file, std::ios::binary);
        s_->bytes.assign(std::istreambuf_iterator<char>(in), {});
        s_->playing = !s_->refuse;
        return !s_->refuse;
    }
    void pause() override { s_->pauses++, s_->playing = false; }
    void resume() override { s_->resumes++, s_->playing = true; }
    void stop() override { s_->stops++, s_->playing = false; }
    double currentTime() const override { return s_->time; }
    bool isPlaying() const override { return s_->playing; }

private:
    std::shared_ptr<PlayerScript> s_;
};

class Recovery : public ::testing::Test {
protected:
    test::TempHome home;
    ManualClock clock{at(10'000)};
    ManualExecutor main{clock};
    InsuranceBufferStore store{home.dataHome() / "buffer"};
    std::vector<Call> calls;
    std::vector<double> waits;
    std::vector<std::string> copied;
    int seals = 0;
    bool signedIn = true;
    std::optional<std::string> account = "acc_1";
    std::unique_ptr<InsuranceRecoveryController> controller;
    std::shared_ptr<PlayerScript> player = std::make_shared<PlayerScript>();
    bool hasPlayer = true;

    void SetUp() override {
        setInterfaceLanguage(Language::English);
        runtime::install(&main, &clock);
        RecoveryDependencies d;
        d.chunks = [this] { return store.chunks(); };
        d.seal = [this] { seals++; };
        d.concatenate = [this](const std::vector<InsuranceChunk>& c, const fs::path& to) { return store.concatenate(c, to); };
        d.transcribe = [this](const fs::path& file, auto draft, auto done) {
            std::ifstream in(file, std::ios::binary);
            calls.push_back({file, std::string(std::istreambuf_iterator<char>(in), {}), draft, done});
        };
        d.signedIn = [this] { return signedIn; };
        d.copy = [this](const std::string& t) {
            if (t.empty()) return false;
            copied.push_back(t);
            return true;
        };
        d.now = [this] { return clock.now(); };
        d.accountID = [this] { return account; };
        d.handleError = [](const APIError&) {};
        d.wait = [this](double s, std::function<void()> done) {
            waits.push_back(s);
            main.postAfter(s, std::move(done));
        };
        d.makePlayer = [this]() -> std::unique_ptr<PreviewPlayer> {
            if (!hasPlayer) return nullptr;
            return std::make_unique<ScriptedPlayer>(player);
        };
        controller = std::make_unique<InsuranceRecoveryController>(std::move(d));
    }
    void TearDown() override {
        controller.reset();
        runtime::install(nullptr, nullptr);
    }
    // A sealed chunk starting `ago` seconds before now, 30 s long, with distinct bytes.
    void chunk(double ago, char fill) {
        const double start = 10'000 - ago;
        auto file = store.directory() / chunk_names::sealedName(at(start), at(start + 30), 50);
        testing::writeFile(file, std::string(100, fill));
    }
    void choose(Range r, int minutes = 10) {
        controller->choose(r, minutes);
        main.runPending();
    }
    bool tempFilesLeft() const {
        for (auto& e : fs::directory_iterator(paths::temporaryDirectory())) {
            if (e.path().filename().string().rfind("vell-insurance-text-", 0) == 0) return true;
        }
        return false;
    }
};

TEST_F(Recovery, RangesSelectChunksByStartAndSendExactlyThoseBytes) {
    chunk(400, 'a');
    chunk(80, 'b');
    chunk(30, 'c');
    choose(Range::lastMinute);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(seals, 1);
    EXPECT_EQ(calls[0].body, std::string(100, 'b') + std::string(100, 'c'));
    EXPECT_EQ(calls[0].file.filename().string().rfind("insurance-text-", 0), 0u);
    EXPECT_EQ(calls[0].file.parent_path(), home.runtime() / "vell") << "in the private folder, not the shared one";
    EXPECT_EQ(controller->phase.get().kind, Kind::transcribing);

    calls[0].draft("hello wor");
    EXPECT_EQ(controller->phase.get().kind, Kind::improving);
    EXPECT_EQ(controller->displayText(), "Improving… · hello wor");
    calls[0].done(std::string("hello world"));
    EXPECT_EQ(controller->phase.get(), Phase{});
    EXPECT_EQ(controller->displayText(), "hello world");
    ASSERT_TRUE(controller->transcript.get());
    EXPECT_EQ(controller->transcript.get()->text, "hello world");
    EXPECT_EQ(controller->transcript.get()->to, at(10'000));
    EXPECT_FALSE(tempFilesLeft());

    choose(Range::all);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].body.size(), 300u);
    calls[1].done(std::string("everything"));
    // 5 minutes (and one chunk) leave the chunk of 400 s ago out: the last minute's chunks.
    choose(Range::custom, 5);
    EXPECT_EQ(controller->text.get(), "hello world");
    choose(Range::custom, 7);
    EXPECT_EQ(controller->text.get(), "everything");
    EXPECT_EQ(calls.size(), 2u);
}

TEST_F(Recovery, SameChunksAreAnsweredFromTheCacheUntilTheAccountChanges) {
    chunk(30, 'a');
    choose(Range::lastMinute);
    calls[0].done(std::string("cached words"));
    choose(Range::lastFive);  // the same single chunk
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_EQ(controller->text.get(), "cached words");

    account = "acc_2";
    choose(Range::lastMinute);
    EXPECT_EQ(calls.size(), 2u);
}

TEST_F(Recovery, ChangingTheRangeDropsTheLateAnswerOfTheOldRun) {
    chunk(30, 'a');
    chunk(200, 'b');
    choose(Range::lastMinute);
    choose(Range::lastFive);
    ASSERT_EQ(calls.size(), 2u);
    calls[0].draft("stale draft");
    calls[0].done(std::string("stale"));
    EXPECT_EQ(controller->text.get(), "");
    EXPECT_EQ(controller->phase.get().kind, Kind::transcribing);
    calls[1].done(std::string("fresh"));
    EXPECT_EQ(controller->text.get(), "fresh");
    EXPECT_FALSE(tempFilesLeft());
}

TEST_F(Recovery, BusyServiceIsWaitedOutThreeTimesThenFails) {
    chunk(30, 'a');
    const auto busy = APIError::http(409, std::string("transcription_in_progress"), std::nullopt);
    choose(Range::lastMinute);
    for (int i = 0; i < 3; ++i) {
        calls.back().done(unexpected(busy));
        main.advance(1 << i);
        main.runPending();
    }
    EXPECT_EQ(waits, (std::vector<double>{1, 2, 4}));
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[3].file, calls[0].file);
    calls[3].done(std::string("after waiting"));
    EXPECT_EQ(controller->text.get(), "after waiting");

    // A fourth busy answer is a failure with the service's own sentence.
    chunk(10, 'b');
    choose(Range::lastMinute);
    for (int i = 0; i < 4; ++i) {
        calls.back().done(unexpected(busy));
        main.advance(8);
        main.runPending();
    }
    EXPECT_EQ(controller->phase.get().kind, Kind::failed);
    EXPECT_EQ(controller->phase.get().message, busy.description(Language::English));
    EXPECT_FALSE(tempFilesLeft());
}

TEST_F(Recovery, FailuresAndConfirmationsUseTheirSentences) {
    chunk(30, 'a');
    signedIn = false;
    choose(Range::lastMinute);
    EXPECT_EQ(controller->phase.get(), (Phase{Kind::failed, "Sign in to transcribe."}));
    EXPECT_TRUE(calls.empty());

    signedIn = true;
    choose(Range::lastMinute);
    calls.back().done(unexpected(APIError::transport(7, "refused", true)));
    EXPECT_EQ(controller->phase.get(), (Phase{Kind::failed, "No connection. Try again when you’re online."}));

    // The draft was copied: the final text replaces it on the clipboard.
    chunk(5, 'b');
    choose(Range::lastMinute);
    calls.back().draft("draft");
    controller->copy();
    EXPECT_EQ(controller->copyConfirmation.get(), "Copied");
    calls.back().done(std::string("final"));
    EXPECT_EQ(copied, (std::vector<std::string>{"draft", "final"}));
    EXPECT_EQ(controller->copyConfirmation.get(), "Copied improved text");

    chunk(1, 'c');
    choose(Range::lastMinute);
    calls.back().done(std::string(" \n\t "));
    EXPECT_EQ(controller->copyConfirmation.get(), "No speech found");
    controller->text.set("");
    controller->copy();
    EXPECT_EQ(controller->copyConfirmation.get(), "Could not copy. Try again.");
}

TEST_F(Recovery, NothingBufferedSendsNothing) {
    choose(Range::all);
    EXPECT_FALSE(controller->selection.get());
    chunk(1000, 'a');
    choose(Range::lastMinute);
    EXPECT_TRUE(controller->selectedChunks().empty());
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(controller->phase.get(), Phase{});
}

TEST_F(Recovery, PreviewPlaysTheSelectionPublishesItsPositionAndRemovesItsFileAtTheEnd) {
    chunk(80, 'b');
    chunk(30, 'c');
    choose(Range::lastMinute);
    controller->play();
    ASSERT_TRUE(controller->isPlaying.get());
    ASSERT_TRUE(player->file);
    EXPECT_EQ(player->file->filename().string().rfind("insurance-preview-", 0), 0u);
    EXPECT_EQ(player->file->parent_path(), home.runtime() / "vell");
    EXPECT_EQ(fs::symlink_status(*player->file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(player->bytes, std::string(100, 'b') + std::string(100, 'c'));
    EXPECT_TRUE(fs::exists(*player->file));

    player->time = 1.5;
    main.advance(kPlayTimerSeconds);
    EXPECT_DOUBLE_EQ(controller->position.get(), 1.5);
    // Paused: the place is kept, the file too; play goes on from there.
    controller->pause();
    EXPECT_FALSE(controller->isPlaying.get());
    player->time = 9;  // a paused player's clock is not followed
    main.advance(1);
    EXPECT_DOUBLE_EQ(controller->position.get(), 1.5);
    EXPECT_TRUE(fs::exists(*player->file));
    controller->play();
    EXPECT_EQ(player->resumes, 1);
    EXPECT_TRUE(controller->isPlaying.get());

    // The player ran out: position back to 0, playing off, the file gone.
    player->playing = false;
    main.advance(kPlayTimerSeconds);
    EXPECT_FALSE(controller->isPlaying.get());
    EXPECT_DOUBLE_EQ(controller->position.get(), 0);
    EXPECT_FALSE(fs::exists(*player->file));

    // stop() while playing does the same at once.
    controller->play();
    const auto second = *player->file;
    EXPECT_NE(second, fs::path());
    controller->stop();
    EXPECT_FALSE(fs::exists(second));
    EXPECT_FALSE(controller->isPlaying.get());
}

TEST_F(Recovery, APreviewThatCannotPlayFailsWithItsSentenceAndLeavesNoFile) {
    chunk(30, 'c');
    choose(Range::lastMinute);
    player->refuse = true;
    controller->play();
    EXPECT_EQ(controller->phase.get(), (Phase{Kind::failed, "Could not play this part."}));
    EXPECT_FALSE(controller->isPlaying.get());
    ASSERT_TRUE(player->file);
    EXPECT_FALSE(fs::exists(*player->file));

    hasPlayer = false;  // no sound server binding at all
    controller->play();
    EXPECT_EQ(controller->phase.get(), (Phase{Kind::failed, "Could not play this part."}));
    for (auto& e : fs::directory_iterator(paths::temporaryDirectory())) {
        EXPECT_NE(e.path().filename().string().rfind("vell-insurance-preview-", 0), 0u) << e.path();
    }
}

}  // namespace
}  // namespace vell::insurance
