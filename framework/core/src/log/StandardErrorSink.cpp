#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <algorithm>
#include <array>
#include <chrono>

#include "qelCore/logging/Log.h"

namespace qel::logging {

namespace {

// The priorities of syslog, which the journal reads from the "<N>" at the start of a line.
class JournalPriority final : public spdlog::custom_flag_formatter {
  public:
    void format(const spdlog::details::log_msg& message, const std::tm& /*time*/,
                spdlog::memory_buf_t& out) override {
        out.push_back('<');
        out.push_back(priority(message.level));
        out.push_back('>');
    }
    std::unique_ptr<spdlog::custom_flag_formatter> clone() const override {
        return std::make_unique<JournalPriority>();
    }

  private:
    static char priority(spdlog::level::level_enum level) {
        switch (level) {
            case spdlog::level::err:
                return '3';
            case spdlog::level::warn:
                return '4';
            case spdlog::level::info:
                return '6';
            default:
                return '7';
        }
    }
};

std::unique_ptr<spdlog::formatter> makeFormatter(Form form) {
    auto formatter = std::make_unique<spdlog::pattern_formatter>(spdlog::pattern_time_type::utc);
    formatter->add_flag<JournalPriority>('*');
    formatter->set_pattern(form == Form::journal ? "%*%v" : "%Y-%m-%dT%H:%M:%S.%fZ [%l] %v");
    return formatter;
}

spdlog::level::level_enum spdlogLevel(int level) {
    constexpr std::array levels{spdlog::level::debug, spdlog::level::info, spdlog::level::warn,
                                spdlog::level::err};
    return levels[static_cast<std::size_t>(std::clamp(level, levelDebug, levelError))];
}

class StandardErrorSink final : public Sink {
  public:
    explicit StandardErrorSink(Form form) { sink_.set_formatter(makeFormatter(form)); }

    void write(const Line& line) override {
        const spdlog::log_clock::time_point time{std::chrono::microseconds(line.time)};
        sink_.log(spdlog::details::log_msg(time, spdlog::source_loc{}, spdlog::string_view_t(),
                                           spdlogLevel(line.level),
                                           spdlog::string_view_t(line.text.data(), line.text.size())));
        sink_.flush();
    }

  private:
    spdlog::sinks::stderr_sink_mt sink_;
};

}  // namespace

std::shared_ptr<Sink> standardErrorSink(Form form) {
    return std::make_shared<StandardErrorSink>(form);
}

}  // namespace qel::logging
