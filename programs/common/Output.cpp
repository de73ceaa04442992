#include "common/Output.h"

#include <cerrno>
#include <cstdio>

#include "common/Failure.h"
#include "qelCore/logging/Log.h"

namespace qel::programs {

void Output::message(const std::string& sentence) const {
    if (!quiet_)
        warning(sentence);
}

void Output::warning(const std::string& sentence) const {
    // Sentences may quote names and reasons from outside, which must neither forge lines nor steer a terminal.
    std::fprintf(stderr, "%s: %s\n", command_.c_str(), logging::escaped(sentence).c_str());
}

void Output::line(const std::string& text) const {
    if (json_)
        return;
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
}

void Output::finish() {
    if (json_)
        std::puts(result_.text().c_str());
    errno = 0;
    if (std::fflush(stdout) != 0 || std::ferror(stdout))
        throw systemFailure(exitInputOutput, "standard output", errno ? errno : EIO);
}

void printJsonFailure(ExitCode code, const std::string& sentence) {
    JsonObject object;
    object.add("error", sentence);
    object.add("exit", std::int64_t{code});
    std::puts(object.text().c_str());
}

}  // namespace qel::programs
