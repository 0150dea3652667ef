#include "tools/help.h"

#include "tools/failure.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <sstream>

namespace {

using CLI::App;
using CLI::Option;

constexpr size_t textWidth = 100;
constexpr size_t leftColumn = 20;

std::vector<const App*> commandsOf(const App* app) {
    std::vector<const App*> commands = app->get_subcommands({});
    std::erase_if(commands, [](const App* command) { return command->get_group().empty(); });
    return commands;
}

std::vector<const Option*> optionsOf(const App* app, bool positional) {
    std::vector<const Option*> options = app->get_options({});
    std::erase_if(options,
                  [positional](const Option* option) { return option->get_positional() != positional; });
    return options;
}

// `--json`, `-o, --output FILE`, `ARCHIVE`, `PICTURE...`.
std::string nameOf(const Option* option, const char* between = ", ") {
    if (option->get_positional())
        return option->get_name(true) + (option->get_expected_max() > 1 ? "..." : "");
    std::string name;
    for (const std::string& letter : option->get_snames())
        name += (name.empty() ? "-" : between + std::string("-")) + letter;
    for (const std::string& word : option->get_lnames())
        name += (name.empty() ? "--" : between + std::string("--")) + word;
    return name + (option->get_option_text().empty() ? "" : ' ' + option->get_option_text());
}

// `kal extract ARCHIVE ID -o FILE`: what a call looks like.
std::string callOf(const App* app) {
    std::string call = fullName(app);
    if (!commandsOf(app).empty())
        return call + " COMMAND";
    for (const bool positional : {false, true})
        for (const Option* option : optionsOf(app, positional)) {
            if (option == app->get_help_ptr())
                continue;
            std::string name = nameOf(option);
            if (const size_t comma = name.find(", "); !positional && comma != std::string::npos)
                name.replace(2, std::string::npos,
                             option->get_option_text().empty() ? "" : ' ' + option->get_option_text());
            call += option->get_required() ? ' ' + name : " [" + name + ']';
        }
    return call;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream all(text);
    for (std::string line; std::getline(all, line);)
        lines.push_back(line);
    return lines;
}

// Words on lines of at most `textWidth`, those behind the first indented; an indented line stays as it is.
std::string wrapped(const std::string& text, size_t indent = 0) {
    std::string result;
    for (const std::string& line : linesOf(text)) {
        if (line.starts_with(' ')) {
            result += line + '\n';
            continue;
        }
        size_t width = indent;
        std::istringstream words(line);
        for (std::string word; words >> word; width += word.size()) {
            const bool fits = width + 1 + word.size() <= textWidth;
            if (width > indent)
                result += fits ? " " : '\n' + std::string(indent, ' ');
            width = width == indent ? indent : fits ? width + 1 : indent;
            result += word;
        }
        result += '\n';
    }
    return result;
}

std::string row(const std::string& left, const std::string& right) {
    const std::string start =
        "  " + left + std::string(left.size() < leftColumn ? leftColumn - left.size() : 0, ' ');
    return (left.size() < leftColumn ? start : start + '\n' + std::string(leftColumn + 2, ' ')) +
           wrapped(right, leftColumn + 2);
}

class Help : public CLI::FormatterBase {
public:
    std::string make_help(const App* app, std::string, CLI::AppFormatMode) const override {
        std::string text = wrapped(app->get_description() + '.') + "\nUsage: " + wrapped(callOf(app), 7);
        std::string rows;
        for (const App* command : commandsOf(app))
            rows += row(command->get_name(), command->get_description());
        for (const bool positional : {true, false})
            for (const Option* option : optionsOf(app, positional))
                rows += (positional || option != app->get_help_ptr() || rows.empty() ? "" : "\n") +
                        row(nameOf(option), option->get_description());
        return text + '\n' + rows + '\n' + wrapped(app->get_footer());
    }
};

// --- The man page ------------------------------------------------------------------------------------------

std::string roff(const std::string& text) {
    std::string result = text.starts_with('.') || text.starts_with('\'') ? "\\&" : "";
    for (const char c : text) {
        if (c == '\\')
            result += "\\e";
        else if (c == '-')
            result += "\\-";
        else if (c == '\'')
            result += "\\(aq";
        else
            result += c;
    }
    return result;
}

// The text of a command: paragraphs, and indented lines as they stand. A line that ends in a colon by itself heads what
// follows, under `heading`.
std::string roffText(const std::string& text, const std::string& heading) {
    std::string result;
    bool literal = false;
    for (const std::string& line : linesOf(text)) {
        const bool indented = line.starts_with(' ');
        if (indented != literal)
            result += indented ? ".nf\n" : ".fi\n";
        literal = indented;
        if (line.empty())
            result += ".PP\n";
        else if (line.ends_with(':') && line.find('.') == std::string::npos)
            result += heading + ' ' + roff(line.substr(0, line.size() - 1)) + '\n';
        else
            result += roff(line) + '\n';
    }
    return result + (literal ? ".fi\n" : "");
}

std::string roffRows(const App* app) {
    std::string result;
    for (const bool positional : {true, false})
        for (const Option* option : optionsOf(app, positional))
            if (option != app->get_help_ptr() || app->get_parent() == nullptr)
                result += ".TP\n.B " + roff(nameOf(option)) + '\n' + roff(option->get_description()) + '\n';
    return result;
}

// Calls `use` with every command that does something.
void forCommands(const App* app, const std::function<void(const App*)>& use) {
    for (const App* command : commandsOf(app)) {
        if (commandsOf(command).empty())
            use(command);
        forCommands(command, use);
    }
}

// --- Completion ---------------------------------------------------------------------------------------------

std::string wordsOf(const App* app) {
    std::string words;
    for (const App* command : commandsOf(app))
        words += command->get_name() + ' ';
    for (const App* level = app; level != nullptr; level = level->get_parent())
        for (const Option* option : optionsOf(level, false))
            for (const std::string& word : option->get_lnames())
                if (words.find("--" + word + ' ') == std::string::npos)
                    words += "--" + word + ' ';
    words.pop_back();
    return words;
}

} // namespace

std::string fullName(const CLI::App* command) {
    const App* above = command->get_parent();
    return above == nullptr ? command->get_name() : fullName(above) + ' ' + command->get_name();
}

void setHelp(CLI::App& program) {
    program.formatter(std::make_shared<Help>());
    program.set_help_flag("--help", "Print this help");
}

std::string manPage(const CLI::App& program) {
    std::string page = ".TH KAL 1 \"\" \"" + program.version() + "\" \"User commands\"\n.SH NAME\nkal \\- " +
                       roff(program.get_description()) + "\n.SH SYNOPSIS\n.nf\n";
    forCommands(&program, [&page](const App* command) { page += ".B " + roff(callOf(command)) + '\n'; });
    page += ".fi\n.SH COMMANDS\n";
    forCommands(&program, [&page](const App* command) {
        page += ".SS " + roff(fullName(command)) + '\n' + roff(command->get_description()) + ".\n" +
                roffRows(command) + ".PP\n" + roffText(command->get_footer(), ".PP\n.B");
    });
    return page + ".SH OPTIONS OF EVERY COMMAND\n" + roffRows(&program) +
           roffText(program.get_footer(), ".SH");
}

std::string bashCompletion(const CLI::App& program) {
    std::string cases;
    const std::function<void(const App*)> add = [&](const App* app) {
        cases += "    '" + fullName(app) + "') choices='" + wordsOf(app) + "' ;;\n";
        for (const App* command : commandsOf(app))
            add(command);
    };
    add(&program);
    std::string groups;
    for (const App* command : commandsOf(&program))
        if (!commandsOf(command).empty())
            groups += (groups.empty() ? "" : "|") + command->get_name();
    return "# Completion of the kal program for bash.\n"
           "_kal() {\n"
           "    local word=${COMP_WORDS[COMP_CWORD]} command=kal choices= files=1\n"
           "    COMPREPLY=()\n"
           "    if [[ $COMP_CWORD -gt 1 ]]; then command+=\" ${COMP_WORDS[1]}\"; else files=; fi\n"
           "    if [[ ${COMP_WORDS[1]-} == @(" +
           groups +
           ") ]]; then\n"
           "        if [[ $COMP_CWORD -gt 2 ]]; then command+=\" ${COMP_WORDS[2]}\"; fi\n"
           "        if [[ $COMP_CWORD == 2 ]]; then files=; fi\n"
           "    fi\n"
           "    case $command in\n" +
           cases +
           "    esac\n"
           "    if [[ -z $files || $word == -* ]]; then\n"
           "        mapfile -t COMPREPLY < <(compgen -W \"$choices\" -- \"$word\")\n"
           "    elif [[ $command != 'kal settings'* ]]; then\n"
           "        compopt -o filenames 2>/dev/null\n"
           "        mapfile -t COMPREPLY < <(compgen -f -- \"$word\")\n"
           "    fi\n"
           "}\n"
           "complete -F _kal kal\n";
}
