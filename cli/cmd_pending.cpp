// vell pending [--json]: the pending list, after the recorder's start-up recovery.
#include <fmt/format.h>

#include <cmath>
#include <ctime>
#include <iostream>
#include <nlohmann/json.hpp>

#include "app/composition.h"
#include "app/core_services.h"
#include "cli/command.h"
#include "cli/host_client.h"
#include "cli/json_output.h"
#include "cli/pending_messages.h"
#include "cli/units.h"
#include "cli/runtime_scope.h"
#include "recording/pending_recording_coding.h"
#include "recording/recorder_service.h"

namespace vell::cli {

namespace {
namespace msg = pending_messages;

std::string humanSize(const std::filesystem::path& file) {
    std::error_code ec;
    auto bytes = std::filesystem::file_size(file, ec);
    if (ec) return msg::kMissingFile.str();
    return bytesText(static_cast<double>(bytes));
}

// h:mm:ss of a finished recording; a dash while it runs.
std::string length(const recording::PendingRecording& r) {
    if (!r.finishedAt) return "-";
    const auto seconds = std::max<long long>(0, std::llround(std::chrono::duration<double>(*r.finishedAt - r.startedAt).count()));
    return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

std::string statusWord(recording::PendingRecording::Status status) {
    using S = recording::PendingRecording::Status;
    switch (status) {
        case S::recording: return msg::kStatusRecording.str();
        case S::ready: return msg::kStatusReady.str();
        case S::uploading: return msg::kStatusUploading.str();
        case S::uploaded: return msg::kStatusUploaded.str();
        case S::failed: return msg::kStatusFailed.str();
        case S::discarded: return msg::kStatusDiscarded.str();
    }
    return recording::toString(status);
}

std::string localTime(WallTime t) {
    std::time_t seconds = std::chrono::system_clock::to_time_t(t);
    std::tm tm{};
    ::localtime_r(&seconds, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M", &tm);
    return buffer;
}

// Column widths count characters, not bytes, so Spanish headers line up.
size_t displayWidth(const std::string& s) {
    size_t n = 0;
    for (unsigned char c : s) n += (c & 0xC0) != 0x80;
    return n;
}

// One recording for scripts: the stored fields, with times in ISO 8601 and the file as a path.
nlohmann::ordered_json forScripts(const recording::PendingRecording& r) {
    auto j = recording::coding::encode(r);
    nlohmann::ordered_json out;
    for (const auto& item : j.items()) {
        const auto& key = item.key();
        const auto& value = item.value();
        if (key == "fileURL") out["file"] = r.fileURL.string();
        else if (key == "startedAt") out[key] = isoTime(r.startedAt);
        else if (key == "finishedAt") out[key] = isoTime(r.finishedAt);
        else if (key == "discardedAt") out[key] = isoTime(r.discardedAt);
        else out[key] = value;
    }
    return out;
}

void printTable(const std::vector<recording::PendingRecording>& list) {
    constexpr size_t kColumns = 6;
    std::vector<std::array<std::string, kColumns>> rows;
    rows.push_back({msg::kColumnID.str(), msg::kColumnStatus.str(), msg::kColumnStarted.str(), msg::kColumnLength.str(),
                    msg::kColumnSize.str(), msg::kColumnNote.str()});
    for (const auto& r : list) {
        rows.push_back({r.id, statusWord(r.status), localTime(r.startedAt), length(r), humanSize(r.fileURL),
                        r.lastError.value_or("")});
    }
    std::array<size_t, kColumns> widths{};
    for (const auto& row : rows)
        for (size_t i = 0; i + 1 < kColumns; ++i) widths[i] = std::max(widths[i], displayWidth(row[i]));
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i + 1 < kColumns; ++i) line += row[i] + std::string(widths[i] - displayWidth(row[i]) + 2, ' ');
        line += row[kColumns - 1];
        while (!line.empty() && line.back() == ' ') line.pop_back();
        std::cout << line << "\n";
    }
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("pending", msg::kDescription.str());
    auto json = std::make_shared<bool>(false);
    cmd->add_flag("--json", *json, msg::kJsonOption.str());
    cmd->callback([&context, json] {
        std::vector<recording::PendingRecording> list;
        std::unique_ptr<RuntimeScope> scope;
        if (auto host = runningHost()) {
            auto json = host->pending();
            if (!json) {
                context.exitCode = reportHostError(json.error());
                return;
            }
            list = recording::coding::decodeList(*json).value_or(std::vector<recording::PendingRecording>{});
        } else {
            scope = RuntimeScope::enter(context);
            if (!scope) return;
            list = app::core().recorder().pending();
        }
        if (*json) {
            nlohmann::ordered_json array = nlohmann::ordered_json::array();
            for (const auto& r : list) array.push_back(forScripts(r));
            std::cout << array.dump(2) << "\n";
        } else if (list.empty()) {
            std::cout << msg::kEmpty.str() << "\n";
        } else {
            printTable(list);
        }
        context.exitCode = kExitOK;
    });
}
}  // namespace

VELL_COMMAND(30, setup);

}  // namespace vell::cli
