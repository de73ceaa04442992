#include "log/Output.h"

#include <string>
#include <utility>

namespace qel::logging {

namespace {

// Set while this thread is inside a sink: a line that a sink logs itself would wait for itself.
thread_local bool writing = false;

class WritingMark {
  public:
    WritingMark() { writing = true; }
    ~WritingMark() { writing = false; }
    WritingMark(const WritingMark&) = delete;
    WritingMark& operator=(const WritingMark&) = delete;
};

}  // namespace

Output::Output() : sink_(standardErrorSink(Form::text)) {}

Output& Output::instance() {
    static Output* const output = new Output;
    return *output;
}

std::shared_ptr<Sink> Output::setSink(std::shared_ptr<Sink> sink) {
    const std::lock_guard lock(sinkMutex_);
    return std::exchange(sink_, std::move(sink));
}

std::shared_ptr<Sink> Output::getSink() const {
    const std::lock_guard lock(sinkMutex_);
    return sink_;
}

void Output::write(int level, int channel, std::string_view text) {
    const std::shared_ptr<Sink> sink = getSink();
    if (sink == nullptr || writing)
        return;
    const std::string line = escaped(text);
    const std::lock_guard lock(writeMutex_);
    const WritingMark mark;
    sink->write(Line{System::getUTCDateTime(), level, channel, line});
}

}  // namespace qel::logging
