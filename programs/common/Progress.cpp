#include "common/Progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace qel::programs {
namespace {

constexpr unsigned callsPerLook = 256;
constexpr auto betweenDraws = std::chrono::milliseconds(200);
constexpr std::size_t barWidth = 24;

std::string clockText(double seconds) {
    const auto whole = static_cast<std::uint64_t>(std::max(seconds, 0.0));
    char text[32];
    std::snprintf(text, sizeof text, "%llu:%02llu", static_cast<unsigned long long>(whole / 60),
                  static_cast<unsigned long long>(whole % 60));
    return text;
}

}  // namespace

Progress::Progress(std::string label, std::uint64_t total, bool quiet)
    : label_(std::move(label)),
      total_(total),
      shown_(isShown(quiet)),
      start_(std::chrono::steady_clock::now()),
      last_(start_) {}

Progress::~Progress() {
    if (drawn_)
        std::fputs("\r\033[K", stderr);
}

bool Progress::isShown(bool quiet) {
    return !quiet && isatty(STDERR_FILENO) == 1;
}

void Progress::update(std::uint64_t done) {
    if (!shown_ || ++calls_ % callsPerLook != 0)
        return;
    const auto now = std::chrono::steady_clock::now();
    if (now - last_ < betweenDraws)
        return;
    last_ = now;
    draw(done);
}

void Progress::show(std::uint64_t done) {
    if (shown_)
        draw(done);
}

double Progress::seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void Progress::draw(std::uint64_t done) {
    drawn_ = true;
    const double rate = static_cast<double>(done) / std::max(seconds(), 1e-3);
    std::string text = label_ + ' ';
    if (total_ > 0) {
        const double share = std::min(1.0, static_cast<double>(done) / static_cast<double>(total_));
        const auto full = static_cast<std::size_t>(share * barWidth);
        text += '[' + std::string(full, '#') + std::string(barWidth - full, '.') + "] ";
        text += std::to_string(static_cast<int>(share * 100)) + "% ";
    }
    text += grouped(done) + ", " + grouped(static_cast<std::uint64_t>(rate)) + "/s";
    if (total_ > done && rate > 0)
        text += ", " + clockText(static_cast<double>(total_ - done) / rate) + " left";
    std::fprintf(stderr, "\r\033[K%s", text.c_str());
    std::fflush(stderr);
}

std::string grouped(std::uint64_t number) {
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3; at -= 3)
        text.insert(at - 3, ",");
    return text;
}

std::string rateOf(std::uint64_t count, double seconds) {
    return grouped(static_cast<std::uint64_t>(static_cast<double>(count) / std::max(seconds, 1e-3))) + "/s";
}

}  // namespace qel::programs
