// vell login: signs in with email and password (and the two-step code when the account
// asks for one) and keeps the session for later runs.
#include <termios.h>
#include <unistd.h>

#include <iostream>
#include <regex>

#include "cli/account_messages.h"
#include "cli/command.h"
#include "cli/help_messages.h"
#include "cli/host_client.h"
#include "app/composition.h"
#include "app/core_services.h"
#include "cli/runtime_scope.h"
#include "recording/recorder_service.h"

namespace vell::cli {

namespace {

std::optional<std::string> readLine() {
    std::string line;
    if (!std::getline(std::cin, line)) return std::nullopt;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

// From the terminal without echo; from standard input as it comes when that is no terminal.
std::optional<std::string> readSecret(const std::string& prompt) {
    if (!::isatty(STDIN_FILENO)) return readLine();
    std::cerr << prompt << std::flush;
    termios saved{};
    ::tcgetattr(STDIN_FILENO, &saved);
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    auto line = readLine();
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    return line;
}

std::optional<std::string> ask(const std::string& prompt) {
    if (::isatty(STDIN_FILENO)) std::cerr << prompt << std::flush;
    return readLine();
}

int login(Context& context, std::string email) {
    if (email.empty()) email = ask(messages::kEmailPrompt).value_or("");
    if (email.empty()) {
        std::cerr << "vell: " << messages::kMissingEmail.str() << "\n";
        return kExitUsage;
    }
    auto password = readSecret(messages::kPasswordPrompt);
    if (!password || password->empty()) {
        std::cerr << "vell: " << messages::kMissingPassword.str() << "\n";
        return kExitUsage;
    }
    if (auto host = runningHost()) {
        auto step = host->signIn(email, *password);
        if (!step) return reportHostError(step.error());
        if (*step == "mfaRequired") {
            auto code = ask(messages::kCodePrompt);
            if (!code || code->empty()) {
                std::cerr << "vell: " << messages::kMissingCode.str() << "\n";
                return kExitUsage;
            }
            if (auto verified = host->verifyCode(*code); !verified) return reportHostError(verified.error());
        }
        auto status = host->status();
        std::cout << messages::kSignedInAs.str() << (status ? status->userEmail : email) << ".\n";
        return kExitOK;
    }
    // Signing in gives unowned recordings to the account once, through the recorder, so
    // this command owns the data folder like any other that changes the pending list.
    auto scope = RuntimeScope::enter(context);
    if (!scope) return context.exitCode;
    auto& core = app::core();
    auto& state = core.appState();
    core.recorder();
    std::optional<service::APIError> failure;
    std::optional<service::SignInStep> step;
    state.signIn(email, *password, [&](Expected<service::SignInStep, service::APIError> result) {
        if (result) step = *result;
        else failure = result.error();
        scope->stop();
    });
    scope->run();
    if (failure) {
        std::cerr << "vell: " << failure->descriptionWithCause() << "\n";
        return kExitFailure;
    }
    if (step == service::SignInStep::mfaRequired) {
        auto code = ask(messages::kCodePrompt);
        if (!code || code->empty()) {
            state.cancelMfa();
            std::cerr << "vell: " << messages::kMissingCode.str() << "\n";
            return kExitUsage;
        }
        service::MfaAnswer answer;
        // Six digits are a time-based code; anything else is a backup code.
        if (std::regex_match(*code, std::regex(R"(\s*\d{6}\s*)"))) {
            answer.code = std::regex_replace(*code, std::regex(R"(\s)"), "");
        } else {
            answer.backupCode = *code;
        }
        state.verifyMfa(answer, [&](Expected<Unit, service::APIError> result) {
            if (!result) failure = result.error();
            scope->stop();
        });
        scope->run();
        if (failure) {
            std::cerr << "vell: " << failure->descriptionWithCause() << "\n";
            return kExitFailure;
        }
    }
    auto me = state.me.get();
    if (state.sessionNotStored()) {
        std::cerr << "vell: " << messages::kSessionNotStored.str() << "\n";
        return kExitFailure;
    }
    std::cout << messages::kSignedInAs.str() << (me ? me->email : email) << ".\n";
    return kExitOK;
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("login", help::kLogin.str());
    auto email = std::make_shared<std::string>();
    cmd->add_option("--email", *email, help::kLoginEmail.str());
    cmd->callback([email, &context] { context.exitCode = login(context, *email); });
}

}  // namespace

VELL_COMMAND(60, setup);

}  // namespace vell::cli
