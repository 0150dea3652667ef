#include "tools/command.h"

#include "tools/manners.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <thread>

Command Command::add(const CommandText& text) const {
    app_->require_subcommand(1);
    return Command(app_->add_subcommand(text.name, text.summary)->footer(text.more));
}

template <class Value>
const Command& Command::needs(const char* name, Value& value, const char* help, const char* shown) const {
    app_->add_option(name, value, help)->required()->option_text(shown);
    return *this;
}

template <class Value>
const Command& Command::takes(const char* name, Value& value, const char* help, const Choice& choice) const {
    CLI::Option* option = app_->add_option(name, value, help)->option_text(choice.shown);
    if (choice.most != 0)
        option->check(CLI::Range(choice.least, choice.most));
    if (!choice.words.empty())
        option->check(CLI::IsMember(choice.words));
    return *this;
}

const Command& Command::flag(const char* name, bool& given, const char* help) const {
    app_->add_flag(name, given, help);
    return *this;
}

const Command& Command::json() const {
    return flag("--json", asked.json, "Print JSON");
}

const Command& Command::human() const {
    return flag("--human", asked.human, "Print sizes as 1.2 MiB");
}

const Command& Command::jobs(size_t& count) const {
    count = std::max(1U, std::thread::hardware_concurrency());
    return takes("-j,--jobs", count, "Pictures at a time (default: one a processor)", {"N", 1, 256});
}

const Command& Command::does(std::function<void()> action) const {
    app_->callback(std::move(action));
    return *this;
}

template const Command& Command::needs(const char*, std::string&, const char*, const char*) const;
template const Command& Command::needs(const char*, unsigned&, const char*, const char*) const;
template const Command& Command::needs(const char*, std::vector<std::string>&, const char*,
                                       const char*) const;
template const Command& Command::needs(const char*, std::vector<unsigned>&, const char*, const char*) const;
template const Command& Command::takes(const char*, std::string&, const char*, const Choice&) const;
template const Command& Command::takes(const char*, unsigned&, const char*, const Choice&) const;
template const Command& Command::takes(const char*, unsigned long&, const char*, const Choice&) const;
template const Command& Command::takes(const char*, std::vector<unsigned>&, const char*, const Choice&) const;
