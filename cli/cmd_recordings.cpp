// vell recordings [--json], vell show ID [--summary|--transcript|--cues] [--json],
// vell speakers ID N=NAME..., vell share ID: what the service made of the recordings.
// Through the host when one runs; else in this process, straight from the service, with
// the copies kept on this computer when the service cannot be reached.
#include <fmt/format.h>

#include <ctime>
#include <iostream>
#include <nlohmann/json.hpp>
#include <regex>

#include "app/composition.h"
#include "app/composition_results.h"
#include "app/core_services.h"
#include "base/paths.h"
#include "cli/command.h"
#include "cli/host_client.h"
#include "cli/json_output.h"
#include "cli/results_messages.h"
#include "cli/runtime_scope.h"
#include "results/recording_results.h"
#include "results/results_messages.h"
#include "service/api_error.h"
#include "service/upload_receipts.h"

namespace vell::cli {

namespace {
namespace msg = results_messages;
using Json = nlohmann::json;
using results::Fetched;
using results::RecordingResult;

// The outcome of one results call: JSON in the control interface's form, or a sentence.
struct Answer {
    std::optional<Json> value;
    std::string error;
    bool signedOut = false;
};

Json withOffline(const Fetched& f) {
    Json j = results::encodeResult(f.result);
    j["offline"] = f.offlineBecause ? Json(*f.offlineBecause) : Json(nullptr);
    return j;
}

// Runs one asynchronous call of the process's recording results and waits for it.
template <class T, class Call, class Convert>
Answer inProcess(Context& context, Call call, Convert convert) {
    Answer answer;
    auto scope = RuntimeScope::enter(context, {.ownsDataDirectories = false});
    if (!scope) {
        answer.error = "-";
        return answer;
    }
    auto& results = app::recordingResults();
    call(results, [&](Expected<T, std::string> r) {
        if (r) {
            answer.value = convert(*r);
        } else {
            answer.error = r.error();
            answer.signedOut = results::meansSignedOut(r.error());
        }
        scope->stop();
    });
    scope->run();
    return answer;
}

Answer fromHost(const Expected<std::string, dbus::ControlError>& reply, bool isJson = true) {
    Answer answer;
    if (!reply) {
        answer.error = reply.error().message;
        answer.signedOut = reply.error().signedOut();
        return answer;
    }
    answer.value = isJson ? Json::parse(*reply, nullptr, false) : Json(*reply);
    return answer;
}

// A local id as the recorder makes them (a UUID), which only this computer knows.
bool isLocalID(const std::string& id) {
    if (id.size() != 36) return false;
    for (size_t i = 0; i < id.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? id[i] != '-' : !std::isxdigit(static_cast<unsigned char>(id[i]))) return false;
    }
    return true;
}

// The service's id for the id a person typed: `vell recordings` prints the service's own,
// `vell pending` the local one, which the upload receipts translate once it went up.
Answer serviceID(const std::string& typed) {
    Answer answer;
    service::UploadReceipts receipts(paths::vellDataDirectory() / "upload-receipts.json");
    if (auto receipt = receipts.find(typed); receipt && !receipt->recordingID.empty()) {
        answer.value = receipt->recordingID;
    } else if (isLocalID(typed)) {
        answer.error = msg::kNotUploadedYet.str();
    } else {
        answer.value = typed;
    }
    return answer;
}

// A result as --json prints it: the service's milliseconds as an ISO 8601 time.
Json forScripts(Json result) {
    if (result.is_object() && result.contains("createdAt")) {
        result["createdAt"] = result["createdAt"].is_number() && result["createdAt"].get<double>() > 0
                                  ? isoFromMilliseconds(result["createdAt"])
                                  : Json();
    }
    return result;
}

int report(Context& context, const Answer& answer) {
    if (answer.error == "-") return context.exitCode;  // RuntimeScope said why
    std::cerr << "vell: " << answer.error << "\n";
    return answer.signedOut ? kExitSignedOut : kExitFailure;
}

std::string dateText(long long ms) {
    const std::time_t t = static_cast<std::time_t>(ms / 1000);
    std::tm local{};
    localtime_r(&t, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
    return text;
}

// Markdown as plain terminal text: headings and emphasis marks go, lists stay.
std::string renderMarkdown(const std::string& md) {
    std::string out = std::regex_replace(md, std::regex(R"(^#{1,6}\s*)", std::regex::multiline), "");
    out = std::regex_replace(out, std::regex(R"(\*\*([^*]+)\*\*)"), "$1");
    out = std::regex_replace(out, std::regex(R"(^- )", std::regex::multiline), "  • ");
    return out;
}

void printOffline(const Json& j) {
    if (j.contains("offline") && j["offline"].is_string()) {
        std::cerr << results::messages::kOffline.str() << j["offline"].get<std::string>() << "\n";
    }
}

void printSummary(const RecordingResult& r) {
    std::cout << msg::kSummary.str() << "\n";
    if (r.summary.empty()) {
        std::cout << "  " << results::messages::kNoSummary.str() << "\n";
    } else {
        std::cout << renderMarkdown(r.summary);
        if (r.summary.back() != '\n') std::cout << "\n";
    }
}

void printTranscript(const RecordingResult& r) {
    std::cout << msg::kTranscript.str() << "\n";
    if (r.transcript.empty()) std::cout << "  " << msg::kNoTranscript.str() << "\n";
    for (const auto& line : r.transcript) {
        std::cout << "  [" << results::conversationClock(line.startMs) << "] " << r.speakerName(line.speaker) << ": " << line.text
                  << "\n";
    }
}

void printCues(const RecordingResult& r) {
    std::cout << msg::kCues.str() << "\n";
    if (r.cues.empty()) std::cout << "  " << msg::kNoCues.str() << "\n";
    for (const auto& cue : r.cues) {
        std::cout << "  • " << live::tileTitle(cue) << " (" << fmt::format("{:.2f}", cue.weight) << "): " << live::tileText(cue)
                  << "\n";
    }
}

void printSpeakers(const RecordingResult& r) {
    std::cout << msg::kSpeakers.str() << "\n";
    for (const auto& s : r.speakers) {
        const std::string side = s.side == "microphone" ? results::messages::kYouSide.str()
                               : s.side == "system"     ? results::messages::kOthersSide.str()
                                                        : std::string();
        std::cout << "  " << s.index << ": " << r.speakerName(s.index) << (side.empty() ? "" : " (" + side + ")") << "\n";
    }
}

std::string headline(const RecordingResult& r) {
    const std::string about = r.firstSummaryLine(60);
    return fmt::format("{}  {}  {}  {}{}", r.id, r.createdAt ? dateText(r.createdAt) : std::string("-"),
                       results::conversationClock(r.durationMs), r.stateSentence(), about.empty() ? "" : "  " + about);
}

void setupRecordings(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("recordings", msg::kRecordingsDescription.str());
    auto json = std::make_shared<bool>(false);
    cmd->add_flag("--json", *json, msg::kJsonOption.str());
    cmd->callback([&context, json] {
        Answer answer;
        if (auto host = runningHost()) {
            answer = fromHost(host->recordings());
        } else {
            answer = inProcess<std::vector<Fetched>>(
                context, [](results::RecordingResults& r, auto done) { r.list(std::move(done)); },
                [](const std::vector<Fetched>& list) {
                    Json out = Json::array();
                    for (const auto& f : list) out.push_back(withOffline(f));
                    return out;
                });
        }
        if (!answer.value || !answer.value->is_array()) {
            context.exitCode = report(context, answer);
            return;
        }
        if (*json) {
            Json out = Json::array();
            for (const auto& item : *answer.value) out.push_back(forScripts(item));
            std::cout << out.dump(2) << "\n";
            return;
        }
        if (answer.value->empty()) std::cout << msg::kNoRecordings.str() << "\n";
        bool offlineSaid = false;
        for (const auto& item : *answer.value) {
            if (!offlineSaid) printOffline(item), offlineSaid = true;
            if (auto r = results::decodeResult(item)) std::cout << headline(*r) << "\n";
        }
    });
}

void setupShow(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("show", msg::kShowDescription.str());
    auto id = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    auto summary = std::make_shared<bool>(false), transcript = std::make_shared<bool>(false), cues = std::make_shared<bool>(false);
    cmd->add_option("ID", *id, msg::kIdOption.str())->required();
    auto* s = cmd->add_flag("--summary", *summary, msg::kSummaryOption.str());
    auto* t = cmd->add_flag("--transcript", *transcript, msg::kTranscriptOption.str());
    auto* c = cmd->add_flag("--cues", *cues, msg::kCuesOption.str());
    s->excludes(t)->excludes(c);
    t->excludes(c);
    cmd->add_flag("--json", *json, msg::kJsonOption.str());
    cmd->callback([&context, typed = id, json, summary, transcript, cues] {
        Answer answer = serviceID(*typed);
        if (!answer.value) {
            context.exitCode = report(context, answer);
            return;
        }
        const auto id = std::make_shared<std::string>(answer.value->get<std::string>());
        if (auto host = runningHost()) {
            answer = fromHost(host->recordingDetail(*id));
        } else {
            answer = inProcess<Fetched>(
                context, [&](results::RecordingResults& r, auto done) { r.detail(*id, std::move(done)); }, &withOffline);
        }
        auto result = answer.value ? results::decodeResult(*answer.value) : std::nullopt;
        if (!result) {
            if (answer.value) answer.error = results::messages::kUnreadable.str();
            context.exitCode = report(context, answer);
            return;
        }
        if (*json) {
            Json out = forScripts(*answer.value);
            if (*summary) out = Json{{"id", result->id}, {"state", result->state}, {"summary", out.value("summary", Json())}};
            if (*transcript) out = Json{{"id", result->id}, {"state", result->state}, {"transcript", out.value("transcript", Json())}};
            if (*cues) out = Json{{"id", result->id}, {"state", result->state}, {"cues", out.value("cues", Json())}};
            std::cout << out.dump(2) << "\n";
            return;
        }
        printOffline(*answer.value);
        const bool all = !*summary && !*transcript && !*cues;
        if (all) std::cout << headline(*result) << "\n\n";
        if (result->state == "failed") {
            std::cerr << "vell: " << results::messages::kProcessingFailed.str() << "\n";
            context.exitCode = kExitFailure;
            return;
        }
        if (result->state != "processed") {
            std::cerr << "vell: " << results::messages::kNotProcessedYet.str() << " " << result->stateSentence() << "\n";
            context.exitCode = kExitFailure;
            return;
        }
        if (result->incomplete) std::cerr << "vell: " << results::messages::kIncomplete.str() << "\n";
        if (all || *summary) printSummary(*result);
        if (all) std::cout << "\n";
        if (all || *transcript) printTranscript(*result);
        if (all) std::cout << "\n";
        if (all || *cues) printCues(*result);
        if (all) {
            std::cout << "\n";
            printSpeakers(*result);
        }
    });
}

void setupSpeakers(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("speakers", msg::kSpeakersDescription.str());
    auto id = std::make_shared<std::string>();
    auto names = std::make_shared<std::vector<std::string>>();
    cmd->add_option("ID", *id, msg::kIdOption.str())->required();
    cmd->add_option("NAMES", *names, msg::kNamesOption.str())->required()->check(CLI::Validator(
        [](std::string& text) -> std::string {
            const auto eq = text.find('=');
            if (eq == std::string::npos || eq == 0) return msg::kBadName.str();
            for (size_t i = 0; i < eq; ++i)
                if (!std::isdigit(static_cast<unsigned char>(text[i]))) return msg::kBadName.str();
            return {};
        },
        "N=NAME"));
    cmd->callback([&context, typed = id, names] {
        Answer answer = serviceID(*typed);
        if (!answer.value) {
            context.exitCode = report(context, answer);
            return;
        }
        const auto id = std::make_shared<std::string>(answer.value->get<std::string>());
        std::map<int, std::string> wanted;
        Json namesJson = Json::object();
        for (const auto& n : *names) {
            const auto eq = n.find('=');
            wanted[std::stoi(n.substr(0, eq))] = n.substr(eq + 1);
            namesJson[n.substr(0, eq)] = n.substr(eq + 1);
        }
        if (auto host = runningHost()) {
            answer = fromHost(host->renameSpeakers(*id, namesJson.dump()));
        } else {
            answer = inProcess<RecordingResult>(
                context, [&](results::RecordingResults& r, auto done) { r.renameSpeakers(*id, wanted, std::move(done)); },
                &results::encodeResult);
        }
        auto result = answer.value ? results::decodeResult(*answer.value) : std::nullopt;
        if (!result) {
            context.exitCode = report(context, answer);
            return;
        }
        printSpeakers(*result);
    });
}

void setupShare(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("share", msg::kShareDescription.str());
    auto id = std::make_shared<std::string>();
    cmd->add_option("ID", *id, msg::kIdOption.str())->required();
    cmd->callback([&context, typed = id] {
        Answer answer = serviceID(*typed);
        if (!answer.value) {
            context.exitCode = report(context, answer);
            return;
        }
        const auto id = std::make_shared<std::string>(answer.value->get<std::string>());
        if (auto host = runningHost()) {
            answer = fromHost(host->shareRecording(*id), false);
        } else {
            answer = inProcess<std::string>(
                context, [&](results::RecordingResults& r, auto done) { r.share(*id, std::move(done)); },
                [](const std::string& url) { return Json(url); });
        }
        if (!answer.value || !answer.value->is_string()) {
            context.exitCode = report(context, answer);
            return;
        }
        std::cout << answer.value->get<std::string>() << "\n";
    });
}

void setup(CLI::App& app, Context& context) {
    setupRecordings(app, context);
    setupShow(app, context);
    setupSpeakers(app, context);
    setupShare(app, context);
}

}  // namespace

VELL_COMMAND(35, setup);

}  // namespace vell::cli
