#include "common/ConfigFile.h"

#include <toml++/toml.h>
#include <charconv>
#include <filesystem>
#include <set>
#include <sstream>

#include "common/Failure.h"
#include "common/Folders.h"
#include "common/Nearest.h"

namespace qel::programs {
namespace {

/// In double quotes, which scripts look for; a path may hold any character.
std::string tomlText(const std::string& text) {
    constexpr const char* digits = "0123456789ABCDEF";
    std::string escaped = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            escaped += "\\u00";
            escaped += digits[byte >> 4];
            escaped += digits[byte & 15];
            continue;
        }
        if (c == '"' || c == '\\')
            escaped += '\\';
        escaped += c;
    }
    return escaped + '"';
}

std::string shown(const toml::node& node) {
    std::ostringstream out;
    node.visit([&out](const auto& value) { out << value; });
    return out.str();
}

/// Takes values out of a parsed file and remembers which keys it was asked for.
class Reader : public ConfigBinder {
  public:
    Reader(std::string file, const toml::table& root) : file_(std::move(file)), root_(root) {}

    void section(const char* name, const char*) override {
        section_ = name;
        known_.insert(section_);
    }

    void text(const char* key, std::string& value, const char*) override { readText(key, value, "a text"); }

    void path(const char* key, std::string& value, const char*) override { readText(key, value, "a path"); }

    void choice(const char* key, std::string& value, const std::vector<std::string>& choices,
                const char*) override {
        const toml::node* node = find(key);
        if (!node)
            return;
        const auto text = node->value_exact<std::string>();
        std::string expected;
        for (const std::string& choice : choices) {
            if (text == choice) {
                value = choice;
                return;
            }
            expected += (expected.empty() ? "\"" : " or \"") + choice + '"';
        }
        fail(key, *node, expected);
    }

    void integer(const char* key, std::int64_t& value, std::int64_t lowest, std::int64_t highest,
                 const char*) override {
        const toml::node* node = find(key);
        if (!node)
            return;
        const auto number = node->value_exact<std::int64_t>();
        if (!number || *number < lowest || *number > highest)
            fail(key, *node,
                 "a whole number from " + std::to_string(lowest) + " to " + std::to_string(highest));
        value = *number;
    }

    void flag(const char* key, bool& value, const char*) override {
        const toml::node* node = find(key);
        if (!node)
            return;
        const auto boolean = node->value_exact<bool>();
        if (!boolean)
            fail(key, *node, "true or false");
        value = *boolean;
    }

    void list(const char* key, std::vector<std::string>& value, const char*) override {
        const toml::node* node = find(key);
        if (node)
            value = texts(key, *node, "an array of texts");
    }

    void endpoint(const char* key, std::string& value, bool mayBeEmpty, const char*) override {
        const toml::node* node = find(key);
        if (!node)
            return;
        const char* expected = mayBeEmpty ? "\"HOST:PORT\" or nothing" : "\"HOST:PORT\"";
        const auto text = node->value_exact<std::string>();
        if (!text || (!(mayBeEmpty && text->empty()) && !isEndpoint(*text)))
            fail(key, *node, expected);
        value = *text;
    }

    void endpoints(const char* key, std::vector<std::string>& value, const char*) override {
        const toml::node* node = find(key);
        if (!node)
            return;
        const char* expected = "\"HOST:PORT\" or an array of them";
        std::vector<std::string> found = texts(key, *node, expected);
        for (const std::string& text : found)
            if (!isEndpoint(text))
                fail(key, *node, expected);
        if (found.empty())
            fail(key, *node, expected);
        value = std::move(found);
    }

    /// Refuses whatever the file holds beyond the keys that were asked for.
    void refuseUnknown() const { refuseUnknown(root_, ""); }

  private:
    static bool isEndpoint(const std::string& text) {
        std::string host;
        std::uint16_t port = 0;
        return splitEndpoint(text, host, port);
    }

    const toml::node* find(const char* key) {
        known_.insert(section_ + '.' + key);
        return root_.at_path(section_ + '.' + key).node();
    }

    void readText(const char* key, std::string& value, const char* expected) {
        const toml::node* node = find(key);
        if (!node)
            return;
        const auto text = node->value_exact<std::string>();
        if (!text || text->find('\0') != std::string::npos)
            fail(key, *node, std::string(expected) + " in double quotes");
        value = *text;
    }

    std::vector<std::string> texts(const char* key, const toml::node& node, const char* expected) const {
        if (const auto single = node.value_exact<std::string>())
            return {*single};
        const toml::array* array = node.as_array();
        if (!array)
            fail(key, node, expected);
        std::vector<std::string> found;
        for (const toml::node& element : *array) {
            const auto text = element.value_exact<std::string>();
            if (!text)
                fail(key, element, expected);
            found.push_back(*text);
        }
        return found;
    }

    [[noreturn]] void fail(const char* key, const toml::node& node, const std::string& expected) const {
        throw Failure(exitConfiguration, place(node) + '[' + section_ + "] " + key + " = " + shown(node) +
                                             ": expected " + expected);
    }

    std::string place(const toml::node& node) const {
        return file_ + ':' + std::to_string(node.source().begin.line) + ": ";
    }

    void refuseUnknown(const toml::table& table, const std::string& prefix) const {
        for (const auto& [key, node] : table) {
            const std::string name = prefix + std::string(key.str());
            const toml::table* inner = node.as_table();
            const std::string deeper = name + '.';
            const auto next = known_.lower_bound(deeper);
            const bool isSection = next != known_.end() && next->compare(0, deeper.size(), deeper) == 0;
            if (inner && isSection)
                refuseUnknown(*inner, deeper);
            else if (isSection)
                failForSection(key, name, node);
            else if (!known_.count(name))
                refuse(prefix, key, node);
        }
    }

    [[noreturn]] void failForSection(const toml::key& key, const std::string& name,
                                     const toml::node& node) const {
        throw Failure(exitConfiguration,
                      placeOfKey(key) + name + " = " + shown(node) + ": expected a section [" + name + ']');
    }

    std::string placeOfKey(const toml::key& key) const {
        return file_ + ':' + std::to_string(key.source().begin.line) + ": ";
    }

    [[noreturn]] void refuse(const std::string& prefix, const toml::key& key, const toml::node& node) const {
        const std::string name = prefix + std::string(key.str());
        std::string sentence = placeOfKey(key);
        if (node.is_table()) {
            sentence += '[' + name + "]: unknown section";
        } else {
            const std::string section =
                prefix.empty() ? "" : '[' + prefix.substr(0, prefix.size() - 1) + "] ";
            sentence += section + std::string(key.str()) + " = " + shown(node) + ": unknown key";
        }
        const std::string nearest = nearestOf(name, {known_.begin(), known_.end()});
        if (!nearest.empty())
            sentence += ", expected perhaps " + nearest;
        throw Failure(exitConfiguration, sentence);
    }

    std::string file_;
    const toml::table& root_;
    std::string section_;
    std::set<std::string> known_;
};

/// Writes what the reader reads.
class Printer : public ConfigBinder {
  public:
    explicit Printer(bool explained) : explained_(explained) {}

    void section(const char* name, const char* help) override {
        if (!out_.empty())
            out_ += '\n';
        explain(help);
        out_ += std::string("[") + name + "]\n";
    }
    void text(const char* key, std::string& value, const char* help) override {
        line(key, tomlText(value), help);
    }
    void path(const char* key, std::string& value, const char* help) override {
        line(key, tomlText(value), help);
    }
    void choice(const char* key, std::string& value, const std::vector<std::string>&,
                const char* help) override {
        line(key, tomlText(value), help);
    }
    void integer(const char* key, std::int64_t& value, std::int64_t lowest, std::int64_t highest,
                 const char* help) override {
        const std::string range =
            std::string(help) + ", " + std::to_string(lowest) + " to " + std::to_string(highest);
        line(key, std::to_string(value), range.c_str());
    }
    void flag(const char* key, bool& value, const char* help) override {
        line(key, value ? "true" : "false", help);
    }
    void list(const char* key, std::vector<std::string>& value, const char* help) override {
        line(key, array(value), help);
    }
    void endpoint(const char* key, std::string& value, bool, const char* help) override {
        line(key, tomlText(value), help);
    }
    void endpoints(const char* key, std::vector<std::string>& value, const char* help) override {
        line(key, value.size() == 1 ? tomlText(value.front()) : array(value), help);
    }

    std::string take() { return std::move(out_); }

  private:
    static std::string array(const std::vector<std::string>& values) {
        std::string out = "[";
        for (const std::string& value : values)
            out += (out.size() > 1 ? ", " : "") + tomlText(value);
        return out + ']';
    }

    // Comments begin with a word of a sentence, never like a key, so that a line-wise edit finds the live key
    // only.
    void explain(const std::string& help) {
        if (explained_)
            out_ += "# " + help + '\n';
    }

    void line(const char* key, const std::string& value, const char* help) {
        explain(help);
        out_ += std::string(key) + " = " + value + '\n';
    }

    bool explained_;
    std::string out_;
};

template <class Config>
void parseInto(const std::string& text, const std::string& file, Config& config) {
    try {
        const toml::table root = toml::parse(text, file);
        Reader reader(file, root);
        config.bind(reader);
        reader.refuseUnknown();
    } catch (const toml::parse_error& error) {
        throw Failure(exitConfiguration, file + ':' + std::to_string(error.source().begin.line) + ": " +
                                             std::string(error.description()));
    }
}

template <class Config>
void readInto(const std::string& file, Config& config) {
    parseInto(readTextFile(file), file, config);
    config.folder = std::filesystem::absolute(file).parent_path().string();
}

template <class Config>
std::string print(Config& config, bool explained) {
    Printer printer(explained);
    config.bind(printer);
    return printer.take();
}

}  // namespace

bool splitEndpoint(const std::string& text, std::string& host, std::uint16_t& port) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
        return false;
    host = text.substr(0, colon);
    if (host.front() == '[' && host.back() == ']' && host.size() > 2)
        host = host.substr(1, host.size() - 2);
    else if (host.find_first_of(":[] /") != std::string::npos)
        return false;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, port);
    return error == std::errc() && stop == end;
}

void readConfig(const std::string& file, DaemonConfig& config) {
    readInto(file, config);
}

void readConfig(const std::string& file, WorkstationConfig& config) {
    readInto(file, config);
}

void parseConfig(const std::string& text, const std::string& file, DaemonConfig& config) {
    parseInto(text, file, config);
}

void parseConfig(const std::string& text, const std::string& file, WorkstationConfig& config) {
    parseInto(text, file, config);
}

std::string printConfig(DaemonConfig config, bool explained) {
    return print(config, explained);
}

std::string printConfig(WorkstationConfig config, bool explained) {
    return print(config, explained);
}

}  // namespace qel::programs
