#pragma once

#include <string>

namespace qel::programs {

/// The manual page of a configuration file, written from the same declaration that reads it.
std::string daemonConfigManual();
std::string workstationConfigManual();

}  // namespace qel::programs
