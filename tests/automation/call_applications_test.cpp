// Who counts as a caller, and how processes become callers.
#include "automation/call_applications.h"

#include <gtest/gtest.h>

#include "automation/call_scan.h"

namespace vell::automation {
namespace {

TEST(CallCandidates, ListsAndPrefixesDecide) {
    struct Row {
        const char* id;
        bool candidate;
    };
    for (auto [id, candidate] : std::initializer_list<Row>{
             {"us.zoom.xos", true},
             {"US.Zoom.XOS", true},                   // compared in lower case
             {"com.apple.FaceTime", true},            // a listed system call app passes the prefix rule
             {"com.apple.Safari", true},
             {"com.apple.dictation", false},          // any other system process does not
             {"app.quillon.mac", false},              // this application
             {"com.openai.chat", false},              // an assistant
             {"org.python.python", false},
             {"aquavoice.macOSBridge", true},         // listed with capitals, so it never matches
             {"pipewire", false},                     // the desktop's own audio
             {"org.PulseAudio.pavucontrol", false},
             {"speech-dispatcher", false},
             {"easyeffects", false},
             {"net.example.unknown", true},           // unknown programs count
             {"us.zoom.Zoom", true},                  // Flatpak ids are unknown but count
             {"", false},
         }) {
        EXPECT_EQ(isCallCandidate(id), candidate) << id;
    }
}

TEST(CallCandidates, DisplayNamesPreferTheProgramsOwnName) {
    EXPECT_EQ(callerDisplayName("us.zoom.xos", "ZOOM VoIP"), "ZOOM VoIP");
    EXPECT_EQ(callerDisplayName("us.zoom.xos", ""), "Zoom");
    EXPECT_EQ(callerDisplayName("com.google.chrome", ""), "Google Chrome");
    EXPECT_EQ(callerDisplayName("com.microsoft.teams2", ""), "Microsoft Teams");
    EXPECT_EQ(callerDisplayName("com.apple.FaceTime", ""), "FaceTime");
    EXPECT_EQ(callerDisplayName("net.example.unknown", ""), "net.example.unknown");
}

TEST(CallerGrouping, FamiliesNeedTheMicrophoneAndMergeOutput) {
    auto scan = callersFrom(
        {
            {"org.mozilla.firefox", true, false, "Firefox"},  // one process records...
            {"org.mozilla.firefox", false, true, ""},         // ...another plays
            {"com.hnc.discord", false, true, "Discord"},      // plays only: not a caller
            {"com.tinyspeck.slackmacgap", true, std::nullopt, ""},  // output unreadable
            {"com.openai.chat", true, true, ""},              // never a candidate
        },
        false);
    EXPECT_FALSE(scan.allProcessesClassified);
    ASSERT_EQ(scan.callers.size(), 2u);
    auto it = scan.callers.begin();
    EXPECT_EQ(*it, (Caller{"com.tinyspeck.slackmacgap", "com.tinyspeck.slackmacgap", true, false}));
    ++it;
    EXPECT_EQ(*it, (Caller{"org.mozilla.firefox", "Firefox", true, true}));
}

}  // namespace
}  // namespace vell::automation
