#include "cli/manual.h"

#include <iostream>
#include <set>

#include "base/files.h"
#include "base/paths.h"
#include "cli/help_messages.h"
#include "recording/pending_recording_coding.h"
#include "service/upload_receipts.h"

namespace vell::cli {

namespace {

// The manual is in English, whatever the language of the build machine.
std::string en(const Text& text) { return text.in(Language::English); }

std::string roff(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\\') out += "\\e";
        else if (c == '-') out += "\\-";
        else out += c;
    }
    // A line starting with a dot or a quote would be read as a request.
    if (!out.empty() && (out.front() == '.' || out.front() == '\'')) out.insert(0, "\\&");
    return out;
}

std::vector<CLI::App*> commandsOf(CLI::App& app) {
    return app.get_subcommands([](const CLI::App* sub) { return !sub->get_name().empty() && !sub->get_group().empty(); });
}

std::vector<CLI::Option*> visibleOptions(CLI::App& command) {
    std::vector<CLI::Option*> out;
    for (auto* option : command.get_options()) {
        if (option != command.get_help_ptr()) out.push_back(option);
    }
    for (auto* group : command.get_subcommands([](const CLI::App* sub) { return sub->get_name().empty(); })) {
        for (auto* option : group->get_options()) {
            if (option != group->get_help_ptr()) out.push_back(option);
        }
    }
    return out;
}

// The values a validator allows ({en,es}, {status,on,off}), if it lists them.
std::vector<std::string> allowedValues(CLI::Option& option) {
    try {
        std::string text = option.get_validator()->get_description();
        const auto open = text.find('{'), close = text.rfind('}');
        if (open == std::string::npos || close == std::string::npos || close < open) return {};
        std::vector<std::string> values;
        std::string value;
        for (char c : text.substr(open + 1, close - open - 1)) {
            if (c == ',') values.push_back(value), value.clear();
            else if (c != ' ') value += c;
        }
        if (!value.empty()) values.push_back(value);
        return values;
    } catch (const CLI::OptionNotFound&) {
        return {};
    }
}

bool takesFile(const CLI::Option& option) {
    for (const char* word : {"output", "file", "source"}) {
        if (option.get_name(true, true).find(word) != std::string::npos) return true;
    }
    return false;
}

bool takesRecordingID(const CLI::Option& option) { return option.get_positional() && option.get_name(true, false) == "ID"; }

std::string usageOf(CLI::App& command) {
    std::string out;
    for (auto* option : command.get_options()) {
        if (!option->get_positional()) continue;
        const std::string name = "\\fI" + roff(option->get_name(true, false)) + "\\fR";
        out += " " + (option->get_required() ? name : "[" + name + "]");
    }
    return out;
}

void manualCommand(CLI::App& command, const std::string& path) {
    std::cout << ".TP\n\\fBvell " << roff(path) << "\\fR" << usageOf(command) << "\n" << roff(command.get_description()) << "\n";
    const auto options = visibleOptions(command);
    if (!options.empty()) std::cout << ".RS\n";
    for (auto* option : options) {
        std::string name = roff(option->get_positional() ? option->get_name(true, false) : option->get_name(false, true));
        std::cout << ".TP\n\\fB" << name << "\\fR\n" << roff(option->get_description()) << "\n";
    }
    if (!options.empty()) std::cout << ".RE\n";
    for (auto* sub : commandsOf(command)) manualCommand(*sub, path + " " + sub->get_name());
}

// Each command path ("", "insurance", "insurance window") with the words that may follow it.
struct Level {
    std::string path;
    std::vector<std::string> words;
    bool ids = false, files = false;
};

void collectLevels(CLI::App& command, const std::string& path, std::vector<Level>& levels) {
    Level level{path, {}, false, false};
    for (auto* sub : commandsOf(command)) level.words.push_back(sub->get_name());
    for (const auto& name : optionNames(command)) level.words.push_back(name);
    for (auto* option : visibleOptions(command)) {
        if (!option->get_positional()) continue;
        for (const auto& value : allowedValues(*option)) level.words.push_back(value);
        level.ids = level.ids || takesRecordingID(*option);
        level.files = level.files || takesFile(*option);
    }
    if (path == "help") {
        for (auto* sub : commandsOf(*command.get_parent())) level.words.push_back(sub->get_name());
    }
    levels.push_back(level);
    for (auto* sub : commandsOf(command)) collectLevels(*sub, path.empty() ? sub->get_name() : path + " " + sub->get_name(), levels);
}

std::string joined(const std::vector<std::string>& words) {
    std::string out;
    for (const auto& w : words) out += (out.empty() ? "" : " ") + w;
    return out;
}

// Options anywhere in the tree that take a value of their own.
void valueOptions(CLI::App& command, std::map<std::string, std::vector<std::string>>& values, std::set<std::string>& files) {
    for (auto* option : visibleOptions(command)) {
        if (option->get_positional() || option->get_expected_max() == 0) continue;
        const auto allowed = allowedValues(*option);
        for (const auto& name : optionNames(command)) {
            if (!option->check_name(name)) continue;
            if (!allowed.empty()) values[name] = allowed;
            else if (takesFile(*option)) files.insert(name);
            else values.emplace(name, std::vector<std::string>{});
        }
    }
    for (auto* sub : commandsOf(command)) valueOptions(*sub, values, files);
}

void printBash(CLI::App& app, std::vector<Level>& levels) {
    std::map<std::string, std::vector<std::string>> values;
    std::set<std::string> files;
    valueOptions(app, values, files);
    std::cout << "_vell() {\n"
              << "  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} path=\"\" w words=\"\"\n"
              << "  for w in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
              << "    case \"$path${path:+ }$w\" in\n";
    for (const auto& level : levels) {
        if (!level.path.empty()) std::cout << "      \"" << level.path << "\") path=\"$path${path:+ }$w\";;\n";
    }
    std::cout << "    esac\n  done\n  case $prev in\n";
    std::string fileNames;
    for (const auto& name : files) fileNames += (fileNames.empty() ? "" : "|") + name;
    if (!fileNames.empty()) std::cout << "    " << fileNames << ") COMPREPLY=($(compgen -f -- \"$cur\")); return;;\n";
    for (const auto& [name, allowed] : values) {
        std::cout << "    " << name << ") COMPREPLY=(" << (allowed.empty() ? "" : "$(compgen -W \"" + joined(allowed) + "\" -- \"$cur\")")
                  << "); return;;\n";
    }
    std::cout << "  esac\n  case $path in\n";
    for (const auto& level : levels) {
        std::cout << "    \"" << level.path << "\") words=\"" << joined(level.words) << "\"";
        if (level.ids) std::cout << "; words=\"$words $(vell --print-ids 2>/dev/null)\"";
        if (level.files) std::cout << "; COMPREPLY=($(compgen -f -- \"$cur\"))";
        std::cout << ";;\n";
    }
    std::cout << "  esac\n  COMPREPLY+=($(compgen -W \"$words\" -- \"$cur\"))\n}\ncomplete -F _vell vell\n";
}

void printFish(CLI::App& app, std::vector<Level>& levels) {
    auto quoted = [](const std::string& text) {
        std::string out = "'";
        for (char c : text) out += c == '\'' ? std::string("\\'") : std::string(1, c);
        return out + "'";
    };
    std::string paths;
    for (const auto& level : levels) {
        if (!level.path.empty()) paths += " " + quoted(level.path);
    }
    std::cout << "# vell: commands, their second words, options, --lang values and recording ids\n"
              << "function __vell_path\n"
              << "    set -l path \"\"\n"
              << "    for w in (commandline -opc)[2..-1]\n"
              << "        set -l next (string trim -- \"$path $w\")\n"
              << "        switch $next\n"
              << "            case" << paths << "\n"
              << "                set path $next\n"
              << "        end\n"
              << "    end\n"
              << "    echo $path\n"
              << "end\n"
              << "function __vell_at\n    set -l at (__vell_path)\n    test \"$at\" = \"$argv\"\nend\n"
              << "complete -c vell -f\n";
    std::map<std::string, std::vector<std::string>> values;
    std::set<std::string> files;
    valueOptions(app, values, files);
    for (const auto& level : levels) {
        CLI::App* command = &app;
        std::string rest = level.path;
        while (!rest.empty()) {
            const auto space = rest.find(' ');
            command = command->get_subcommand(rest.substr(0, space));
            rest = space == std::string::npos ? "" : rest.substr(space + 1);
        }
        const std::string when = "-n " + quoted("__vell_at " + level.path);
        for (auto* sub : commandsOf(*command)) {
            std::cout << "complete -c vell " << when << " -a " << quoted(sub->get_name()) << " -d "
                      << quoted(sub->get_description().substr(0, sub->get_description().find(" ("))) << "\n";
        }
        std::cout << "complete -c vell " << when << " -s h -l help -d " << quoted(command->get_help_ptr()->get_description()) << "\n";
        if (level.path == "help") {
            std::vector<std::string> names;
            for (auto* sub : commandsOf(app)) names.push_back(sub->get_name());
            std::cout << "complete -c vell " << when << " -a " << quoted(joined(names)) << "\n";
        }
        for (auto* option : visibleOptions(*command)) {
            if (option->get_positional()) {
                const auto allowed = allowedValues(*option);
                if (!allowed.empty()) std::cout << "complete -c vell " << when << " -a " << quoted(joined(allowed)) << "\n";
                if (takesRecordingID(*option)) std::cout << "complete -c vell " << when << " -a '(vell --print-ids 2>/dev/null)'\n";
                if (takesFile(*option)) std::cout << "complete -c vell " << when << " -F\n";
                continue;
            }
            std::cout << "complete -c vell " << (level.path.empty() ? "" : when + " ");
            for (const auto& l : option->get_lnames()) std::cout << "-l " << l << " ";
            for (const auto& s : option->get_snames()) std::cout << "-s " << s << " ";
            const std::string name = option->get_name(false, false);
            if (files.count(name)) std::cout << "-r -F ";
            else if (values.count(name) && !values[name].empty()) std::cout << "-x -a " << quoted(joined(values[name])) << " ";
            else if (values.count(name)) std::cout << "-x ";
            std::cout << "-d " << quoted(option->get_description()) << "\n";
        }
    }
}

}  // namespace

std::vector<std::string> optionNames(const CLI::App& command) {
    std::vector<std::string> names;
    auto add = [&](const CLI::App& from, bool group) {
        for (const auto* option : from.get_options()) {
            if (group && option == from.get_help_ptr()) continue;  // a group's copy of --help
            for (const auto& name : option->get_lnames()) names.push_back("--" + name);
            for (const auto& name : option->get_snames()) names.push_back("-" + name);
        }
    };
    add(command, false);
    for (const auto* group : command.get_subcommands([](const CLI::App* sub) { return sub->get_name().empty(); })) add(*group, true);
    return names;
}

void printManual(CLI::App& app, std::string_view date) {
    std::cout << ".TH VELL 1 \"" << date << "\" \"vell " << VELL_VERSION << "\" \"User Commands\"\n"
              << ".SH NAME\nvell \\- record conversations and hand them to the Vell service\n"
              << ".SH SYNOPSIS\n\\fBvell\\fR [\\fIOPTIONS\\fR] \\fICOMMAND\\fR [\\fIARGS\\fR]\n"
              << ".SH DESCRIPTION\n" << roff(en(help::kProgram)) << "\n.PP\n"
              << "A recording mixes the microphone with the sound this computer plays into one AAC file; it stays in a "
                 "list of pending recordings until it has reached the service, and is uploaded by itself when Vell can "
                 "reach it.\n.PP\n"
              << "One process at a time hosts Vell: \\fBvell daemon\\fR (the systemd user unit \\fIvell.service\\fR) or "
                 "\\fBvell\\-tray\\fR. While one runs, the other commands are its clients over the session bus, with the "
                 "same output and exit status; without one they work in their own process.\n.PP\n"
              << "Messages follow the interface language (English, or Spanish when the preferred language begins with "
                 "\"es\"); output for scripts (\\fB\\-\\-json\\fR) never does: times are ISO 8601 with the offset, paths "
                 "are plain paths.\n"
              << ".SH OPTIONS\n";
    for (auto* option : app.get_options()) {
        std::cout << ".TP\n\\fB" << roff(option->get_name(false, true)) << "\\fR\n" << roff(option->get_description()) << "\n";
    }
    std::cout << ".SH COMMANDS\n";
    for (auto* sub : commandsOf(app)) manualCommand(*sub, sub->get_name());
    std::cout << ".SH EXIT STATUS\n" << roff(en(help::kExitCodes)) << "\n"
              << ".SH ENVIRONMENT\n"
              << ".TP\n\\fBLANGUAGE\\fR, \\fBLC_ALL\\fR, \\fBLC_MESSAGES\\fR, \\fBLANG\\fR\n"
                 "The first of these that is set chooses the interface language: Spanish when it begins with \"es\", "
                 "English otherwise. \\fB\\-\\-lang\\fR overrides it.\n"
              << ".TP\n\\fBXDG_DATA_HOME\\fR, \\fBXDG_CONFIG_HOME\\fR, \\fBXDG_RUNTIME_DIR\\fR\n"
                 "Where the recordings, the preferences and the private working files go (see FILES).\n"
              << ".TP\n\\fBTMPDIR\\fR\nFor files nobody else may guess or replace.\n"
              << ".TP\n\\fBVELL_API_BASE_URL\\fR\nThe service's address instead of the one built in; only https://, or "
                 "http:// to this computer, is accepted (for development and tests).\n"
              << ".TP\n\\fBVELL_SPEECH_MODEL\\fR\nThe speech detector's model file (silero_vad.onnx) instead of the "
                 "installed one.\n"
              << ".TP\n\\fBTERM\\fR\nProgress is drawn in place only on a terminal that is not \\fBdumb\\fR.\n"
              << ".SH FILES\n"
              << ".TP\n\\fI$XDG_DATA_HOME/Vell/Recordings/\\fR\nThe recordings (vell_rec_\\fIID\\fR.aac) and the pending "
                 "list, manifest.json (default \\fI~/.local/share\\fR).\n"
              << ".TP\n\\fI$XDG_DATA_HOME/Vell/Insurance/\\fR\nInsurance mode's buffer of the last minutes.\n"
              << ".TP\n\\fI$XDG_DATA_HOME/Vell/instance.lock\\fR\nHeld by the process that hosts Vell.\n"
              << ".TP\n\\fI$XDG_CONFIG_HOME/Vell/defaults.json\\fR\nThe preferences (default \\fI~/.config\\fR).\n"
              << ".TP\n\\fI$XDG_CONFIG_HOME/autostart/vell.desktop\\fR\nWritten when Vell opens at login.\n"
              << ".SH EXAMPLES\n"
              << ".TP\n\\fBvell login \\-\\-email ana@example.com\\fR\nSign in (the password is asked for).\n"
              << ".TP\n\\fBvell record \\-\\-seconds 600\\fR\nRecord ten minutes; Ctrl\\-C stops sooner.\n"
              << ".TP\n\\fBvell pending\\fR\nWhat waits to be uploaded, with each recording's id.\n"
              << ".TP\n\\fBvell show \\fR\\fIID\\fR \\fB\\-\\-summary\\fR\nThe summary of a processed recording.\n"
              << ".TP\n\\fBvell insurance on \\-\\-accept\\-privacy\\fR\nKeep the last minutes of the microphone.\n"
              << ".TP\n\\fBvell recover \\-\\-last 5 \\-\\-copy\\fR\nTranscribe the last five minutes and copy the text.\n"
              << ".TP\n\\fBvell calendar add ~/meetings.ics\\fR\nRecord the meetings of a calendar.\n"
              << ".TP\n\\fBsystemctl \\-\\-user enable \\-\\-now vell\\fR\nStart the host with the session.\n"
              << ".SH SEE ALSO\n\\fBvell\\-tray\\fR(1), \\fBsystemctl\\fR(1), \\fBjournalctl\\fR(1)\n";
}

bool printCompletion(CLI::App& app, std::string_view shell) {
    std::vector<Level> levels;
    collectLevels(app, "", levels);
    if (shell == "bash" || shell == "zsh") {
        if (shell == "zsh") std::cout << "#compdef vell\nautoload -U bashcompinit && bashcompinit\n";
        printBash(app, levels);
        return true;
    }
    if (shell == "fish") {
        printFish(app, levels);
        return true;
    }
    return false;
}

void printRecordingIDs() {
    std::set<std::string> ids;
    std::error_code ec;
    if (auto text = files::read(paths::recordingsDirectory() / "manifest.json", ec)) {
        if (auto list = recording::coding::decodeList(*text)) {
            for (const auto& r : *list) ids.insert(r.id);
        }
    }
    service::UploadReceipts receipts(paths::vellDataDirectory() / "upload-receipts.json");
    for (const auto& [id, receipt] : receipts.all()) {
        if (!receipt.recordingID.empty()) ids.insert(receipt.recordingID);
    }
    for (const auto& id : ids) std::cout << id << "\n";
}

}  // namespace vell::cli
