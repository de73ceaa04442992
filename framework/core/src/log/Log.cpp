#include "qelCore/logging/Log.h"

#include <algorithm>
#include <array>
#include <utility>

#include "log/Output.h"

namespace qel::logging {

namespace {

constexpr std::array<std::string_view, 5> levelNames{"debug", "info", "warning", "error", "off"};

}  // namespace

Sink::~Sink() = default;

void setLevel(int level) {
    Output::instance().setLevel(level);
}

int getLevel() {
    return Output::instance().getLevel();
}

bool levelFromName(std::string_view name, int& level) {
    const auto found = std::find(levelNames.begin(), levelNames.end(), name);
    if (found == levelNames.end())
        return false;
    level = static_cast<int>(found - levelNames.begin());
    return true;
}

const char* nameOfLevel(int level) {
    return levelNames[static_cast<std::size_t>(std::clamp(level, levelDebug, levelOff))].data();
}

std::shared_ptr<Sink> setSink(std::shared_ptr<Sink> sink) {
    return Output::instance().setSink(std::move(sink));
}

std::shared_ptr<Sink> getSink() {
    return Output::instance().getSink();
}

}  // namespace qel::logging
