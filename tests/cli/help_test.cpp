// Help screens follow the interface language, whether it comes from --lang (anywhere on
// the command line) or from the environment: every heading and description, not only the
// commands' own sentences.
#include <gtest/gtest.h>

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

TEST(CommandLine, TheManualAndTheCompletionsNameEveryCommandOfTheHelp) {
    const std::string en = "LANGUAGE= LC_ALL= LC_MESSAGES= LANG=C";
    auto manual = help(en, "--print-manual");
    auto bash = help(en, "--print-completion bash");
    ASSERT_EQ(manual.status, 0);
    EXPECT_NE(manual.output.find(".SH EXIT STATUS"), std::string::npos);
    for (const char* command : {"daemon", "record", "stop", "status", "pending", "upload", "login", "insurance", "calls"}) {
        EXPECT_NE(manual.output.find(std::string("\\fB") + command + "\\fR"), std::string::npos) << command;
        EXPECT_NE(bash.output.find(std::string("    ") + command + ") words="), std::string::npos) << command;
    }
    EXPECT_NE(bash.output.find("record) words=\"--help -h --json --device --force --live --seconds"), std::string::npos) << bash.output;
}

}  // namespace
}  // namespace vell
