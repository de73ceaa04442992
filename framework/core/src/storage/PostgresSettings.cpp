#include "storage/PostgresSettings.h"

#include <libpq-fe.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <memory>

namespace qel::storage {

namespace {

constexpr std::string_view schemes[] = {"postgresql://", "postgres://"};

struct FreeOptions {
    void operator()(PQconninfoOption* options) const { PQconninfoFree(options); }
};

std::vector<std::string> splitList(const std::string& list) {
    std::vector<std::string> out;
    for (std::size_t at = 0; at <= list.size();) {
        const std::size_t end = std::min(list.find(',', at), list.size());
        out.push_back(list.substr(at, end - at));
        at = end + 1;
    }
    return out;
}

// What never leaves the machine needs no encryption.
bool isLocal(const std::string& host) {
    return host.empty() || host[0] == '/' || host[0] == '@' || host == "localhost" || host == "::1" ||
           host.rfind("127.", 0) == 0;
}

bool isYes(const std::string& value) {
    return value == "1" || value == "true" || value == "yes";
}

}  // namespace

bool PostgresSettings::isUrl(std::string_view url) {
    return std::any_of(std::begin(schemes), std::end(schemes),
                       [url](std::string_view scheme) { return url.substr(0, scheme.size()) == scheme; });
}

bool PostgresSettings::takeOwn(std::string_view name, const std::string& value, std::string& reason) {
    if (name == "password_file") {
        passwordFile_ = value;
    } else if (name == "allow_plain") {
        allowsPlain_ = isYes(value);
    } else if (name == "allow_unsafe_commit") {
        allowsUnsafeCommit_ = isYes(value);
    } else if (name == "writers") {
        const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), writers_);
        if (error != std::errc() || end != value.data() + value.size() || writers_ < 1 ||
            writers_ > mostWriters)
            reason = "writers=" + value + " in the store URL: expected 1 to " + std::to_string(mostWriters);
    } else {
        return false;
    }
    return true;
}

// The client library refuses parameters that it does not know.
std::string PostgresSettings::withoutOwn(std::string_view url, std::string& reason) {
    const std::size_t question = url.find('?');
    if (question == std::string_view::npos)
        return std::string(url);
    std::string out(url.substr(0, question));
    char separator = '?';
    std::string_view rest = url.substr(question + 1);
    while (!rest.empty()) {
        const std::string_view part = rest.substr(0, rest.find('&'));
        rest.remove_prefix(std::min(rest.size(), part.size() + 1));
        const std::size_t equals = std::min(part.find('='), part.size());
        const std::string value(part.substr(std::min(part.size(), equals + 1)));
        if (takeOwn(part.substr(0, equals), value, reason))
            continue;
        out += separator;
        out += part;
        separator = '&';
    }
    return out;
}

bool PostgresSettings::parse(std::string_view url, Files files, std::string& reason) {
    const std::string plain = withoutOwn(url, reason);
    if (!reason.empty())
        return false;
    char* error = nullptr;
    const std::unique_ptr<PQconninfoOption, FreeOptions> options(PQconninfoParse(plain.c_str(), &error));
    if (options == nullptr) {
        reason = "the store URL cannot be read: " + std::string(error == nullptr ? "no memory" : error);
        PQfreemem(error);
        while (!reason.empty() && reason.back() == '\n')
            reason.pop_back();
        return false;
    }
    for (const PQconninfoOption* option = options.get(); option->keyword != nullptr; ++option)
        if (option->val != nullptr)
            parameters_.emplace_back(option->keyword, option->val);
    if (find("password") != nullptr) {
        reason =
            "the store URL holds a password, which lists of processes and logs would show; expected "
            "password_file=PATH";
        return false;
    }
    describe();
    if (!requireEncryption(reason) || (files == Files::read && !readPassword(reason)))
        return false;
    addDefault("fallback_application_name", "qel");
    addDefault("client_encoding", "UTF8");
    addDefault("gssencmode", "disable");
    // A server that vanished without a word is noticed within these seconds.
    addDefault("connect_timeout", "3");
    addDefault("keepalives_idle", "5");
    addDefault("keepalives_interval", "2");
    addDefault("keepalives_count", "3");
    addDefault("tcp_user_timeout", "8000");
    return true;
}

const std::string* PostgresSettings::find(std::string_view name) const {
    for (const auto& [keyword, value] : parameters_)
        if (keyword == name)
            return &value;
    return nullptr;
}

void PostgresSettings::addDefault(const char* name, const std::string& value) {
    if (find(name) == nullptr)
        parameters_.emplace_back(name, value);
}

void PostgresSettings::describe() {
    const std::string* const host = find("host");
    const std::string* const port = find("port");
    const std::string* const database = find("dbname");
    place_ = "the database " + (database == nullptr ? std::string("of the default name") : *database) +
             " at " + (host == nullptr || host->empty() ? "the local socket" : *host) +
             (port == nullptr ? "" : " port " + *port);
}

bool PostgresSettings::requireEncryption(std::string& reason) {
    const std::string* const host = find("host");
    const std::string* address = find("hostaddr");
    if (address == nullptr)
        address = host;
    if (address == nullptr)
        return true;
    const auto hosts = splitList(*address);
    if (allowsPlain_ || std::all_of(hosts.begin(), hosts.end(), isLocal))
        return true;
    const std::string* const mode = find("sslmode");
    if (mode == nullptr) {
        addDefault("sslmode", find("sslrootcert") == nullptr ? "require" : "verify-full");
        return true;
    }
    if (*mode == "require" || *mode == "verify-ca" || *mode == "verify-full")
        return true;
    reason =
        "the store URL asks for sslmode=" + *mode + " to " + *address +
        ", and events would cross the network in the clear; expected sslmode=verify-full, or allow_plain=1";
    return false;
}

bool PostgresSettings::readPassword(std::string& reason) {
    if (passwordFile_.empty())
        return true;
    struct stat status {};
    if (::stat(passwordFile_.c_str(), &status) != 0) {
        reason = "the password file " + passwordFile_ + " of the store cannot be read";
        return false;
    }
    const char* const credentials = std::getenv("CREDENTIALS_DIRECTORY");
    const bool isCredential = credentials != nullptr && passwordFile_.rfind(credentials, 0) == 0;
    if ((status.st_mode & 077) != 0 && !isCredential) {
        reason = "the password file " + passwordFile_ + " of the store is open to others; expected mode 0600";
        return false;
    }
    std::ifstream file(passwordFile_);
    std::string password;
    if (!std::getline(file, password) || password.empty()) {
        reason = "the password file " + passwordFile_ + " of the store holds no password in its first line";
        return false;
    }
    parameters_.emplace_back("password", password);
    return true;
}

}  // namespace qel::storage
