// vell: the command-line front end and headless agent.
#include <sys/stat.h>

#include <algorithm>
#include <iostream>
#include <optional>
#include <sstream>
#include <string_view>
#include <vector>

#include "app/composition.h"
#include "base/language.h"
#include "base/log.h"
#include "base/process_start.h"
#include "cli/command.h"
#include "cli/help_format.h"
#include "cli/help_messages.h"
#include "cli/manual.h"
#include "cli/suggestions.h"

namespace vell::cli {

namespace {
std::vector<std::pair<int, CommandSetup>>& registry() {
    static std::vector<std::pair<int, CommandSetup>> commands;
    return commands;
}
}  // namespace

bool registerCommand(int order, CommandSetup setup) {
    registry().emplace_back(order, std::move(setup));
    return true;
}

}  // namespace vell::cli

namespace {

// The language must be known before the help texts are built, so --lang is looked for
// ahead of the real parse (which still validates it).
void applyLanguageFlag(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::string_view arg = argv[i];
        std::string_view value;
        if (arg == "--lang" && i + 1 < argc) value = argv[i + 1];
        else if (arg.rfind("--lang=", 0) == 0) value = arg.substr(7);
        if (value == "es") vell::setInterfaceLanguage(vell::Language::Spanish);
        if (value == "en") vell::setInterfaceLanguage(vell::Language::English);
    }
}

void localizeHelpLayout(CLI::App& app) {
    using namespace vell::cli;
    // Set before any command is added: each command copies its parent's formatter.
    auto formatter = std::make_shared<HelpFormatter>(terminalWidth());
    app.formatter(formatter);
    for (const auto& text : {help::kUsage, help::kOptionsMarker, help::kSubcommandMarker, help::kSubcommandsMarker,
                             help::kPositionals, help::kRequired, help::kNeeds, help::kExcludes, help::kOptions,
                             help::kSubcommands}) {
        formatter->label(std::string(text.en), text.str());
    }
    app.option_defaults()->group(help::kOptions.str());
    app.set_help_flag("-h,--help", help::kHelp.str());
}

// CLI11's own sentences in the interface language: the ones a user meets.
std::string localizedParseError(const std::string& what) {
    using vell::localized;
    static const std::pair<std::string_view, std::string_view> kPhrases[] = {
        {"The following arguments were not expected: ", "No se esperaban estos argumentos: "},
        {"The following argument was not expected: ", "No se esperaba este argumento: "},
        {"A subcommand is required", "Falta el comando"},
        {" is required", " es obligatorio"},
        {"Could not convert: ", "No se pudo convertir: "},
        {" not in range ", " fuera del rango "},
        {" to ", " a "},
        {"Value ", "El valor "},
        {"argument was not expected: ", "no se esperaba el argumento: "},
        {" requires ", " requiere "},
        {" arguments", " argumentos"},
        {" is not a valid value", " no es un valor válido"},
        {"not in {", "no está en {"},
    };
    if (vell::interfaceLanguage() != vell::Language::Spanish) return what;
    std::string out = what;
    for (const auto& [en, es] : kPhrases) {
        for (std::size_t at = out.find(en); at != std::string::npos; at = out.find(en, at + es.size())) {
            out.replace(at, en.size(), es);
        }
    }
    return out;
}

// The first word that is not an option (nor the value of --lang): the command.
std::string_view commandWord(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::string_view arg = argv[i];
        if (arg == "--lang") {
            ++i;
            continue;
        }
        if (arg.empty() || arg.front() == '-') continue;
        return arg;
    }
    return {};
}

CLI::App* findCommand(CLI::App& app, std::string_view name) {
    for (auto* sub : app.get_subcommands({})) {
        if (sub->get_name() == name) return sub;
    }
    return nullptr;
}

std::vector<std::string> commandNames(const CLI::App& app) {
    std::vector<std::string> names;
    for (const auto* sub : app.get_subcommands({})) {
        if (!sub->get_group().empty()) names.push_back(sub->get_name());
    }
    return names;
}

void reportUnknownCommand(const CLI::App& app, std::string_view word) {
    using namespace vell::cli;
    std::cerr << "vell: " << help::kUnknownCommand.str() << word << "\n"
              << suggestionLines(word, commandNames(app), help::kSimilarCommand, help::kSimilarCommands) << help::kSeeHelp.str()
              << "\n";
}

// An option before the command that vell does not have (vell --bogus) is said as such,
// not as a missing command.
std::optional<std::string> unknownLeadingOption(const CLI::App& app, int argc, char** argv) {
    const auto known = vell::cli::optionNames(app);
    auto isKnown = [&](const std::string& name) { return std::find(known.begin(), known.end(), name) != known.end(); };
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--" || arg.empty() || arg.front() != '-') return std::nullopt;
        if (arg.rfind("--", 0) == 0) {
            const std::string name = arg.substr(0, arg.find('='));
            if (!isKnown(name)) return name;
            if (name == "--lang" && arg.find('=') == std::string::npos) ++i;
            continue;
        }
        for (size_t c = 1; c < arg.size(); ++c) {  // -vv, -qv
            if (!isKnown(std::string("-") + arg[c])) return arg;
        }
    }
    return std::nullopt;
}

// The command the parse got to (vell insurance window ...: "window").
const CLI::App* deepestCommand(const CLI::App& app) {
    const CLI::App* at = &app;
    for (auto selected = at->get_subcommands(); !selected.empty(); selected = at->get_subcommands()) at = selected.front();
    return at;
}

// What the words CLI11 did not expect most likely meant, among the options and commands of
// the command they followed.
std::string extrasSuggestions(const CLI::App& app, const std::string& what) {
    using namespace vell::cli;
    const auto colon = what.find(": ");
    if (colon == std::string::npos) return {};
    const CLI::App* command = deepestCommand(app);
    auto candidates = vell::cli::optionNames(*command);
    for (const auto* sub : command->get_subcommands({})) candidates.push_back(sub->get_name());
    for (const auto& name : vell::cli::optionNames(app)) candidates.push_back(name);
    std::string out;
    std::istringstream extras(what.substr(colon + 2));
    for (std::string word; extras >> word;) {
        out += suggestionLines(word.substr(0, word.find('=')), candidates, help::kDidYouMean, help::kDidYouMeanOneOf);
    }
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    vell::process::start();
    vell::app::installPlatformBindings();
    using namespace vell;
    applyLanguageFlag(argc, argv);
    // Named here, not after argv[0], so every usage line reads "vell ...".
    CLI::App app{cli::help::kProgram.str(), "vell"};
    localizeHelpLayout(app);
    app.set_version_flag("--version", std::string("vell ") + VELL_VERSION + " (" + VELL_BUILD_NUMBER + ")",
                         cli::help::kVersion.str());
    app.require_subcommand(1);
    // Global options may come after the command too (vell pending --lang es).
    app.fallthrough();
    app.footer(cli::help::kExitCodes.str());
    app.failure_message([&app](const CLI::App*, const CLI::Error& e) {
        const std::string suggestions = dynamic_cast<const CLI::ExtrasError*>(&e) ? extrasSuggestions(app, e.what()) : "";
        return "vell: " + localizedParseError(e.what()) + "\n" + suggestions + cli::help::kRunWithHelp.str() + "\n";
    });

    cli::Context context;
    app.add_flag("-v,--verbose", context.verbosity, cli::help::kVerbose.str());
    app.add_flag("-q,--quiet", context.quiet, cli::help::kQuiet.str());
    std::string lang;
    app.add_option("--lang", lang, cli::help::kLanguage.str())->check(CLI::IsMember({"en", "es"}));
    bool logStderr = false;
    app.add_flag("--log-stderr", logStderr, cli::help::kLogStderr.str());

    auto& commands = cli::registry();
    std::stable_sort(commands.begin(), commands.end(), [](auto& a, auto& b) { return a.first < b.first; });
    for (auto& [order, setup] : commands) setup(app, context);
    // vell help [COMMAND [SUBCOMMAND]]
    auto* help = app.add_subcommand("help", cli::help::kHelpCommand.str());
    auto helpTopic = std::make_shared<std::vector<std::string>>();
    help->add_option("command", *helpTopic, cli::help::kHelpCommandName.str());
    // The same screens as "vell --help" and "vell COMMAND --help", word for word.
    help->callback([&app, helpTopic] {
        CLI::App* topic = &app;
        std::string path = app.get_name();
        for (const auto& word : *helpTopic) {
            topic = findCommand(*topic, word);
            if (!topic) {
                reportUnknownCommand(app, word);
                throw CLI::RuntimeError(cli::kExitUsage);
            }
            path += " " + word;
        }
        std::cout << topic->get_formatter()->make_help(topic, path, CLI::AppFormatMode::Normal);
    });

    // Generated by the build for installation (not listed in the help).
    if (argc == 3 && std::string_view(argv[1]) == "--print-manual") {
        cli::printManual(app, argv[2]);
        return cli::kExitOK;
    }
    if (argc == 3 && std::string_view(argv[1]) == "--print-completion") {
        return cli::printCompletion(app, argv[2]) ? cli::kExitOK : cli::kExitUsage;
    }
    // For the completions: the recording ids, from the files alone.
    if (argc == 2 && std::string_view(argv[1]) == "--print-ids") {
        cli::printRecordingIDs();
        return cli::kExitOK;
    }

    // A word that is no command gets its own sentence, not "a subcommand is required".
    if (auto option = unknownLeadingOption(app, argc, argv)) {
        std::cerr << "vell: " << cli::help::kUnknownOption.str() << *option << "\n"
                  << cli::suggestionLines(*option, cli::optionNames(app), cli::help::kDidYouMean, cli::help::kDidYouMeanOneOf)
                  << cli::help::kSeeHelp.str() << "\n";
        return cli::kExitUsage;
    }
    if (auto word = commandWord(argc, argv); !word.empty() && !findCommand(app, word)) {
        reportUnknownCommand(app, word);
        return cli::kExitUsage;
    }
    for (auto* sub : app.get_subcommands({})) {
        sub->group(cli::help::kSubcommands.str());
        if (auto* helpFlag = sub->get_help_ptr()) helpFlag->group(cli::help::kOptions.str());
    }

    app.parse_complete_callback([&] {
        if (lang == "es") setInterfaceLanguage(Language::Spanish);
        if (lang == "en") setInterfaceLanguage(Language::English);
        log::forceStandardError(logStderr || context.verbosity > 0);
        log::echoToStandardError(logStderr || context.verbosity > 0);
        log::setMinimumLevel(context.verbosity >= 2   ? log::Level::Debug
                             : context.verbosity == 1 ? log::Level::Info
                                                      : log::Level::Error);
    });

    try {
        app.parse(argc, argv);
    } catch (const CLI::RuntimeError& e) {
        return e.get_exit_code();
    } catch (const CLI::ParseError& e) {
        // Help and version end with 0; every refused command line is a usage error.
        const int code = app.exit(e);
        return code == 0 ? cli::kExitOK : cli::kExitUsage;
    } catch (const std::exception& e) {
        std::cerr << "vell: " << e.what() << "\n";
        return cli::kExitFailure;
    }
    return context.exitCode;
}
