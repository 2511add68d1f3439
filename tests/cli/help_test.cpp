// Help screens follow the interface language, whether it comes from --lang (anywhere on
// the command line) or from the environment: every heading and description, not only the
// commands' own sentences.
#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "tests/support/temp_home.h"

namespace vell {
namespace {

test::CommandResult help(const std::string& env, const std::string& args) {
    return test::runCommand(env + " " + test::binaryPath("vell").string() + " " + args + " 2>&1");
}

TEST(HelpScreens, SpanishFromTheFlagOrTheEnvironmentEnglishOtherwise) {
    for (const auto& [env, args] : {std::pair{"LANGUAGE= LC_ALL= LC_MESSAGES= LANG=C", "--lang es --help"},
                                    std::pair{"LANGUAGE= LC_ALL= LC_MESSAGES= LANG=C", "login --lang=es --help"},
                                    std::pair{"LANGUAGE= LC_ALL= LC_MESSAGES= LANG=es_AR.UTF-8", "login --help"}}) {
        auto run = help(env, args);
        SCOPED_TRACE(args);
        EXPECT_EQ(run.status, 0) << run.output;
        EXPECT_NE(run.output.find("Uso:"), std::string::npos) << run.output;
        EXPECT_NE(run.output.find("Opciones:"), std::string::npos);
        EXPECT_NE(run.output.find("Muestra esta ayuda y sale"), std::string::npos);
        for (const char* english : {"Usage", "Options", "Print this help", "Sign in", "Subcommands"}) {
            EXPECT_EQ(run.output.find(english), std::string::npos) << english << " left in English:\n" << run.output;
        }
    }
    auto top = help("LANGUAGE= LC_ALL= LC_MESSAGES= LANG=es_AR.UTF-8", "--help");
    EXPECT_NE(top.output.find("Comandos:"), std::string::npos) << top.output;
    EXPECT_NE(top.output.find("Inicia sesión en el servicio de Vell"), std::string::npos);

    auto english = help("LANGUAGE= LC_ALL= LC_MESSAGES= LANG=es_AR.UTF-8", "--lang en login --help");
    EXPECT_NE(english.output.find("Usage:"), std::string::npos) << english.output;
    EXPECT_NE(english.output.find("Account email"), std::string::npos);
}

TEST(CommandLine, WrongUsageIsExitTwoWithASentenceInTheInterfaceLanguage) {
    const std::string en = "LANGUAGE= LC_ALL= LC_MESSAGES= LANG=C", es = "LANGUAGE= LC_ALL= LC_MESSAGES= LANG=es_AR.UTF-8";
    auto bogus = help(en, "bogus");
    EXPECT_EQ(bogus.status, 2);
    EXPECT_NE(bogus.output.find("not a vell command: bogus"), std::string::npos) << bogus.output;
    EXPECT_EQ(bogus.output.find("subcommand is required"), std::string::npos) << bogus.output;
    auto extra = help(es, "pending extra");
    EXPECT_EQ(extra.status, 2);
    EXPECT_NE(extra.output.find("No se esperaba"), std::string::npos) << extra.output;
    EXPECT_NE(extra.output.find("Ejecutá con --help"), std::string::npos) << extra.output;
    EXPECT_EQ(extra.output.find("Run with --help"), std::string::npos) << extra.output;

    // vell help [COMMAND], and global options after the command.
    auto topic = help(en, "help record");
    EXPECT_EQ(topic.status, 0);
    EXPECT_NE(topic.output.find("--seconds"), std::string::npos) << topic.output;
    EXPECT_EQ(help(en, "help nope").status, 2);
    auto top = help(en, "help");
    EXPECT_NE(top.output.find("Exit status: 0 success, 1 failure, 2 wrong usage, 3 signed out"), std::string::npos)
        << top.output;
    EXPECT_EQ(help(en, "status --lang es --json").status, 0);
}

// Every command the help lists, and its second words (insurance on, calendar add, ...).
std::vector<std::string> commandPaths() {
    return {"daemon", "record", "stop", "status", "pending", "upload", "login", "logout", "whoami", "recordings", "show",
            "speakers", "share", "devices", "mic", "capture-test", "speech-test", "echo-cancel", "insurance", "insurance on",
            "insurance window", "insurance export", "recover", "calls", "calendar", "calendar add", "undo", "help"};
}

TEST(CommandLine, TheManualAndTheCompletionsReachEverySecondWord) {
    const std::string en = "LANGUAGE= LC_ALL= LC_MESSAGES= LANG=C";
    auto manual = help(en, "--print-manual 2026-11-25");
    auto bash = help(en, "--print-completion bash");
    auto fish = help(en, "--print-completion fish");
    ASSERT_EQ(manual.status, 0);
    EXPECT_NE(manual.output.find(".TH VELL 1 \"2026-11-25\""), std::string::npos);
    for (const char* section : {".SH DESCRIPTION", ".SH COMMANDS", ".SH EXIT STATUS", ".SH ENVIRONMENT", ".SH FILES",
                                ".SH EXAMPLES", ".SH SEE ALSO", "VELL_API_BASE_URL", "VELL_SPEECH_MODEL", "LANGUAGE"}) {
        EXPECT_NE(manual.output.find(section), std::string::npos) << section;
    }
    for (const auto& path : commandPaths()) {
        std::string roff = path;
        for (size_t at = roff.find('-'); at != std::string::npos; at = roff.find('-', at + 2)) roff.replace(at, 1, "\\-");
        EXPECT_NE(manual.output.find("\\fBvell " + roff + "\\fR"), std::string::npos) << path;
        EXPECT_NE(bash.output.find("    \"" + path + "\") words="), std::string::npos) << path;
        EXPECT_NE(fish.output.find("__vell_at " + path + "'"), std::string::npos) << path;
    }
    EXPECT_NE(bash.output.find("\"record\") words=\"--help -h --json --device --force --live --seconds"), std::string::npos);
    EXPECT_NE(bash.output.find("\"insurance\") words=\"status on off window chunks export requests"), std::string::npos);
    EXPECT_NE(bash.output.find("--lang) COMPREPLY=($(compgen -W \"en es\""), std::string::npos) << bash.output;
    EXPECT_NE(bash.output.find("\"show\") words=\"--help -h --summary --transcript --cues --json\"; words=\"$words $(vell --print-ids"),
              std::string::npos);
    EXPECT_NE(fish.output.find("-l lang -x -a 'en es'"), std::string::npos) << fish.output;
    EXPECT_NE(fish.output.find("-l output -s o -r -F"), std::string::npos) << fish.output;
    EXPECT_EQ(help(en, "--print-completion tcsh").status, 2);

    // The completions run in the shells they are for.
    if (test::runCommand("command -v fish").status == 0) {
        auto parsed = test::runCommand(test::binaryPath("vell").string() + " --print-completion fish | fish --no-execute 2>&1");
        EXPECT_EQ(parsed.status, 0) << parsed.output;
    }
    auto parsed = test::runCommand(test::binaryPath("vell").string() + " --print-completion bash | bash -n 2>&1");
    EXPECT_EQ(parsed.status, 0) << parsed.output;
}

// Mistakes on the command line: said as what they are, with git's "did you mean", exit 2.
TEST(CommandLine, MistakesAreNamedWithTheClosestWordAndExitTwo) {
    const std::string en = "LANGUAGE= LC_ALL= LC_MESSAGES= LANG=C", es = "LANGUAGE= LC_ALL= LC_MESSAGES= LANG=es_AR.UTF-8";
    struct Case {
        std::string env, args, said, suggested;
    };
    for (const auto& c : std::vector<Case>{
             {en, "--bogus", "vell: unknown option: --bogus", ""},
             {en, "--verbos pending", "vell: unknown option: --verbos", "Did you mean this?\n\t--verbose\n"},
             {en, "recrod", "vell: not a vell command: recrod", "The most similar command is\n\trecord\n"},
             {en, "stauts", "vell: not a vell command: stauts", "The most similar command is\n\tstatus\n"},
             {es, "recrod", "vell: no es un comando de vell: recrod", "El comando más parecido es\n\trecord\n"},
             {en, "help recrod", "vell: not a vell command: recrod", "\trecord\n"},
             {en, "pending --jsn", "vell: The following argument was not expected: --jsn", "Did you mean this?\n\t--json\n"},
             {en, "insurance of", "vell: The following argument was not expected: of", "\toff\n"},
             // Out of range is refused, never clamped.
             {en, "insurance window 999", "vell: minutes: Value 999 not in range 5 to 60", ""},
             {en, "insurance export --minutes 0 -o x.aac", "not in range 1 to 60", ""},
             {en, "recover --last zero", "1, 5, a number of minutes, or all", ""},
             {es, "insurance window 2", "fuera del rango 5 a 60", ""},
         }) {
        auto run = help(c.env, c.args);
        SCOPED_TRACE(c.args);
        EXPECT_EQ(run.status, 2) << run.output;
        EXPECT_NE(run.output.find(c.said), std::string::npos) << run.output;
        if (!c.suggested.empty()) {
            EXPECT_NE(run.output.find(c.suggested), std::string::npos) << run.output;
        }
        EXPECT_EQ(run.output.find("subcommand is required"), std::string::npos) << run.output;
    }
}

// "vell help CMD" is "vell CMD --help" word for word; every screen fits the terminal, names
// values instead of CLI11's type tags, and in Spanish has no English left.
TEST(HelpScreens, SameScreensWrappedToTheTerminalWithoutTypeTags) {
    for (const auto& [env, language] : {std::pair{std::string("COLUMNS=60 LANGUAGE= LC_ALL= LC_MESSAGES= LANG=C"), "en"},
                                        std::pair{std::string("COLUMNS=60 LANGUAGE= LC_ALL= LC_MESSAGES= LANG=es_AR.UTF-8"), "es"}}) {
        for (const auto& path : commandPaths()) {
            SCOPED_TRACE(std::string(language) + ": " + path);
            auto viaHelp = help(env, "help " + path);
            auto viaFlag = help(env, path + " --help");
            EXPECT_EQ(viaFlag.status, 0) << viaFlag.output;
            EXPECT_EQ(viaHelp.output, viaFlag.output);
            std::istringstream lines(viaFlag.output);
            for (std::string line; std::getline(lines, line);) {
                size_t columns = 0;
                for (unsigned char ch : line) columns += (ch & 0xC0) != 0x80;
                EXPECT_LE(columns, 60u) << line;
            }
            for (const char* tag : {" TEXT", "FLOAT", " INT", "UINT", "POSITIVE", "Excludes:", "Needs:", "[Option Group", "[At most",
                                    "REQUIRED", "OBLIGATORIO"}) {
                EXPECT_EQ(viaFlag.output.find(tag), std::string::npos) << tag << " in\n" << viaFlag.output;
            }
            if (std::string(language) == "es") {
                for (const char* english : {"Subcommands", "Options", "Usage", "Positionals", "modo seguro", "del seguro"}) {
                    EXPECT_EQ(viaFlag.output.find(english), std::string::npos) << english << " in\n" << viaFlag.output;
                }
            }
        }
    }
    auto record = help("LANGUAGE= LC_ALL= LC_MESSAGES= LANG=C", "record --help");
    EXPECT_NE(record.output.find("--seconds SECONDS"), std::string::npos) << record.output;
}

}  // namespace
}  // namespace vell
