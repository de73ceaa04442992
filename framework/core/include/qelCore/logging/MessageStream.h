#pragma once

#include <concepts>
#include <string>
#include <string_view>

#include "qelCore/Export.h"
#include "qelCore/String.h"

namespace qel::logging {

/// One log line in the making: values are streamed in, and the line is written when the stream is destroyed,
/// whole and apart from the lines of other threads. A stream belongs to one thread; streams of many threads
/// may be alive at once. The destructor throws nothing: a line that cannot be written is lost. Where lines
/// go, and which levels are written, is said in qelCore/logging/Log.h.
///
///     logging::MessageStream(3, 2) << "required file not found: " << name;
class QELCORE_EXPORT MessageStream {
  public:
    /// `level`: 0 debug, 1 information, 2 warning, 3 error. `channel`: whose line it is; 2 for everything of
    /// this system.
    MessageStream(int level, int channel) noexcept;
    ~MessageStream();
    MessageStream(const MessageStream&) = delete;
    MessageStream& operator=(const MessageStream&) = delete;

    /// Null is written as "(null)".
    MessageStream& operator<<(const char* text);
    MessageStream& operator<<(std::string_view text);
    MessageStream& operator<<(const std::string& text) { return *this << std::string_view(text); }
    MessageStream& operator<<(const String& text) { return *this << text.view(); }
    MessageStream& operator<<(char character) { return *this << std::string_view(&character, 1); }
    /// "true" or "false".
    MessageStream& operator<<(bool value) { return *this << std::string_view(value ? "true" : "false"); }
    /// In decimal, without grouping, in any locale.
    template <std::integral T>
    MessageStream& operator<<(T value) {
        if constexpr (std::is_signed_v<T>)
            return addSigned(value);
        else
            return addUnsigned(value);
    }
    MessageStream& operator<<(double value);

  private:
    MessageStream& addSigned(long long value);
    MessageStream& addUnsigned(unsigned long long value);

    std::string text_;
    int level_;
    int channel_;
    bool wanted_;
};

}  // namespace qel::logging
