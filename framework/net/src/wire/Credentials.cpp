#include "qelNet/Credentials.h"

#include <sys/stat.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "wire/CredentialsState.h"

namespace qel {

using namespace tls;

struct Credentials::Inner {
    CredentialFiles files;
    mutable std::mutex mutex;
    std::shared_ptr<const State> state;
};

namespace {

using namespace std::chrono_literals;

// Certificate and key are two files, and whoever renews an identity replaces one after the other.
constexpr auto replacing = 2s;
constexpr auto betweenTries = 50ms;

bool isBeingReplaced(const CredentialFiles& files) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    for (const std::string& file : {files.certificate, files.key}) {
        struct stat status {};
        if (::stat(file.c_str(), &status) != 0)
            continue;
        const auto age = now - std::chrono::seconds(status.st_ctim.tv_sec) -
                         std::chrono::nanoseconds(status.st_ctim.tv_nsec);
        if (age >= -replacing && age <= replacing)
            return true;
    }
    return false;
}

}  // namespace

Credentials::Credentials() : inner_(std::make_unique<Inner>()) {}
Credentials::~Credentials() = default;

std::shared_ptr<Credentials> Credentials::load(const CredentialFiles& files, std::string& error) {
    std::shared_ptr<Credentials> credentials(new Credentials());
    credentials->inner_->files = files;
    const auto until = std::chrono::steady_clock::now() + replacing;
    for (;;) {
        bool apart = false;
        credentials->inner_->state = State::read(files, error, apart);
        if (credentials->inner_->state) {
            error.clear();
            return credentials;
        }
        if (!apart || !isBeingReplaced(files) || std::chrono::steady_clock::now() >= until)
            return nullptr;
        std::this_thread::sleep_for(betweenTries);
    }
}

bool Credentials::reload(std::string& error) {
    bool apart = false;
    std::shared_ptr<const State> fresh = State::read(inner_->files, error, apart);
    if (!fresh)
        return false;
    const std::lock_guard<std::mutex> lock(inner_->mutex);
    inner_->state = std::move(fresh);
    return true;
}

bool Credentials::reloadIfChanged(std::string& error) {
    error.clear();
    return getState()->isOutdated() && reload(error);
}

std::shared_ptr<const Credentials::State> Credentials::getState() const {
    const std::lock_guard<std::mutex> lock(inner_->mutex);
    return inner_->state;
}

std::string Credentials::getUserName() const {
    return getState()->user();
}
std::string Credentials::getDeviceName() const {
    return getState()->device();
}

long long Credentials::getValidFrom() const {
    return toMicroseconds(X509_get0_notBefore(getState()->certificate()));
}

long long Credentials::getValidUntil() const {
    return toMicroseconds(X509_get0_notAfter(getState()->certificate()));
}

std::string Credentials::describeExpiry(long long now, int days) const {
    const auto state = getState();
    const long long until = toMicroseconds(X509_get0_notAfter(state->certificate()));
    constexpr long long microsecondsPerDay = 86'400'000'000LL;
    if (until - now > days * microsecondsPerDay)
        return {};
    const std::string name = "the certificate " + describe(state->certificate());
    if (until < now)
        return name + " ended at " + describeTime(until) + "; renew it";
    return name + " ends in " + std::to_string((until - now) / microsecondsPerDay) + " days, at " +
           describeTime(until) + "; renew it";
}

SiteKey Credentials::getSiteKey() const {
    return getState()->siteKey();
}

}  // namespace qel
