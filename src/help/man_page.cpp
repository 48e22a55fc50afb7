#include "help/man_page.h"

#include <string_view>

#include <CLI/App.hpp>
#include <CLI/Option.hpp>

namespace lm::help {
namespace {

/// Text as it is: no character of it steers troff.
std::string escaped(std::string_view text) {
    std::string result;
    for (const char c : text) {
        const bool startsLine = result.empty() || result.back() == '\n';
        if (startsLine && (c == '.' || c == '\'')) result += "\\&";
        if (c == '\\') {
            result += "\\e";
        } else if (c == '-') {
            result += "\\-";  // a plain one may become a typographic hyphen, which no shell takes
        } else {
            result += c;
        }
    }
    return result;
}

std::string asTyped(std::string_view text) {
    return text.empty() ? "" : ".nf\n" + escaped(text) + "\n.fi\n";
}

std::string label(const CLI::Option& option) {
    std::string text = "\\fB" + escaped(option.get_name(!option.nonpositional(), true)) + "\\fR";
    if (option.nonpositional() && option.get_type_size() != 0) {
        text += " \\fI" + escaped(option.get_type_name()) + "\\fR";
    }
    if (!option.get_default_str().empty()) text += " (default " + escaped(option.get_default_str()) + ")";
    if (option.get_required()) text += " (required)";
    return text;
}

std::string optionList(const CLI::App& app) {
    std::string text;
    for (const CLI::Option* option : app.get_options()) {
        if (app.get_parent() != nullptr && option == app.get_help_ptr()) continue;
        text += ".TP\n" + label(*option) + "\n" + escaped(option->get_description()) + "\n";
    }
    return text;
}

/// The text at the end of the help; a heading takes the place of a first line such as "Examples:".
std::string closingText(std::string footer) {
    const auto lineEnd = footer.find(":\n");
    if (lineEnd < footer.find('\n')) footer.erase(0, lineEnd + 2);
    return asTyped(footer);
}

/// The subcommands one after the other, those of a subcommand with its name before theirs.
std::string commandList(const CLI::App& app, const std::string& before) {
    std::string text;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        const std::string name = before + command->get_name();
        text += ".SS " + escaped(name) + "\n" + escaped(command->get_description()) + ".\n" +
                optionList(*command);
        if (!command->get_footer().empty()) text += ".PP\n" + asTyped(command->get_footer());
        text += commandList(*command, name + " ");
    }
    return text;
}

}  // namespace

std::string manPage(const CLI::App& app, const PageTexts& texts) {
    const std::string about = app.get_description();
    const auto dash = about.find(" - ");
    const std::string name = about.substr(0, dash);
    const std::string commands = commandList(app, "");
    std::string page = ".TH " + name + " 1 \"\" \"" + name + " " + texts.version + "\" \"User Commands\"\n";
    page += ".SH NAME\n" + name + " \\- " + escaped(about.substr(dash + 3)) + "\n";
    page += ".SH SYNOPSIS\n.B " + name + "\n[\\fIOPTION\\fR]...";
    page += commands.empty() ? "\n" : " [\\fICOMMAND\\fR [\\fIARGUMENT\\fR]...]\n";
    page += ".SH DESCRIPTION\n" + escaped(texts.description) + "\n.SH OPTIONS\n" + optionList(app);
    if (!commands.empty()) page += ".SH COMMANDS\n" + commands;
    page += std::string(".SH ") + texts.closing + "\n" + closingText(app.get_footer());
    return page + ".SH SEE ALSO\n.BR " + texts.seeAlso + " (1)\n";
}

}  // namespace lm::help
