// Agent requests under a real `vell daemon`: a private session bus with a notification
// server, PulseAudio with a tone on the fake microphone, the reference service queueing
// requests through its admin API. A request inside the buffer comes back "uploaded" with a
// recording whose audio covers the asked span, and the user is told on the desktop (the
// daemon speaks Spanish here); one outside it comes back "empty"; `vell insurance requests`
// lists both, and `vell insurance status` shows them.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>
#include <regex>
#include <thread>

#include "insurance/agent_answer.h"
#include "insurance/insurance_messages.h"
#include "platform/dbus/control_client.h"
#include "tests/audio/aac_test_decoder.h"
#include "tests/support/child_process.h"
#include "tests/support/devserver_process.h"
#include "tests/support/notification_server.h"
#include "tests/support/private_bus.h"
#include "tests/support/pulse_server.h"
#include "tests/support/temp_home.h"

namespace vell {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;
using test::readAll;

double nowMs() {
    return double(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count());
}

class AgentRequestsDaemon : public ::testing::Test {
protected:
    void SetUp() override {
        std::vector<float> tone(16000 * 60);
        for (size_t i = 0; i < tone.size(); ++i) tone[i] = 0.3f * float(std::sin(2 * M_PI * 440 * double(i) / 16000));
        pulse.writeMic(tone);
        daemon = test::spawnLogged({vell(), "--lang", "es", "-v", "daemon"}, log());
        ASSERT_GT(daemon, 0);
        for (int i = 0; i < 100 && run("status --json").output.find("\"host\":true") == std::string::npos; ++i) {
            std::this_thread::sleep_for(100ms);
        }
        ASSERT_EQ(run("login --email a@vell.test", "pw-a").status, 0) << readAll(log());
    }
    void TearDown() override {
        if (daemon > 0) {
            ::kill(daemon, SIGKILL);
            waitpid(daemon, nullptr, 0);
        }
    }
    std::string vell() const { return test::binaryPath("vell").string(); }
    fs::path log() const { return home.tmp() / "daemon.log"; }
    test::CommandResult run(const std::string& arguments, const std::string& input = "") {
        std::string command = vell() + " --lang en " + arguments + " 2>&1 </dev/null";
        if (!input.empty()) command = "printf '%s\\n' '" + input + "' | " + vell() + " --lang en " + arguments + " 2>&1";
        return test::runCommand(command);
    }
    // The request's entry once it is no longer pending, waiting at most `limit`.
    json answered(const std::string& id, std::chrono::milliseconds limit) {
        const auto until = std::chrono::steady_clock::now() + limit;
        do {
            for (const auto& r : server.admin("GET", "/admin/insurance/requests")) {
                if (r.value("id", "") == id && r.value("status", "") != "pending") return r;
            }
            std::this_thread::sleep_for(200ms);
        } while (std::chrono::steady_clock::now() < until);
        return json();
    }

    test::TempHome home;
    test::PrivateBus bus;
    test::NotificationServer notifications;
    test::PulseServer pulse;
    test::DevServer server{{.users = {"a@vell.test:pw-a"}}};
    pid_t daemon = -1;
};

TEST_F(AgentRequestsDaemon, ARequestInsideTheBufferIsUploadedAndOneOutsideItIsEmpty) {
    // Nothing is asked of the buffer while insurance mode is off: the request stays pending.
    const double outsideFrom = nowMs() - 3'600'000;
    const std::string early = server.admin("POST", "/admin/insurance/requests",
                                           json{{"email", "a@vell.test"}, {"fromMs", outsideFrom}, {"toMs", outsideFrom + 60'000}})["id"];
    std::this_thread::sleep_for(6s);
    EXPECT_TRUE(answered(early, 0ms).is_null()) << "polled while insurance mode was off";

    ASSERT_EQ(run("insurance on --accept-privacy").status, 0) << readAll(log());
    // Outside the buffer (an hour ago): "empty".
    json empty = answered(early, 10s);
    ASSERT_FALSE(empty.is_null()) << readAll(log());
    EXPECT_EQ(empty["status"], "empty");
    const std::string sentTitle = insurance::messages::kSentTitle.in(Language::Spanish);
    EXPECT_FALSE(notifications.find(sentTitle)) << "told of audio sent when none was";

    // Inside it: a 6 s span that ended a moment ago.
    std::this_thread::sleep_for(10s);
    const double to = nowMs() - 1'000, from = to - 6'000;
    const std::string id =
        server.admin("POST", "/admin/insurance/requests", json{{"email", "a@vell.test"}, {"fromMs", from}, {"toMs", to}})["id"];
    json uploaded = answered(id, 10s);
    ASSERT_FALSE(uploaded.is_null()) << readAll(log());
    ASSERT_EQ(uploaded["status"], "uploaded") << uploaded.dump() << readAll(log());
    const std::string recordingId = uploaded["recordingId"];
    json recording;
    for (const auto& r : server.recordings()) {
        if (r.value("id", "") == recordingId || r.value("recordingId", "") == recordingId) recording = r;
    }
    ASSERT_FALSE(recording.is_null()) << server.recordings().dump();
    auto decoded = test::decodeAudioFile(recording["path"].get<std::string>());
    ASSERT_TRUE(decoded.ok) << decoded.error;
    // The whole chunk that holds the span goes: at least the asked 6 s, at most what was buffered.
    EXPECT_GE(decoded.seconds(), 6.0);
    EXPECT_LE(decoded.seconds(), 30.0);

    auto listed = run("insurance requests --json");
    ASSERT_EQ(listed.status, 0) << listed.output;
    auto list = json::parse(listed.output);
    ASSERT_EQ(list.size(), 2u) << listed.output;
    EXPECT_EQ(list[0]["status"], "empty");
    EXPECT_EQ(list[1]["id"], id);
    EXPECT_EQ(list[1]["recordingId"], recordingId);
    EXPECT_TRUE(list[1]["reported"].get<bool>());
    auto text = run("insurance requests");
    EXPECT_NE(text.output.find(id + "  "), std::string::npos) << text.output;
    EXPECT_NE(text.output.find("uploaded  " + recordingId), std::string::npos) << text.output;

    // The status carries the answers with their times in ISO 8601, and says what was sent.
    auto status = run("insurance status --json");
    ASSERT_EQ(status.status, 0) << status.output;
    const auto shown = json::parse(status.output)["agentRequests"];
    ASSERT_EQ(shown.size(), 2u) << status.output;
    EXPECT_EQ(shown[1]["id"], id);
    EXPECT_EQ(shown[1]["status"], "uploaded");
    EXPECT_TRUE(std::regex_match(shown[1].value("answeredAt", ""), std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d.*)")))
        << shown[1].dump();
    EXPECT_FALSE(shown[1].contains("answeredAtMs"));
    // What went is the whole chunk around the asked span, named by the host.
    auto host = dbus::ControlClient::connect();
    ASSERT_TRUE(host);
    auto raw = host->insuranceRequests();
    ASSERT_TRUE(raw);
    const auto sent = insurance::answerFromJson(json::parse(*raw).back());
    ASSERT_TRUE(sent.sent) << *raw;
    EXPECT_LE(millisecondsSince1970(sent.sent->from), from);
    EXPECT_GE(millisecondsSince1970(sent.sent->to), to);
    auto line = run("insurance status");
    EXPECT_NE(line.output.find(insurance::answerLine(sent, Language::English)), std::string::npos) << line.output;
    EXPECT_NE(line.output.find("Sent to your assistant: "), std::string::npos) << line.output;

    // The user was told, once, in the daemon's language, of exactly that span.
    std::optional<test::NotificationServer::Shown> told;
    ASSERT_TRUE(test::eventually([&] { return (told = notifications.find(sentTitle)).has_value(); })) << readAll(log());
    EXPECT_EQ(told->body, insurance::sentNotice(sent, Language::Spanish));
    EXPECT_TRUE(told->body.starts_with("Vell envió ")) << told->body;
    EXPECT_EQ(notifications.count(sentTitle), 1u);
}

}  // namespace
}  // namespace vell
