#include "common/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>

#include "common/Failure.h"
#include "common/HelpText.h"
#include "common/Nearest.h"
#include "common/Output.h"
#include "qelCore/logging/Log.h"

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
            {name, std::move(placeholder), std::move(text), "", std::move(fallback), required});
        return option;
    }

    void addTime(const char* name, std::optional<TimeSpan>& value, const std::string& text,
                 const std::string& fallback, bool required) {
        if (!takesTimes)
            page.paragraphs.emplace_back(
                "A time T is one instant, 2026-03-01T08:00:00+01:00 or 2026-03-01T07:00:00Z, or all of a "
                "day, "
                "month, quarter or year of German local time: 2026-03-01, 2026-03, 2026-Q1, 2026.");
        takesTimes = true;
        add(app.add_option_function<std::string>(name, timeInto(name, value)), name, "T", text, fallback,
            required);
    }

    /// Also when the command line could not be parsed to its end.
    bool wantsJson() const { return json || std::find(args.begin(), args.end(), "--json") != args.end(); }

    HelpPage page;
    std::vector<std::string> args;
    CLI::App app;
    bool help = false;
    bool version = false;
    bool quiet = false;
    bool json = false;
    bool man = false;
    bool takesTimes = false;

  private:
    static std::function<void(const std::string&)> timeInto(const char* option,
                                                            std::optional<TimeSpan>& value) {
        return [option, &value](const std::string& given) {
            TimeSpan span;
            std::string error;
            if (!parseTime(given, span, error))
                throw CLI::ValidationError(option, error);
            value = span;
        };
    }
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
                       const std::string& help, const std::string& otherwise) {
    impl_->add(impl_->app.add_option(option, value), option, placeholder, help, otherwise, false);
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
                         const std::string& help, const std::string& otherwise) {
    impl_
        ->add(impl_->app.add_option(option, value), option, joined(choices, "|"), help,
              otherwise.empty() ? value : otherwise, false)
        ->check(CLI::Validator(oneOf(choices), ""));
}

void CommandLine::requiredChoice(const char* option, std::string& value,
                                 const std::vector<std::string>& choices, const std::string& help) {
    impl_->add(impl_->app.add_option(option, value), option, joined(choices, "|"), help, "", true)
        ->check(CLI::Validator(oneOf(choices), ""));
}

void CommandLine::number(const char* option, const char* placeholder, const char* unit, std::int64_t& value,
                         std::int64_t lowest, std::int64_t highest, const std::string& help) {
    impl_->add(impl_->app.add_option(option, value), option, placeholder, help, std::to_string(value), false)
        ->check(CLI::Validator(wholeNumber(lowest, highest), ""));
    impl_->page.options.back().range =
        std::to_string(lowest) + (highest == INT64_MAX ? " or more" : " to " + std::to_string(highest)) +
        (*unit ? ' ' + std::string(unit) : "");
}

void CommandLine::time(const char* option, std::optional<TimeSpan>& value, const std::string& help,
                       const std::string& otherwise) {
    impl_->addTime(option, value, help, otherwise, false);
}

void CommandLine::requiredTime(const char* option, std::optional<TimeSpan>& value, const std::string& help) {
    impl_->addTime(option, value, help, "", true);
}

void CommandLine::flag(const char* option, bool& value, const std::string& help) {
    impl_->app.add_flag(option, value);
    impl_->page.options.push_back({option, "", help, "", "", false});
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
    } catch (const CLI::RequiredError& error) {
        // Whoever misspelt a required option wants to hear of the spelling.
        const std::vector<std::string> rest = impl_->app.remaining();
        const bool misspelt = std::any_of(rest.begin(), rest.end(),
                                          [](const std::string& word) { return word.rfind("--", 0) == 0; });
        return usageError(misspelt ? explainExtras(impl_->page, rest) : error.what());
    } catch (const CLI::ParseError& error) {
        return usageError(error.what());
    }
    return std::nullopt;
}

int CommandLine::usageError(const std::string& sentence) const {
    std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", impl_->page.name.c_str(), sentence.c_str(),
                 impl_->page.name.c_str());
    if (impl_->wantsJson())
        printJsonFailure(exitUsage, sentence);
    return exitUsage;
}

int CommandLine::failure(ExitCode code, const std::string& sentence) const {
    std::fprintf(stderr, "%s: %s\n", impl_->page.name.c_str(), logging::escaped(sentence).c_str());
    if (impl_->wantsJson())
        printJsonFailure(code, sentence);
    return code;
}

bool CommandLine::quiet() const {
    return impl_->quiet;
}

bool CommandLine::json() const {
    return impl_->json;
}

}  // namespace qel::programs
