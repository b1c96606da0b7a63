#include "workstation/command_line/options.h"

#include <fmt/core.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <utility>

#include "workstation/command_line/program.h"

namespace qel::vexa::command_line {

namespace {

constexpr std::size_t page_width = 80;  // of text that goes to no terminal

// How an option's description stands beside its names.
class layout : public CLI::Formatter {
public:
    std::vector<std::string> synopses;
    std::string purpose;

private:
    static constexpr std::size_t text_column = 28;

    static std::size_t width() {
        const std::size_t terminal = terminal_width();
        return terminal == 0 ? page_width : std::max(terminal, text_column + 20);
    }
    static std::string indented(const std::string& text, std::size_t column) {
        std::string result;
        for (const char c : wrapped(text, width() - column)) {
            result += c;
            if (c == '\n') {
                result.append(column, ' ');
            }
        }
        result.resize(result.size() - column);
        return result;
    }

    std::string make_description(const CLI::App* /*app*/) const override { return {}; }
    std::string make_usage(const CLI::App* /*app*/, std::string name) const override {
        std::string result;
        for (const std::string& synopsis : synopses) {
            result += fmt::format("{:7}{} {}\n", result.empty() ? "Usage:" : "", name, synopsis);
        }
        return result + "\n" + indented(purpose, 0) + "\n";
    }
    std::string make_group(std::string group, bool /*is_positional*/,
                           std::vector<const CLI::Option*> of_it) const override {
        std::string result = group + ":\n";
        for (const CLI::Option* each : of_it) {
            result += make_option(each, false);
        }
        return result;
    }
    std::string make_footer(const CLI::App* app) const override { return indented(app->get_footer(), 0); }
    std::string make_option(const CLI::Option* option, bool /*is_positional*/) const override {
        const std::string names = fmt::format("  {:{}}  ", names_of(*option), text_column - 4);
        const std::string text = indented(option->get_description(), text_column);
        return names.size() > text_column ? names + "\n" + std::string(text_column, ' ') + text
                                          : names + text;
    }

public:
    // "-g, --gpu GPU"
    static std::string names_of(const CLI::Option& option) {
        std::string result;
        for (const std::string& name : option.get_snames()) {
            result += "-" + name + ", ";
        }
        result += (result.empty() ? "    --" : "--") + option.get_lnames().front();
        if (!option.get_option_text().empty()) {  // of a flag: what may follow it
            return result + option.get_option_text();
        }
        return option.get_items_expected_max() == 0 ? result : result + " " + option.get_type_name();
    }
};

// A text within single quotes of the shell.
std::string quoted(const std::string& text) {
    std::string result = "'";
    for (const char c : text) {
        result += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return result + "'";
}

bool is_file(const std::string& placeholder) {
    return placeholder == "FILE" || placeholder == "STATE" || placeholder == "TRACE";
}

}  // namespace

struct options::table {
    CLI::App app;
    std::shared_ptr<layout> form = std::make_shared<layout>();
    std::map<const CLI::Option*, std::vector<std::string>> choices;
    // Carried out when the whole command line is known, so that asking for help is never wrong.
    std::vector<std::pair<const CLI::Option*, std::function<void(const CLI::results_t&)>>> actions;
    std::string section = "Options";

    std::vector<const CLI::Option*> all() const {
        return std::as_const(app).get_options(
            [](const CLI::Option* each) { return each->nonpositional() && !each->get_group().empty(); });
    }
    std::vector<std::string> choices_of(const CLI::Option* option) const {
        const auto found = choices.find(option);
        return found != choices.end() ? found->second : std::vector<std::string>();
    }

    std::string for_bash(const std::string& program) const;
    std::string for_zsh(const std::string& program) const;
    std::string for_manual() const;
};

std::string options::table::for_bash(const std::string& program) const {
    std::string names;
    std::string cases;
    for (const CLI::Option* each : all()) {
        std::string pattern;
        for (const std::string& name : each->get_snames()) {
            pattern += "-" + name + " | ";
        }
        pattern += "--" + each->get_lnames().front();
        names += " --" + each->get_lnames().front();
        if (each->get_items_expected_max() == 0) {
            continue;
        }
        const std::vector<std::string> words = choices_of(each);
        const std::string reply =
            !words.empty() ? fmt::format("mapfile -t COMPREPLY < <(compgen -W {} -- \"$word\")",
                                         quoted(joined(words, " ")))
            : is_file(each->get_type_name()) ? "mapfile -t COMPREPLY < <(compgen -f -- \"$word\")"
                                             : "COMPREPLY=()";
        cases += fmt::format("        {}) {} ;;\n", pattern, reply);
    }
    std::string function = "_" + program;
    std::replace(function.begin(), function.end(), '-', '_');
    return fmt::format(
        "# bash completion for {0}\n"
        "{1}() {{\n"
        "    local word=${{COMP_WORDS[COMP_CWORD]}} before=${{COMP_WORDS[COMP_CWORD - 1]}}\n"
        "    case $before in\n"
        "{2}"
        "        *)\n"
        "            if [[ $word == -* ]]; then\n"
        "                mapfile -t COMPREPLY < <(compgen -W '{3}' -- \"$word\")\n"
        "            else\n"
        "                mapfile -t COMPREPLY < <(compgen -f -- \"$word\")\n"
        "            fi\n"
        "            ;;\n"
        "    esac\n"
        "}}\n"
        "complete -o filenames -F {1} {0}\n",
        program, function, cases, names.substr(1));
}

std::string options::table::for_zsh(const std::string& program) const {
    std::string result = "#compdef " + program + "\n\n_arguments -s";
    for (const CLI::Option* each : all()) {
        std::string text;
        for (const char c : each->get_description()) {
            text += (c == '[' || c == ']' || c == ':' || c == '\\') ? "\\" + std::string(1, c)
                                                                    : std::string(1, c);
        }
        std::string value;
        if (each->get_items_expected_max() != 0) {
            const std::vector<std::string> words = choices_of(each);
            value = fmt::format(":{}:{}", each->get_type_name(),
                                !words.empty()                   ? "(" + joined(words, " ") + ")"
                                : is_file(each->get_type_name()) ? "_files"
                                                                 : "");
        }
        const std::string long_name = "--" + each->get_lnames().front();
        std::vector<std::string> names{long_name};
        if (!each->get_snames().empty()) {
            names.insert(names.begin(), "-" + each->get_snames().front());
        }
        for (const std::string& name : names) {
            result += fmt::format(" \\\n    {}", quoted(fmt::format("*{}[{}]{}", name, text, value)));
        }
    }
    return result + " \\\n    '*:argument:_files'\n";
}

std::string options::table::for_manual() const {
    const auto escaped = [](const std::string& text) {
        std::string result;
        for (const char c : text) {
            result += c == '-' ? "\\-" : c == '\\' ? "\\e" : c == '\'' ? "\\(aq" : std::string(1, c);
        }
        return result;
    };
    std::string result;
    std::string heading;
    for (const CLI::Option* each : all()) {
        if (each->get_group() != heading) {
            heading = each->get_group();
            result += ".SS " + heading + "\n";
        }
        std::string names = layout::names_of(*each);
        names.erase(0, names.find_first_not_of(' '));
        result += fmt::format(".TP\n.B {}\n{}.\n", escaped(names), escaped(each->get_description()));
    }
    return result;
}

options::options(std::vector<std::string> synopses, std::string purpose, std::string closing)
    : table_(std::make_unique<table>()) {
    table_->form->synopses = std::move(synopses);
    table_->form->purpose = std::move(purpose);
    table_->app.formatter(table_->form);
    table_->app.footer(std::move(closing));
}

options::~options() = default;

void options::section(const std::string& title) {
    table_->section = title;
}

void options::flag(const std::string& names, const std::string& text, std::function<void()> act) {
    CLI::Option* const option = table_->app.add_flag(names, text);
    option->group(table_->section);
    table_->actions.emplace_back(option, [act = std::move(act)](const CLI::results_t&) { act(); });
}

void options::flag(const std::string& names, const std::string& text, bool& target) {
    flag(names, text, [&target] { target = true; });
}

void options::flag_with_value(const std::string& names, const std::string& value_when_alone,
                              const std::string& placeholder, const std::string& text, std::string& target) {
    std::string alternatives;
    for (const std::string& name : CLI::detail::split_names(names)) {
        alternatives += fmt::format("{}{}{{{}}}", alternatives.empty() ? "" : ",", name, value_when_alone);
    }
    CLI::Option* const option = table_->app.add_flag(alternatives, text);
    option->option_text("[=" + placeholder + "]")->group(table_->section);
    table_->actions.emplace_back(option, [&target](const CLI::results_t& values) { target = values.back(); });
}

void options::value(const std::string& names, const std::string& placeholder, const std::string& text,
                    std::function<void(const std::string&)> take, std::vector<std::string> choices) {
    CLI::Option* const option = table_->app.add_option(
        names, [](const CLI::results_t& /*values*/) { return true; }, text);
    table_->actions.emplace_back(option, [take = std::move(take)](const CLI::results_t& values) {
        std::for_each(values.begin(), values.end(), take);
    });
    option->type_name(placeholder)->group(table_->section);
    // Many times, and each time one value: what follows that is an argument.
    option->expected(1, CLI::detail::expected_max_vector_size)->allow_extra_args(false);
    table_->choices.emplace(option, std::move(choices));
}

void options::value(const std::string& names, const std::string& placeholder, const std::string& text,
                    std::string& target, std::vector<std::string> choices) {
    value(
        names, placeholder, text, [&target](const std::string& given) { target = given; },
        std::move(choices));
}

void options::number(const std::string& names, const std::string& placeholder, const std::string& text,
                     std::uint64_t least, std::uint64_t most, std::function<void(std::uint64_t)> take) {
    const std::string name = names.substr(names.find("--"));
    value(names, placeholder, text, [name, least, most, take = std::move(take)](const std::string& given) {
        take(number_argument(name.c_str(), given.c_str(), least, most));
    });
}

void options::output_format(format& how) {
    const auto set = [&how](format wanted) {
        if (how != format::table && how != wanted) {
            fail_usage("--json and --csv exclude each other");
        }
        how = wanted;
    };
    flag("-j,--json", "print JSON", [set] { set(format::json); });
    flag("-c,--csv", "print CSV, with a line of column names", [set] { set(format::csv); });
}

std::vector<std::string> options::parse(int argument_count, char** arguments, int status_when_lost) {
    const std::string program = program_invocation_short_name;
    CLI::App& app = table_->app;
    app.name(program);
    app.set_help_flag();
    CLI::Option* const help = app.add_flag("-h,--help")->description("print this")->group("Others");
    CLI::Option* const version =
        app.add_flag("-V,--version")->description("print the version")->group("Others");
    // For the build, which makes files of what they print.
    std::string shell;
    CLI::Option* const manual = app.add_flag("--print-manual")->group("");
    app.add_option("--print-completion", shell)->group("");
    app.allow_extras();
    try {
        app.parse(argument_count, arguments);
    } catch (const CLI::ParseError& error) {
        if (help->count() == 0) {
            fail_usage(error.what());
        }
    }
    const std::string text = help->count() != 0      ? app.help()
                             : version->count() != 0 ? version_text()
                             : shell == "bash"       ? table_->for_bash(program)
                             : shell == "zsh"        ? table_->for_zsh(program)
                             : manual->count() != 0  ? table_->for_manual()
                                                     : "";
    if (!text.empty()) {
        std::fputs(text.c_str(), stdout);
        finish(status_when_lost);
    }
    std::vector<std::string> rest = app.remaining();
    for (const std::string& each : rest) {
        if (each.size() > 1 && each.front() == '-') {
            fail_usage("unknown option " + each);
        }
    }
    for (const auto& [option, act] : table_->actions) {
        if (option->count() != 0) {
            act(option->results());
        }
    }
    return rest;
}

}  // namespace qel::vexa::command_line
