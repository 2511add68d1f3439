#include "cli/help_format.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <sstream>

namespace vell::cli {

namespace {
// Characters, not bytes: Spanish descriptions wrap at the same column as English ones.
std::size_t columns(const std::string& text) {
    std::size_t n = 0;
    for (unsigned char c : text) n += (c & 0xC0) != 0x80;
    return n;
}

// The name a value goes by in the help: the option's own long name in capitals
// (--seconds SECONDS), the way manual pages write it.
std::string valueName(const CLI::Option* option) {
    std::string name = option->get_lnames().empty() ? option->get_name(true, false) : option->get_lnames().front();
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return c == '-' ? '_' : std::toupper(c); });
    return name;
}
}  // namespace

std::size_t terminalWidth() {
    winsize size{};
    if (::isatty(STDOUT_FILENO) == 1 && ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    if (const char* env = std::getenv("COLUMNS")) {
        const long n = std::strtol(env, nullptr, 10);
        if (n > 0 && n < 1000) return static_cast<std::size_t>(n);
    }
    return 80;
}

std::string wrapText(const std::string& text, std::size_t width) {
    std::string out;
    std::istringstream paragraphs(text);
    bool firstParagraph = true;
    for (std::string paragraph; std::getline(paragraphs, paragraph);) {
        if (!firstParagraph) out += "\n";
        firstParagraph = false;
        std::istringstream words(paragraph);
        std::size_t used = 0;
        for (std::string word; words >> word;) {
            const std::size_t n = columns(word);
            if (used > 0 && used + 1 + n > width) {
                out += "\n";
                used = 0;
            } else if (used > 0) {
                out += " ";
                ++used;
            }
            out += word;
            used += n;
        }
    }
    return out;
}

HelpFormatter::HelpFormatter(std::size_t width) : width_(std::max<std::size_t>(width, 40)) {
    // A narrow terminal keeps room for the descriptions.
    column_width(std::min<std::size_t>(30, width_ / 3));
}

std::string HelpFormatter::wrapped(const std::string& text, std::size_t width) const {
    return wrapText(text, std::max<std::size_t>(width, 20));
}

std::string HelpFormatter::make_group(std::string group, bool isPositional, std::vector<const CLI::Option*> options) const {
    return CLI::Formatter::make_group(get_label(group), isPositional, std::move(options));
}

std::string HelpFormatter::make_subcommands(const CLI::App* app, CLI::AppFormatMode mode) const {
    std::ostringstream out;
    // An option group (one of --last-minute, --all, ...) is a group of options like any other.
    for (const CLI::App* group : app->get_subcommands([](const CLI::App* sub) { return sub->get_name().empty(); })) {
        auto options = group->get_options([group](const CLI::Option* o) { return o->nonpositional() && o != group->get_help_ptr(); });
        if (group->get_group().empty() || options.empty()) continue;
        out << make_group(group->get_description().empty() ? group->get_group() : group->get_description(), false, options);
    }
    std::vector<std::string> headings;
    for (const CLI::App* sub : app->get_subcommands({})) {
        if (!sub->get_name().empty() && !sub->get_group().empty() &&
            std::find(headings.begin(), headings.end(), sub->get_group()) == headings.end()) {
            headings.push_back(sub->get_group());
        }
    }
    for (const auto& heading : headings) {
        out << "\n" << get_label(heading) << ":\n";
        for (const CLI::App* sub : app->get_subcommands([&](const CLI::App* s) { return s->get_group() == heading; })) {
            if (sub->get_name().empty()) continue;
            out << (mode == CLI::AppFormatMode::All ? sub->help(sub->get_name(), CLI::AppFormatMode::Sub) + "\n" : make_subcommand(sub));
        }
    }
    return out.str();
}

std::string HelpFormatter::make_subcommand(const CLI::App* sub) const {
    std::ostringstream out;
    CLI::detail::format_help(out, sub->get_name(), wrapped(sub->get_description(), width_ - get_column_width()), get_column_width());
    return out.str();
}

std::string HelpFormatter::make_description(const CLI::App* app) const {
    const std::string text = app->get_description();
    return text.empty() ? std::string() : wrapped(text, width_) + "\n";
}

std::string HelpFormatter::make_footer(const CLI::App* app) const {
    const std::string text = app->get_footer();
    return text.empty() ? std::string() : wrapped(text, width_) + "\n";
}

std::string HelpFormatter::make_option_opts(const CLI::Option* option) const {
    // Positionals are named already; a flag takes no value.
    if (option->get_positional() || option->get_expected_max() == 0) return {};
    if (!option->get_option_text().empty()) return " " + option->get_option_text();
    return " " + valueName(option) + (option->get_expected_max() == CLI::detail::expected_max_vector_size ? " ..." : "");
}

std::string HelpFormatter::make_option_desc(const CLI::Option* option) const {
    return wrapped(option->get_description(), width_ - get_column_width());
}

}  // namespace vell::cli
