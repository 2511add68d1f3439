#pragma once
// The help screens' layout: descriptions wrapped to the terminal, a value's name instead of
// CLI11's type tags (TEXT, FLOAT:POSITIVE, "Excludes: ..."), option groups shown as plain
// groups, and every heading in the interface language. Main thread of a command.
#include <CLI/CLI.hpp>
#include <cstddef>
#include <string>

namespace vell::cli {

class HelpFormatter : public CLI::Formatter {
public:
    // `width`: the columns to fill (the terminal's, else 80).
    explicit HelpFormatter(std::size_t width);

    std::string make_group(std::string group, bool isPositional, std::vector<const CLI::Option*> options) const override;
    std::string make_subcommands(const CLI::App* app, CLI::AppFormatMode mode) const override;
    std::string make_subcommand(const CLI::App* sub) const override;
    std::string make_description(const CLI::App* app) const override;
    std::string make_footer(const CLI::App* app) const override;
    std::string make_option_opts(const CLI::Option* option) const override;
    std::string make_option_desc(const CLI::Option* option) const override;

private:
    std::string wrapped(const std::string& text, std::size_t width) const;
    std::size_t width_;
};

// Columns of the terminal on standard output; 80 when it is no terminal.
std::size_t terminalWidth();

// `text` broken at spaces into lines of at most `width` columns (a longer word stands alone).
std::string wrapText(const std::string& text, std::size_t width);

}  // namespace vell::cli
