// vell: the command-line front end and headless agent.
#include <sys/stat.h>

#include <algorithm>
#include <iostream>
#include <string_view>
#include <vector>

#include "app/composition.h"
#include "base/language.h"
#include "base/log.h"
#include "cli/command.h"
#include "cli/help_messages.h"

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
    auto formatter = app.get_formatter();
    for (const auto& text : {help::kUsage, help::kOptionsMarker, help::kSubcommandMarker, help::kSubcommandsMarker,
                             help::kPositionals, help::kRequired, help::kNeeds, help::kExcludes}) {
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

std::string roff(std::string text) {
    std::string out;
    for (char c : text) {
        if (c == '\\') out += "\\e";
        else if (c == '-') out += "\\-";
        else out += c;
    }
    return out;
}

std::vector<std::string> optionNames(const CLI::App& command) {
    std::vector<std::string> names;
    for (const auto* option : command.get_options()) {
        for (const auto& name : option->get_lnames()) names.push_back("--" + name);
        for (const auto& name : option->get_snames()) names.push_back("-" + name);
    }
    return names;
}

// The manual page and the shell completions come from the same command table as the help.
void printManual(CLI::App& app) {
    std::cout << ".TH VELL 1 \"\" \"vell " << VELL_VERSION << "\" \"User Commands\"\n.SH NAME\nvell \\- "
              << roff(vell::cli::help::kProgram.str()) << "\n.SH SYNOPSIS\n\\fBvell\\fR [\\fIOPTIONS\\fR] \\fICOMMAND\\fR "
              << "[\\fIARGS\\fR]\n.SH OPTIONS\n";
    for (const auto* option : app.get_options()) {
        std::cout << ".TP\n\\fB" << roff(option->get_name(false, true)) << "\\fR\n" << roff(option->get_description()) << "\n";
    }
    std::cout << ".SH COMMANDS\n";
    for (auto* sub : app.get_subcommands({})) {
        if (sub->get_group().empty()) continue;
        std::cout << ".TP\n\\fB" << roff(sub->get_name()) << "\\fR\n" << roff(sub->get_description()) << "\n";
        for (const auto* option : sub->get_options()) {
            if (option->get_name() == "--help") continue;
            std::cout << ".RS\n.TP\n\\fB" << roff(option->get_name(true, true)) << "\\fR\n" << roff(option->get_description())
                      << "\n.RE\n";
        }
    }
    std::cout << ".SH EXIT STATUS\n" << roff(vell::cli::help::kExitCodes.str()) << "\n.SH FILES\n"
              << "$XDG_DATA_HOME/Vell (recordings, pending list, insurance buffer), $XDG_CONFIG_HOME/Vell/defaults.json\n";
}

void printCompletion(CLI::App& app, std::string_view shell) {
    std::string commands;
    for (auto* sub : app.get_subcommands({})) {
        if (!sub->get_group().empty()) commands += (commands.empty() ? "" : " ") + sub->get_name();
    }
    if (shell == "zsh") std::cout << "#compdef vell\nautoload -U bashcompinit && bashcompinit\n";
    std::cout << "_vell() {\n  local cur=${COMP_WORDS[COMP_CWORD]} cmd=\"\"\n  local w\n"
              << "  for w in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do case $w in -*) ;; *) cmd=$w; break;; esac; done\n"
              << "  local words=\"" << commands;
    for (const auto& name : optionNames(app)) std::cout << " " << name;
    std::cout << "\"\n  case $cmd in\n";
    for (auto* sub : app.get_subcommands({})) {
        if (sub->get_group().empty()) continue;
        std::cout << "    " << sub->get_name() << ") words=\"";
        bool first = true;
        for (const auto& name : optionNames(*sub)) std::cout << (first ? "" : " ") << name, first = false;
        std::cout << "\";;\n";
    }
    std::cout << "  esac\n  COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n}\ncomplete -F _vell vell\n";
}

}  // namespace

int main(int argc, char** argv) {
    // Everything Vell creates (recordings, the pending list, receipts, the insurance buffer,
    // the session) is for this user alone.
    ::umask(077);
    vell::app::installPlatformBindings();
    using namespace vell;
    applyLanguageFlag(argc, argv);
    CLI::App app{cli::help::kProgram.str()};
    localizeHelpLayout(app);
    app.set_version_flag("--version", std::string("vell ") + VELL_VERSION + " (" + VELL_BUILD_NUMBER + ")",
                         cli::help::kVersion.str());
    app.require_subcommand(1);
    // Global options may come after the command too (vell pending --lang es).
    app.fallthrough();
    app.footer(cli::help::kExitCodes.str());
    app.failure_message([](const CLI::App*, const CLI::Error& e) {
        return "vell: " + localizedParseError(e.what()) + "\n" + cli::help::kRunWithHelp.str() + "\n";
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
    // vell help [COMMAND]
    auto* help = app.add_subcommand("help", cli::help::kHelpCommand.str());
    auto helpTopic = std::make_shared<std::string>();
    help->add_option("command", *helpTopic, cli::help::kHelpCommandName.str());
    help->callback([&app, helpTopic] {
        if (helpTopic->empty()) {
            std::cout << app.help();
            return;
        }
        if (auto* sub = findCommand(app, *helpTopic)) {
            std::cout << sub->help();
            return;
        }
        std::cerr << "vell: " << cli::help::kUnknownCommand.str() << *helpTopic << "\n" << cli::help::kSeeHelp.str() << "\n";
        throw CLI::RuntimeError(cli::kExitUsage);
    });

    // Generated by the build for installation (not listed in the help).
    if (argc == 2 && std::string_view(argv[1]) == "--print-manual") {
        printManual(app);
        return cli::kExitOK;
    }
    if (argc == 3 && std::string_view(argv[1]) == "--print-completion") {
        printCompletion(app, argv[2]);
        return cli::kExitOK;
    }

    // A word that is no command gets its own sentence, not "a subcommand is required".
    if (auto word = commandWord(argc, argv); !word.empty() && !findCommand(app, word)) {
        std::cerr << "vell: " << cli::help::kUnknownCommand.str() << word << "\n" << cli::help::kSeeHelp.str() << "\n";
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
