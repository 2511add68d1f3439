// `vell record` end to end on a private PulseAudio server: speech goes into the fake
// microphone, a tone plays on the speakers, and the file is decoded back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "cli/command.h"
#include "tests/audio/aac_test_decoder.h"
#include "tests/support/devserver_process.h"
#include "tests/support/pulse_server.h"
#include "tests/support/speech_sample.h"
#include "tests/support/temp_home.h"
#include "tests/support/tmpfs_mount.h"

extern char** environ;

namespace vell {
namespace {

namespace fs = std::filesystem;
constexpr double kToneHz = 1000;

// Several seconds of synthetic speech at the fake microphone's format.
std::vector<int16_t> speechSamples(const fs::path& dir) {
    return vell::test::speech(dir, "Thank you all for joining. The first point on the agenda is the budget, "
                                   "and the second one is the launch date.");
}

// Removes one frequency (a narrow IIR notch) and returns the RMS of what is left.
double rmsWithout(const std::vector<float>& x, double rate, double hz, std::size_t from, std::size_t count) {
    const double w = 2 * std::numbers::pi * hz / rate, r = 0.995, c = std::cos(w);
    double x1 = 0, x2 = 0, y1 = 0, y2 = 0, sum = 0;
    std::size_t n = 0;
    for (std::size_t i = 0; i < std::min(x.size(), from + count); ++i) {
        const double y = x[i] - 2 * c * x1 + x2 + 2 * r * c * y1 - r * r * y2;
        x2 = x1, x1 = x[i], y2 = y1, y1 = y;
        if (i >= from) sum += y * y, ++n;
    }
    return n ? std::sqrt(sum / double(n)) : 0;
}

std::string lineAfter(const std::string& output, const std::string& label) {
    const auto at = output.find(label);
    if (at == std::string::npos) return {};
    const auto end = output.find('\n', at);
    return output.substr(at + label.size(), end - at - label.size());
}

pid_t spawn(std::vector<std::string> args, const fs::path& stdoutFile) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, stdoutFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

class RecordCommand : public ::testing::Test {
protected:
    void SetUp() override {
        // The fake microphone's pipe holds two seconds that pile up while nobody records
        // (a real microphone has no such backlog): keep it drained, as a running device is.
        drainer = spawn({"parec", "--device=fakemic", "--raw"}, "/dev/null");
        ASSERT_GT(drainer, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    void TearDown() override {
        if (drainer > 0) {
            ::kill(drainer, SIGKILL);
            waitpid(drainer, nullptr, 0);
        }
    }
    std::string vell() const { return test::binaryPath("vell").string(); }
    fs::path recordings() const { return home.dataHome() / "Vell" / "Recordings"; }

    test::TempHome home;
    test::PulseServer pulse;
    pid_t drainer = -1;
};

TEST_F(RecordCommand, FiveSecondsOfSpeechAndSystemAudioBecomeOneStereoAacFile) {
    auto speech = speechSamples(home.tmp());
    ASSERT_GT(speech.size(), std::size_t(16000 * 4)) << "espeak-ng and sox are needed";
    pulse.playTone(kToneHz, 12, false, 0.3);
    std::this_thread::sleep_for(std::chrono::seconds(1));  // the player is up and playing
    pulse.writeMic(speech);

    auto run = test::runCommand(vell() + " --lang en record --seconds 5 2>/dev/null");
    ASSERT_EQ(run.status, cli::kExitOK) << run.output;
    const std::string id = lineAfter(run.output, "Recording: ");
    const fs::path file = lineAfter(run.output, "File: ");
    EXPECT_EQ(file, recordings() / ("vell_rec_" + id + ".aac"));

    auto decoded = test::decodeAudioFile(file);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_EQ(decoded.container, "aac");
    EXPECT_EQ(decoded.codec, "aac");
    EXPECT_EQ(decoded.sampleRate, 44100);
    EXPECT_EQ(decoded.channels, 2);
    EXPECT_NEAR(decoded.seconds(), 5.0, 0.3);

    // The tone (system audio) is there on both sides once the tap runs (it opens after the
    // microphone, later still on a loaded machine)...
    ASSERT_GT(decoded.frames(), std::size_t(44100 * 4));
    const std::size_t count = 44100 * 2, from = decoded.frames() - count - 11025;
    for (const auto& side : decoded.samples) {
        const double tone = test::toneEnergy(side, 44100, kToneHz, from, count);
        EXPECT_GT(tone, 0.005);
        EXPECT_GT(tone, 1000 * test::toneEnergy(side, 44100, 1370, from, count));
    }
    // ...and so is the speech once the tone is taken out (the tone alone leaves almost nothing).
    EXPECT_GT(rmsWithout(decoded.samples[0], 44100, kToneHz, from, count), 0.03);

    auto pending = test::runCommand(vell() + " pending --json 2>/dev/null");
    auto list = nlohmann::json::parse(pending.output);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["id"], id);
    EXPECT_EQ(list[0]["status"], "ready");
    EXPECT_FALSE(list[0].contains("lastError"));
}

TEST_F(RecordCommand, DeviceChoosesTheMicrophoneOfOneRecordingOnlyAndATypoIsRefused) {
    // A second microphone that hums at 880 Hz; the chosen one (the fake microphone) is silent.
    // The hum reaches it through a sink's monitor, in real time as from a sound card (the sine
    // source would hand out two seconds rendered ahead, which a recorder rightly drops).
    ASSERT_TRUE(pulse.loadModule("module-null-sink sink_name=humfeed").has_value());
    ASSERT_TRUE(pulse.loadModule("module-sine sink=humfeed frequency=880").has_value());
    ASSERT_TRUE(pulse.loadModule("module-remap-source source_name=hummic master=humfeed.monitor").has_value());
    auto typo = test::runCommand(vell() + " --lang en record --device hummmic --seconds 1 2>&1");
    EXPECT_EQ(typo.status, cli::kExitUsage) << typo.output;
    EXPECT_NE(typo.output.find("No microphone is called \"hummmic\""), std::string::npos) << typo.output;

    auto fileOf = [&](const std::string& options) -> fs::path {
        auto run = test::runCommand(vell() + " --lang en record " + options + " 2>/dev/null");
        EXPECT_EQ(run.status, cli::kExitOK) << run.output;
        return lineAfter(run.output, "File: ");
    };
    // The last second: a null sink that has just woken hands its monitor its first block late,
    // in one piece, which the recorder drops to stay in step with the system audio.
    auto humOf = [](const fs::path& file) {
        auto decoded = test::decodeAudioFile(file);
        EXPECT_TRUE(decoded.ok) << decoded.error;
        if (!decoded.ok || decoded.frames() < 44100 * 3 / 2) return 0.0;
        return test::toneEnergy(decoded.samples[0], 44100, 880, decoded.frames() - 44100 * 5 / 4, 44100);
    };
    EXPECT_GT(humOf(fileOf("--device hummic --seconds 3.5")), 0.01);
    // The stored choice is untouched: the next recording hears the fake microphone again.
    EXPECT_LT(humOf(fileOf("--seconds 1.5")), 0.001);
}

TEST_F(RecordCommand, KilledRecordingIsRecoveredAsReadyWithItsAudio) {
    pulse.playTone(kToneHz, 20, false, 0.3);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const auto out = home.tmp() / "record.out";
    const pid_t pid = spawn({vell(), "--lang", "en", "record"}, out);
    ASSERT_GT(pid, 0);

    // The file line appears once the recording runs.
    std::string output;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (lineAfter(output, "File: ").empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::ifstream in(out);
        output.assign(std::istreambuf_iterator<char>(in), {});
    }
    const auto started = std::chrono::steady_clock::now();
    const fs::path file = lineAfter(output, "File: ");
    ASSERT_FALSE(file.empty()) << output;
    std::this_thread::sleep_for(std::chrono::milliseconds(3000));
    const double recorded = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    ::kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));

    auto pending = test::runCommand(vell() + " --lang en pending --json 2>/dev/null");
    ASSERT_EQ(pending.status, cli::kExitOK);
    auto list = nlohmann::json::parse(pending.output);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["id"], lineAfter(output, "Recording: "));
    EXPECT_EQ(list[0]["status"], "ready");
    EXPECT_EQ(list[0]["lastError"], "Recovered after an interrupted recording.");

    auto decoded = test::decodeAudioFile(file);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_GE(decoded.seconds(), recorded - 0.25) << "recorded " << recorded << " s";
    EXPECT_LE(decoded.seconds(), recorded + 0.3);
    EXPECT_GT(test::toneEnergy(decoded.samples[0], 44100, kToneHz, decoded.frames() - 44100, 33075), 0.005);
}

TEST_F(RecordCommand, SigtermStopsTheRecordingCleanly) {
    auto run = test::runCommand("( " + vell() + " --lang en record & pid=$!; sleep 2; kill -TERM $pid; wait $pid ) 2>/dev/null");
    EXPECT_EQ(run.status, cli::kExitOK) << run.output;
    EXPECT_NE(run.output.find("Saved, ready to upload."), std::string::npos) << run.output;
    auto decoded = test::decodeAudioFile(lineAfter(run.output, "File: "));
    ASSERT_TRUE(decoded.ok);
    EXPECT_GT(decoded.seconds(), 1.0);
}

// What FFmpeg itself says about a file: nothing when every frame decodes.
std::string ffmpegComplaints(const fs::path& file) {
    return test::runCommand("ffmpeg -hide_banner -nostdin -v error -i '" + file.string() + "' -f null - 2>&1").output;
}

TEST_F(RecordCommand, AFullDiskCostsOnlyTheAudioThatDidNotFit) {
    pulse.playTone(kToneHz, 30, false, 0.3);
    test::TmpfsMount disk(home.dataHome(), 3 * 1024);
    if (!disk.mounted()) GTEST_SKIP() << disk.error();
    fs::create_directories(recordings());

    // About three seconds of audio fit (128 kbit/s), then the disk is full.
    disk.fillLeaving(48 * 1024);
    auto run = test::runCommand(vell() + " --lang en record --seconds 12 2>&1");
    EXPECT_EQ(run.status, cli::kExitFailure) << run.output;
    EXPECT_NE(run.output.find("Recording stopped because Vell could no longer save audio. The saved part will be uploaded."),
              std::string::npos)
        << run.output;
    const fs::path file = lineAfter(run.output, "File: ");
    ASSERT_FALSE(file.empty()) << run.output;
    // The file ends at its last whole frame, and the stop says how much it holds.
    EXPECT_EQ(ffmpegComplaints(file), "");
    auto decoded = test::decodeAudioFile(file);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_GT(decoded.seconds(), 1.0);
    const double said = std::stod(lineAfter(run.output, "Saved, ready to upload. Length: "));
    EXPECT_NEAR(said, decoded.seconds(), 0.1) << run.output;

    // Space comes back: the next run finds the entry ready, with its audio intact.
    disk.unfill();
    auto pending = test::runCommand(vell() + " pending --json 2>/dev/null");
    auto list = nlohmann::json::parse(pending.output);
    ASSERT_EQ(list.size(), 1u) << pending.output;
    EXPECT_EQ(list[0]["status"], "ready");
    EXPECT_EQ(ffmpegComplaints(file), "");

    // No room at all: the start is refused, and no empty file is left behind.
    disk.fill();
    auto full = test::runCommand(vell() + " --lang es record --seconds 2 2>&1");
    EXPECT_EQ(full.status, cli::kExitFailure) << full.output;
    EXPECT_EQ(full.output.find("Guardada"), std::string::npos) << full.output;
    EXPECT_NE(full.output.find("Vell no pudo guardar su lista de grabaciones: No space left on device"), std::string::npos)
        << full.output;
    int audioFiles = 0;
    for (const auto& e : fs::directory_iterator(recordings())) audioFiles += e.path().extension() == ".aac";
    EXPECT_EQ(audioFiles, 1);
}

TEST_F(RecordCommand, ARecordingWhoseFileIsDeletedPromisesNoUpload) {
    auto run = test::runCommand("( " + vell() + " --lang en record --seconds 20 & pid=$!; sleep 2; rm -f '" +
                                recordings().string() + "'/vell_rec_*.aac; wait $pid ) 2>&1");
    EXPECT_EQ(run.status, cli::kExitFailure) << run.output;
    EXPECT_NE(run.output.find("Recording stopped because its file was deleted. There is nothing left to upload."),
              std::string::npos)
        << run.output;
    EXPECT_EQ(run.output.find("will be uploaded"), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find("Saved, ready to upload"), std::string::npos) << run.output;
    auto list = nlohmann::json::parse(test::runCommand(vell() + " pending --json 2>/dev/null").output);
    EXPECT_TRUE(list.empty()) << list.dump();
}

TEST_F(RecordCommand, AFrozenSoundServerFailsTheStartSoonWithASentenceNamingIt) {
    ::kill(pulse.pid(), SIGSTOP);
    const auto started = std::chrono::steady_clock::now();
    auto run = test::runCommand(vell() + " --lang en record --seconds 2 2>&1");
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    ::kill(pulse.pid(), SIGCONT);
    EXPECT_EQ(run.status, cli::kExitFailure) << run.output;
    EXPECT_NE(run.output.find("The recording did not start: The sound server (PulseAudio or PipeWire) is not answering"),
              std::string::npos)
        << run.output;
    EXPECT_EQ(lineAfter(run.output, "The recording did not start: ").find("Core Audio"), std::string::npos) << run.output;
    // No fallback through the same frozen server (it took 45 s once), and once the listing
    // went unanswered the start does not wait the full time again (it took 15 s once).
    EXPECT_LT(took, 10.0) << run.output;
    auto list = nlohmann::json::parse(test::runCommand(vell() + " pending --json 2>/dev/null").output);
    EXPECT_TRUE(list.empty()) << list.dump();
}

TEST_F(RecordCommand, LengthsThatNeverEndOrFitNoFrameAreUsageErrors) {
    for (const std::string bad : {"inf", "nan", "1e-9", "0.05", "-1", "abc"}) {
        auto run = test::runCommand(vell() + " --lang en record --seconds " + bad + " 2>&1");
        EXPECT_EQ(run.status, cli::kExitUsage) << bad << ": " << run.output;
        EXPECT_NE(run.output.find("must be a finite number of seconds, at least 0.1"), std::string::npos) << run.output;
    }
    EXPECT_FALSE(fs::exists(recordings() / "manifest.json"));
}

// Who the service holds recordings for, by account, as "email:file" pairs.
std::multiset<std::string> recordingsByAccount(const test::DevServer& server) {
    std::multiset<std::string> out;
    for (const auto& r : server.recordings()) out.insert(r.value("email", "") + ":" + r.value("filename", ""));
    return out;
}

class RecordAndUpload : public RecordCommand {
protected:
    test::CommandResult vellRun(const std::string& arguments, const std::string& input = "") {
        std::string command = vell() + " --lang en " + arguments + " 2>&1";
        if (!input.empty()) command = "printf '%s\\n' '" + input + "' | " + command;
        return test::runCommand(command);
    }
    // Records a second and returns the file it wrote.
    std::string recordOne() {
        auto run = vellRun("record --seconds 1");
        EXPECT_EQ(run.status, cli::kExitOK) << run.output;
        return fs::path(lineAfter(run.output, "File: ")).filename().string();
    }

    test::DevServer server{{.users = {"a@vell.test:pw-a", "b@vell.test:pw-b"}}};
};

TEST_F(RecordAndUpload, EveryRecordingOfTheSignedInAccountReachesTheService) {
    ASSERT_EQ(vellRun("login --email a@vell.test", "pw-a").status, 0);
    const auto first = recordOne();
    // Created private, not only narrowed by the next start.
    EXPECT_EQ(fs::status(recordings() / first).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
    auto upload = vellRun("upload");
    EXPECT_EQ(upload.status, 0) << upload.output;
    const auto second = recordOne();
    upload = vellRun("upload");
    EXPECT_EQ(upload.status, 0) << upload.output;
    EXPECT_NE(upload.output.find("Uploaded: 1"), std::string::npos) << upload.output;

    EXPECT_EQ(recordingsByAccount(server), (std::multiset<std::string>{"a@vell.test:" + first, "a@vell.test:" + second}));
    for (const auto& r : server.recordings()) EXPECT_EQ(r.value("sha256", ""), test::sha256File(recordings() / r.value("filename", "")));
    auto list = nlohmann::json::parse(vellRun("pending --json").output);
    ASSERT_EQ(list.size(), 2u);
    for (const auto& entry : list) {
        EXPECT_EQ(entry["status"], "uploaded");
        EXPECT_TRUE(entry.contains("accountID")) << entry.dump();
    }
    // Nobody else on this computer can read them, nor what is known about them.
    const auto mode = [](const fs::path& p) { return fs::status(p).permissions() & fs::perms::all; };
    for (const auto& file : {recordings() / first, recordings() / "manifest.json", home.dataHome() / "Vell" / "upload-receipts.json"}) {
        EXPECT_EQ(mode(file), fs::perms::owner_read | fs::perms::owner_write) << file;
    }
    EXPECT_EQ(mode(recordings()), fs::perms::owner_all);
    EXPECT_EQ(mode(home.dataHome() / "Vell"), fs::perms::owner_all);
}

TEST_F(RecordAndUpload, WhatACrashLeftBehindIsUploadedByTheNextUpload) {
    ASSERT_EQ(vellRun("login --email a@vell.test", "pw-a").status, 0);
    const auto first = recordOne();
    ASSERT_EQ(vellRun("upload").status, 0);  // the one-time adoption is decided by now

    // A recording killed mid-way, and an audio file no entry names (a crash before the list
    // was saved).
    const auto out = home.tmp() / "killed.out";
    const pid_t pid = spawn({vell(), "record"}, out);
    ASSERT_GT(pid, 0);
    std::string output;
    for (int i = 0; i < 750 && lineAfter(output, "File: ").empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::ifstream in(out);
        output.assign(std::istreambuf_iterator<char>(in), {});
    }
    ASSERT_FALSE(lineAfter(output, "File: ").empty()) << output;
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    ::kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    const auto killed = fs::path(lineAfter(output, "File: ")).filename().string();
    fs::copy_file(recordings() / first, recordings() / "vell_rec_ORPHAN.aac");

    auto upload = vellRun("upload");
    EXPECT_EQ(upload.status, 0) << upload.output;
    EXPECT_EQ(recordingsByAccount(server),
              (std::multiset<std::string>{"a@vell.test:" + first, "a@vell.test:" + killed, "a@vell.test:vell_rec_ORPHAN.aac"}));
}

TEST_F(RecordAndUpload, TwoAccountsNeverGetEachOthersRecordings) {
    ASSERT_EQ(vellRun("login --email a@vell.test", "pw-a").status, 0);
    const auto ofA = recordOne();
    ASSERT_EQ(vellRun("logout").status, 0);

    ASSERT_EQ(vellRun("login --email b@vell.test", "pw-b").status, 0);
    auto upload = vellRun("upload");
    EXPECT_NE(upload.output.find("Nothing to upload."), std::string::npos) << upload.output;
    const auto ofB = recordOne();
    EXPECT_EQ(vellRun("upload").status, 0);
    EXPECT_EQ(recordingsByAccount(server), (std::multiset<std::string>{"b@vell.test:" + ofB}));
    ASSERT_EQ(vellRun("logout").status, 0);

    ASSERT_EQ(vellRun("login --email a@vell.test", "pw-a").status, 0);
    EXPECT_EQ(vellRun("upload").status, 0);
    EXPECT_EQ(recordingsByAccount(server), (std::multiset<std::string>{"b@vell.test:" + ofB, "a@vell.test:" + ofA}));
}

TEST_F(RecordCommand, JsonLinesForScriptsWhateverTheLanguageAndNoEscapeCodesOnADumbTerminal) {
    auto run = test::runCommand("LANG=es_AR.UTF-8 TERM=dumb " + vell() + " record --seconds 1 --json 2>&1");
    ASSERT_EQ(run.status, cli::kExitOK) << run.output;
    EXPECT_EQ(run.output.find('\033'), std::string::npos) << run.output;
    std::vector<nlohmann::json> lines;
    std::istringstream in(run.output);
    for (std::string line; std::getline(in, line);) {
        auto parsed = nlohmann::json::parse(line, nullptr, false);
        ASSERT_FALSE(parsed.is_discarded()) << "not JSON: " << line;
        lines.push_back(parsed);
    }
    ASSERT_EQ(lines.size(), 2u) << run.output;
    EXPECT_EQ(lines[0]["event"], "started");
    EXPECT_EQ(lines[1]["event"], "stopped");
    EXPECT_EQ(lines[1]["id"], lines[0]["id"]);
    EXPECT_TRUE(lines[1]["kept"].get<bool>());
    EXPECT_NEAR(lines[1]["length"].get<double>(), 1.0, 0.3);
    EXPECT_TRUE(fs::exists(lines[0]["file"].get<std::string>()));

    // Quiet drops hints, not the result: the recording's id, alone.
    auto quiet = test::runCommand(vell() + " --quiet record --seconds 0.5 2>&1");
    EXPECT_EQ(quiet.status, cli::kExitOK);
    EXPECT_TRUE(std::regex_match(quiet.output, std::regex("[0-9A-Fa-f-]{36}\n"))) << quiet.output;
}

}  // namespace
}  // namespace vell
