// How the commands of this project show their options. For programs with CLI11.
#pragma once

#include <CLI/CLI.hpp>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

// The text in lines of 76 columns; those after the first begin with so many blanks, and so do those
// after a line feed of the text.
inline std::string Wrapped(const std::string& text, size_t indent) {
    const std::string feed = "\n" + std::string(indent, ' ');
    std::string wrapped, word;
    size_t column = indent;
    for (std::istringstream words(text); std::getline(words, word, ' ');) {
        const bool fits = column + 1 + word.size() <= 76;
        const std::string gap = wrapped.empty() ? "" : fits ? " " : feed;
        column = (fits ? column + gap.size() : indent) + word.size();
        wrapped += gap + word;
    }
    return wrapped;
}

// A row of a list: what is explained, and behind or below it the explanation.
inline std::string HelpRow(const std::string& name, const std::string& explanation) {
    constexpr size_t NAMES = 24;
    const std::string left = "  " + name;
    const bool fits = left.size() + 2 <= NAMES;
    return left + (fits ? "" : "\n") + std::string(NAMES - (fits ? left.size() : 0), ' ') +
           Wrapped(explanation, NAMES) + "\n";
}

// For CLI::App::formatter_fn. An option's value has the name that option_text gives it. The lines
// of the footer are wrapped; those that begin with a blank are rows, as "  0  fine".
inline std::string HelpText(const CLI::App* app, const std::string& name, CLI::AppFormatMode) {
    std::string usage, arguments, options, commands, footer;
    for (const CLI::Option* option : app->get_options()) {
        const bool isMany = option->get_expected_max() >= CLI::detail::expected_max_vector_size;
        const std::string value = option->get_option_text(), more = isMany ? "..." : "";
        if (option->get_positional()) {
            const std::string argument = option->get_name(true, false) + more;
            usage += option->get_required() ? " " + argument : " [" + argument + "]";
            arguments += HelpRow(argument, option->get_description());
            continue;
        }
        const std::string word = value.empty() ? "" : " " + value;
        usage += option->get_required() ? " " + option->get_name() + word : "";
        options += HelpRow(option->get_name(false, true) + word, option->get_description());
    }
    for (const CLI::App* command : app->get_subcommands(nullptr)) {
        commands += HelpRow(command->get_name(), command->get_description());
    }
    std::istringstream lines(app->get_footer());
    for (std::string line; std::getline(lines, line);) {
        const size_t row = line.rfind("  ", 0) == 0 ? 5 : 0;
        footer += line.substr(0, row) + Wrapped(line.substr(row), row) + "\n";
    }
    const auto list = [](const char* title, const std::string& rows) {
        return rows.empty() ? "" : std::string("\n") + title + ":\n" + rows;
    };
    usage += commands.empty() ? " [OPTION...]" : " [OPTION...] COMMAND ...";
    return app->get_description() + "\n" + Wrapped("Usage: " + name + usage, 7) + "\n" +
           list("Arguments", arguments) + list("Options", options) + list("Commands", commands) +
           "\n" + footer;
}

// The options of every program: its help and its version.
inline void AddCommonOptions(CLI::App& app, const char* version) {
    app.formatter_fn(HelpText);
    app.set_help_flag("-h,--help", "print this help");
    app.set_version_flag("--version", app.get_name() + " " + version, "print the version");
    app.require_subcommand(1);
}

// The option that changes keys of a description: texts for SetKey in keys.h.
inline void AddSettings(CLI::App& command, std::vector<std::string>& settings) {
    command
        .add_option("--set", settings,
                    "another value for a key of the description, such as "
                    "cid.product_name=SIM065; bytes are \\n, \\\\ and \\xHH")
        ->type_size(1)
        ->option_text("KEY=VALUE");
}

// Where this example is: as installed, or in the checkout.
inline std::string ExampleFile(const std::string& name) {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    const auto installed = program.parent_path().parent_path() / "share/ffu/examples" / name;
    return std::filesystem::exists(installed, error) ? installed.string() : "examples/" + name;
}
