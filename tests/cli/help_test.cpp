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

}  // namespace
}  // namespace vell
