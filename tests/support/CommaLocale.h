#pragma once

#include <stdlib.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <locale>
#include <stdexcept>
#include <string>

#include "support/TemporaryFolder.h"

namespace qel::test {

/// Makes the process speak German while it lives: a decimal comma and grouped thousands in the streams of
/// C++, and in the functions of C where the machine can build that locale ("locales" package).
class CommaLocale {
  public:
    CommaLocale() : before_(std::locale::global(std::locale(std::locale::classic(), new German))) {
        setCLocale();
    }
    ~CommaLocale() {
        std::setlocale(LC_ALL, "C");
        std::locale::global(before_);
        ::unsetenv("LOCPATH");
    }
    CommaLocale(const CommaLocale&) = delete;
    CommaLocale& operator=(const CommaLocale&) = delete;

  private:
    class German : public std::numpunct<char> {
      protected:
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };

    // A compiled locale in a folder of its own, so that the machine need not have one installed.
    void setCLocale() {
        const std::string command =
            "localedef -i de_DE -f UTF-8 '" + (folder_ / "de_DE.UTF-8") + "' >/dev/null 2>&1";
        if (std::system(command.c_str()) != 0)
            return;
        ::setenv("LOCPATH", folder_.path().c_str(), 1);
        char text[8];
        if (std::setlocale(LC_ALL, "de_DE.UTF-8") == nullptr ||
            std::snprintf(text, sizeof text, "%.1f", 0.5) != 3 || text[1] != ',')
            throw std::runtime_error("the German locale was built but does not work");
    }

    std::locale before_;
    TemporaryFolder folder_;
};

}  // namespace qel::test
