#include "common/ConfigManual.h"

#include "common/Configs.h"
#include "common/HelpText.h"

namespace qel::programs {
namespace {

/// Writes each key as an entry of the page.
class ManualBinder : public ConfigBinder {
  public:
    explicit ManualBinder(std::string& out) : out_(out) {}

    void section(const char* name, const char* help) override {
        out_ += ".SS [" + manualText(name) + "]\n" + manualText(help) + '\n';
    }
    void text(const char* key, std::string& value, const char* help) override {
        entry(key, '"' + value + '"', help);
    }
    void path(const char* key, std::string& value, const char* help) override { text(key, value, help); }
    void choice(const char* key, std::string& value, const std::vector<std::string>&,
                const char* help) override {
        text(key, value, help);
    }
    void integer(const char* key, std::int64_t& value, std::int64_t lowest, std::int64_t highest,
                 const char* help) override {
        const std::string range = std::to_string(lowest) + " to " + std::to_string(highest);
        entry(key, std::to_string(value), std::string(help) + ", " + range);
    }
    void flag(const char* key, bool& value, const char* help) override {
        entry(key, value ? "true" : "false", help);
    }
    void list(const char* key, std::vector<std::string>& value, const char* help) override {
        std::string all;
        for (const std::string& one : value)
            all += (all.empty() ? "\"" : ", \"") + one + '"';
        entry(key, '[' + all + ']', help);
    }
    void endpoint(const char* key, std::string& value, bool, const char* help) override {
        text(key, value, help);
    }
    void endpoints(const char* key, std::vector<std::string>& value, const char* help) override {
        entry(key, '"' + value.front() + '"', help);
    }

  private:
    void entry(const char* key, const std::string& fallback, const std::string& help) {
        out_ += ".TP\n.B " + manualText(key) + '\n' + manualText(help + ". Default: " + fallback) + '\n';
    }

    std::string& out_;
};

template <class Config>
std::string manual(const std::string& name, const std::string& summary, const std::string& program) {
    std::string out = ".\\\" Written by '" + program + " --man-config'.\n";
    std::string upper = name;
    for (char& c : upper)
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    out += ".TH " + upper + " 5 \"\" \"" + program + " " QEL_VERSION "\" \"Auditing\"\n";
    out += ".SH NAME\n" + manualText(name) + " \\- " + manualText(summary) + '\n';
    out +=
        ".SH DESCRIPTION\nA TOML file. A key that is left out has its default; an unknown key is an error. "
        "Paths are "
        "relative to the file's own folder.\n.SH KEYS\n";
    ManualBinder binder(out);
    Config config;
    config.bind(binder);
    return out + ".SH SEE ALSO\n.BR qel\\-auditd (8),\n.BR qel\\-audit (1)\n";
}

}  // namespace

std::string daemonConfigManual() {
    return manual<DaemonConfig>("qel-auditd.conf",
                                "configuration of the central daemon, usually qel-auditd.toml", "qel-auditd");
}

std::string workstationConfigManual() {
    return manual<WorkstationConfig>("qel-audit.conf",
                                     "configuration of a workstation, usually qel-audit.toml", "qel-audit");
}

}  // namespace qel::programs
