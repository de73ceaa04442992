#pragma once

#include <string>

#include "common/ExitCode.h"
#include "common/Json.h"

namespace qel::programs {

/// Where a command speaks: messages on standard error, its result on standard output, in words or as one JSON
/// object. Used by one thread.
class Output {
  public:
    Output(std::string command, bool quiet, bool json)
        : command_(std::move(command)), quiet_(quiet), json_(json) {}

    bool quiet() const { return quiet_; }
    bool json() const { return json_; }

    /// One sentence of news; silent with --quiet.
    void message(const std::string& sentence) const;
    /// One sentence that the caller has to hear, --quiet or not.
    void warning(const std::string& sentence) const;
    /// One line of a result in words; nothing with --json.
    void line(const std::string& text) const;

    /// The members of the --json result.
    JsonObject& result() { return result_; }
    /// Prints the --json result, and throws Failure(74) when standard output could not take all that was
    /// written.
    void finish();

  private:
    std::string command_;
    bool quiet_;
    bool json_;
    JsonObject result_;
};

/// What --json prints instead of a result when there is none: {"error":"…","exit":66}.
void printJsonFailure(ExitCode code, const std::string& sentence);

}  // namespace qel::programs
