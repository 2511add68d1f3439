// vell devices, vell mic and vell capture-test against a private PulseAudio server.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "base/preference_keys.h"
#include "base/user_defaults.h"
#include "tests/support/pulse_server.h"
#include "tests/support/temp_home.h"

namespace vell::test {
namespace {

CommandResult vell(const std::string& arguments) {
    return runCommand(binaryPath("vell").string() + " --lang en " + arguments + " 2>&1");
}

TEST(CaptureCommandsTest, DevicesListsTheMicrophonesAndWhatEachChoiceOpens) {
    PulseServer pulse;
    TempHome home;
    auto r = vell("devices --json");
    ASSERT_EQ(r.status, 0) << r.output;
    auto json = nlohmann::json::parse(r.output);
    ASSERT_EQ(json["devices"].size(), 1u) << r.output;  // the speakers' monitor is no microphone
    EXPECT_EQ(json["devices"][0]["uid"], "fakemic");
    EXPECT_EQ(json["devices"][0]["transport"], "other");
    EXPECT_EQ(json["devices"][0]["default"], true);
    EXPECT_EQ(json["systemDefault"], "fakemic");
    EXPECT_EQ(json["recording"]["selection"], "default");
    EXPECT_TRUE(json["recording"]["opens"].is_null());
    EXPECT_EQ(json["recording"]["device"], "fakemic");

    auto text = vell("devices");
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.output.find("* fakemic"), std::string::npos) << text.output;
}

TEST(CaptureCommandsTest, MicStoresAValidChoiceAndRefusesABadOne) {
    PulseServer pulse;
    TempHome home;
    auto empty = vell("mic recording uid:");
    EXPECT_EQ(empty.status, 2);
    EXPECT_NE(empty.output.find("The device UID after \"uid:\" is empty."), std::string::npos) << empty.output;
    // A typo is refused with the way out; --force stores it and says it falls back.
    auto typo = vell("mic insurance usb");
    EXPECT_EQ(typo.status, 2);
    EXPECT_NE(typo.output.find("No microphone is called \"usb\". vell devices lists them; add --force"), std::string::npos)
        << typo.output;
    EXPECT_EQ(vell("mic insurance uid:headset").status, 2);
    EXPECT_NE(vell("mic camera default").status, 0);
    // Bytes that are not text get a sentence, not the JSON library's exception.
    auto bytes = vell("mic recording \"$(printf 'uid:\\377\\376')\"");
    EXPECT_EQ(bytes.status, 2) << bytes.output;
    EXPECT_NE(bytes.output.find("The device UID is not valid UTF-8 text."), std::string::npos) << bytes.output;
    EXPECT_EQ(bytes.output.find("json"), std::string::npos) << bytes.output;

    // The source name as `vell devices` prints it, with or without "uid:".
    auto ok = vell("mic recording fakemic");
    EXPECT_EQ(ok.status, 0) << ok.output;
    auto gone = vell("mic insurance uid:headset --force");
    EXPECT_EQ(gone.status, 0) << gone.output;
    EXPECT_NE(gone.output.find("not connected now"), std::string::npos) << gone.output;

    // Alone, it shows both choices and what each opens.
    auto shown = vell("mic");
    EXPECT_EQ(shown.status, 0) << shown.output;
    EXPECT_NE(shown.output.find("[uid:fakemic] → opens fakemic"), std::string::npos)
        << shown.output;
    EXPECT_NE(shown.output.find("Insurance microphone: Disconnected microphone [uid:headset] → opens the system default"),
              std::string::npos)
        << shown.output;

    home.reloadDefaults();
    EXPECT_EQ(home.defaults().stringValue(prefs::kMicrophoneRecording), "uid:fakemic");
    EXPECT_EQ(home.defaults().stringValue(prefs::kMicrophoneInsurance), "uid:headset");
    auto json = nlohmann::json::parse(vell("devices --json").output);
    EXPECT_EQ(json["recording"]["opens"], "fakemic");
    EXPECT_EQ(json["insurance"]["fellBackToDefault"], true);
    EXPECT_EQ(json["insurance"]["label"], "Disconnected microphone");
}

TEST(CaptureCommandsTest, CaptureTestPrintsTheLevelsOnceASecond) {
    PulseServer pulse;
    TempHome home;
    // A loud tone for the whole run: about -9 dBFS RMS and -6 dBFS peak.
    pulse.writeMic(sineWave(440, PulseServer::kMicRate, 4.0, 0.5));
    auto r = vell("capture-test --seconds 1.5");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("System audio: speakers.monitor"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("  1.0s  Microphone:"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("  1.5s  Microphone:"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("-6.0 dBFS peak"), std::string::npos) << r.output;
}

TEST(CaptureCommandsTest, WithoutASoundServerTheCommandsSaySo) {
    PulseServer pulse;
    TempHome home;
    pulse.kill();
    auto r = vell("devices");
    EXPECT_EQ(r.status, 1);
    // What the user can act on, not the sound server's status code.
    EXPECT_NE(r.output.find("vell: No sound server is running (PipeWire or PulseAudio)."), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("pa_context_connect"), std::string::npos) << r.output;
    auto capture = vell("capture-test --seconds 1");
    EXPECT_EQ(capture.status, 1);
    EXPECT_NE(capture.output.find("The microphone could not be opened: No sound server is running"), std::string::npos)
        << capture.output;
    // The fallback's own library diagnostics go to our log, not onto the terminal.
    EXPECT_EQ(capture.output.find("ALSA lib"), std::string::npos) << capture.output;
    EXPECT_EQ(vell("mic recording builtin").status, 0);  // storing a choice needs no server
    // A device cannot be checked without the server: refused unless forced.
    auto unchecked = vell("mic recording fakemic");
    EXPECT_EQ(unchecked.status, 2) << unchecked.output;
    EXPECT_NE(unchecked.output.find("sound server is not reachable (add --force"), std::string::npos) << unchecked.output;
    EXPECT_EQ(vell("mic recording fakemic --force").status, 0);
}

}  // namespace
}  // namespace vell::test
