#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "qelCore/Export.h"
#include "qelCore/System.h"

/// Where log lines go and which are written: set up once by the program. Without any set-up, lines from level
/// information upwards go to standard error as text. Every operation: any thread.
namespace qel::logging {

constexpr int levelDebug = 0;
constexpr int levelInformation = 1;
constexpr int levelWarning = 2;
constexpr int levelError = 3;
constexpr int levelOff = 4;

/// The channel of all lines of this system.
constexpr int channelSystem = 2;

/// Lines below `level` are not written, nor are their texts put together.
QELCORE_EXPORT void setLevel(int level);
QELCORE_EXPORT int getLevel();

/// "debug", "info", "warning", "error" or "off" (lower case) as a level; false, with `level` as it was, for
/// any other name.
QELCORE_EXPORT bool levelFromName(std::string_view name, int& level);
/// The name of a level; levels outside the five take the name of the nearest.
QELCORE_EXPORT const char* nameOfLevel(int level);

/// One line as a sink gets it. The text is one line, whatever was streamed in: control characters (line ends,
/// escape and C1 included), the Unicode line and paragraph separators, and the marks that reverse the writing
/// direction are replaced by visible escapes such as `\n`, `\x1b` or `\u202e`, and bytes that are no UTF-8 by
/// `\xff` and the like.
struct Line {
    UTCDateTime time = 0;
    int level = levelInformation;
    int channel = channelSystem;
    std::string_view text;
};

/// Takes lines. `write` is called by many threads, one at a time per sink; it must not log.
class QELCORE_EXPORT Sink {
  public:
    virtual ~Sink();
    virtual void write(const Line& line) = 0;
};

enum class Form {
    text,     ///< "2026-03-01T08:00:00.000001Z [error] the text"
    journal,  ///< "<3>the text": the priority prefix that the system journal reads; it adds the time itself
};

/// Lines to standard error in one form.
QELCORE_EXPORT std::shared_ptr<Sink> standardErrorSink(Form form);

/// Makes `sink` the one that lines go to; null puts nothing out at all. Returns the one that was there
/// before.
QELCORE_EXPORT std::shared_ptr<Sink> setSink(std::shared_ptr<Sink> sink);
QELCORE_EXPORT std::shared_ptr<Sink> getSink();

/// The text with everything escaped that would make it other than one plain line (see Line). Sinks get their
/// lines through it; programs use it for what they print of foreign texts.
QELCORE_EXPORT std::string escaped(std::string_view text);

}  // namespace qel::logging
