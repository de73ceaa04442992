#include "common/CommandLine.h"

#include <CLI/CLI.hpp>
#include <cstdio>

#include "common/Failure.h"
#include "common/HelpText.h"
#include "common/Nearest.h"

namespace qel::programs {

class CommandLine::Impl {
  public:
    Impl(std::string name, std::string summary, std::vector<std::string> arguments)
        : args(std::move(arguments)) {
        page.name = std::move(name);
        page.summary = std::move(summary);
        app.set_help_flag();
        app.add_flag("--help,-h", help);
        app.add_flag("--version", version);
        app.add_flag("--quiet,-q", quiet);
        app.add_flag("--json", json);
        app.add_flag("--man", man);
    }

    CLI::Option* add(CLI::Option* option, const char* name, std::string placeholder, std::string text,
                     std::string fallback, bool required) {
        option->take_last();
        if (required)
            option->required();
        page.options.push_back(
            {name, std::move(placeholder), std::move(text), std::move(fallback), required});
        return option;
    }

    HelpPage page;
    std::vector<std::string> args;
    CLI::App app;
    bool help = false;
    bool version = false;
    bool quiet = false;
    bool json = false;
    bool man = false;
};

CommandLine::CommandLine(std::string name, std::string summary, std::vector<std::string> arguments)
    : impl_(std::make_unique<Impl>(std::move(name), std::move(summary), std::move(arguments))) {}

CommandLine::~CommandLine() = default;

const std::string& CommandLine::name() const {
    return impl_->page.name;
}

const std::vector<std::string>& CommandLine::arguments() const {
    return impl_->args;
}

void CommandLine::manualSection(int section) {
    impl_->page.section = section;
}

void CommandLine::describe(const std::string& paragraph) {
    impl_->page.paragraphs.push_back(paragraph);
}

void CommandLine::example(const std::string& line) {
    impl_->page.examples.push_back(line);
}

void CommandLine::entry(const std::string& word, const std::string& meaning) {
    impl_->page.entries.push_back({word, meaning});
}

void CommandLine::text(const char* option, const char* placeholder, std::string& value,
                       const std::string& help) {
    impl_->add(impl_->app.add_option(option, value), option, placeholder, help, value, false);
}

void CommandLine::requiredText(const char* option, const char* placeholder, std::string& value,
                               const std::string& help) {
    impl_->add(impl_->app.add_option(option, value), option, placeholder, help, "", true);
}

namespace {

std::string joined(const std::vector<std::string>& words, const char* separator) {
    std::string out;
    for (const std::string& word : words)
        out += (out.empty() ? "" : separator) + word;
    return out;
}

std::function<std::string(std::string&)> oneOf(const std::vector<std::string>& choices) {
    return [choices](std::string& given) -> std::string {
        for (const std::string& choice : choices)
            if (choice == given)
                return {};
        return "is \"" + given + "\", expected " + joined(choices, " or ");
    };
}

std::function<std::string(std::string&)> wholeNumber(std::int64_t lowest, std::int64_t highest) {
    return [lowest, highest](std::string& given) -> std::string {
        std::size_t used = 0;
        try {
            const long long number = std::stoll(given, &used);
            if (used == given.size() && number >= lowest && number <= highest)
                return {};
        } catch (const std::exception&) {
            // falls through to the sentence
        }
        return "is \"" + given + "\", expected a whole number from " + std::to_string(lowest) + " to " +
               std::to_string(highest);
    };
}

}  // namespace

void CommandLine::choice(const char* option, std::string& value, const std::vector<std::string>& choices,
                         const std::string& help) {
    impl_->add(impl_->app.add_option(option, value), option, joined(choices, "|"), help, value, false)
        ->check(CLI::Validator(oneOf(choices), ""));
}

void CommandLine::requiredChoice(const char* option, std::string& value,
                                 const std::vector<std::string>& choices, const std::string& help) {
    impl_->add(impl_->app.add_option(option, value), option, joined(choices, "|"), help, "", true)
        ->check(CLI::Validator(oneOf(choices), ""));
}

void CommandLine::number(const char* option, const char* placeholder, std::int64_t& value,
                         std::int64_t lowest, std::int64_t highest, const std::string& help) {
    impl_->add(impl_->app.add_option(option, value), option, placeholder, help, std::to_string(value), false)
        ->check(CLI::Validator(wholeNumber(lowest, highest), ""));
}

void CommandLine::requiredNumber(const char* option, const char* placeholder, std::int64_t& value,
                                 std::int64_t lowest, std::int64_t highest, const std::string& help) {
    impl_->add(impl_->app.add_option(option, value), option, placeholder, help, "", true)
        ->check(CLI::Validator(wholeNumber(lowest, highest), ""));
}

namespace {

std::function<void(const std::string&)> timeInto(const char* option, std::optional<TimeSpan>& value) {
    return [option, &value](const std::string& given) {
        TimeSpan span;
        std::string error;
        if (!parseTime(given, span, error))
            throw CLI::ValidationError(option, error);
        value = span;
    };
}

}  // namespace

void CommandLine::time(const char* option, std::optional<TimeSpan>& value, const std::string& help) {
    impl_->add(impl_->app.add_option_function<std::string>(option, timeInto(option, value)), option, "T",
               help, "", false);
}

void CommandLine::requiredTime(const char* option, std::optional<TimeSpan>& value, const std::string& help) {
    impl_->add(impl_->app.add_option_function<std::string>(option, timeInto(option, value)), option, "T",
               help, "", true);
}

void CommandLine::flag(const char* option, bool& value, const std::string& help) {
    impl_->app.add_flag(option, value);
    impl_->page.options.push_back({option, "", help, "", false});
}

void CommandLine::position(const char* placeholder, std::string& value, const std::string& help) {
    impl_->app.add_option(placeholder, value)->required();
    impl_->page.positions.push_back({placeholder, help});
}

void CommandLine::rest(const char* placeholder, std::vector<std::string>& value, const std::string& help) {
    impl_->app.add_option(placeholder, value);
    impl_->page.positions.push_back({std::string("[") + placeholder + "…]", help});
}

std::optional<int> CommandLine::parse() {
    // --help and its kin win over whatever else is missing or wrong.
    for (const std::string& argument : impl_->args) {
        if (argument == "--")
            break;
        if (argument == "--help" || argument == "-h") {
            std::fputs(renderHelp(impl_->page).c_str(), stdout);
            return exitDone;
        }
        if (argument == "--man") {
            std::fputs(renderMan(impl_->page).c_str(), stdout);
            return exitDone;
        }
        if (argument == "--version") {
            std::puts(versionLine(impl_->page).c_str());
            return exitDone;
        }
    }
    std::vector<std::string> reversed(impl_->args.rbegin(), impl_->args.rend());
    try {
        impl_->app.parse(reversed);
    } catch (const CLI::ExtrasError&) {
        return usageError(explainExtras(impl_->page, impl_->app.remaining()));
    } catch (const CLI::ParseError& error) {
        return usageError(error.what());
    }
    return std::nullopt;
}

int CommandLine::usageError(const std::string& sentence) const {
    std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", impl_->page.name.c_str(), sentence.c_str(),
                 impl_->page.name.c_str());
    return exitUsage;
}

bool CommandLine::quiet() const {
    return impl_->quiet;
}

bool CommandLine::json() const {
    return impl_->json;
}

}  // namespace qel::programs
