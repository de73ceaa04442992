#include "common/ServiceManager.h"

#include <signal.h>
#include <systemd/sd-daemon.h>

#include <cstdlib>

#include "qelCore/logging/Log.h"
#include "qelCore/logging/MessageStream.h"

namespace qel::programs {
namespace {

sigset_t wishes() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&set, number);
    return set;
}

}  // namespace

ServiceManager::ServiceManager() {
    const sigset_t set = wishes();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    std::uint64_t microseconds = 0;
    if (sd_watchdog_enabled(0, &microseconds) > 0)
        interval_ = std::chrono::microseconds(microseconds);
}

ServiceManager::Wish ServiceManager::wait(std::chrono::milliseconds time) const {
    const sigset_t set = wishes();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    timespec limit{};
    limit.tv_sec = static_cast<time_t>(seconds.count());
    limit.tv_nsec = static_cast<long>(std::chrono::nanoseconds(time - seconds).count());
    const int number = ::sigtimedwait(&set, nullptr, &limit);
    if (number == SIGHUP)
        return Wish::reload;
    return number > 0 ? Wish::stop : Wish::none;
}

void ServiceManager::ready(const std::string& text) const {
    sd_notifyf(0, "READY=1\nSTATUS=%s", text.c_str());
}

void ServiceManager::stopping() const {
    sd_notify(0, "STOPPING=1");
}

void ServiceManager::status(const std::string& text) const {
    sd_notifyf(0, "STATUS=%s", text.c_str());
}

void ServiceManager::alive() const {
    sd_notify(0, "WATCHDOG=1");
}

void setUpServiceLog() {
    const bool journal = std::getenv("JOURNAL_STREAM") != nullptr;
    logging::setSink(logging::standardErrorSink(journal ? logging::Form::journal : logging::Form::text));
    logging::setLevel(logging::levelInformation);
}

void logInformation(const std::string& text) {
    logging::MessageStream(logging::levelInformation, logging::channelSystem) << text;
}

void logWarning(const std::string& text) {
    logging::MessageStream(logging::levelWarning, logging::channelSystem) << text;
}

void logError(const std::string& text) {
    logging::MessageStream(logging::levelError, logging::channelSystem) << text;
}

void setUpCommandLog() {
    logging::setLevel(logging::levelWarning);
}

}  // namespace qel::programs
