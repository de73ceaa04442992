#pragma once

#include <string>

#include "common/Configs.h"

namespace qel::programs {

/// Reads a configuration over the defaults of `config`. Throws Failure: 66 when the file is missing,
/// 77 when it may not be read, 78 with "FILE:LINE: [section] key = value: expected …" for the first fault, an unknown key
/// included.
void readConfig(const std::string& file, DaemonConfig& config);
void readConfig(const std::string& file, WorkstationConfig& config);

/// The same for a text in memory, which sentences call `file`; the folder stays as it was.
void parseConfig(const std::string& text, const std::string& file, DaemonConfig& config);
void parseConfig(const std::string& text, const std::string& file, WorkstationConfig& config);

/// The whole configuration as text that reads back to the same values: one key per line, and with `explained`
/// a comment above each. The samples under packaging/ are this text for the defaults.
std::string printConfig(DaemonConfig config, bool explained);
std::string printConfig(WorkstationConfig config, bool explained);

}  // namespace qel::programs
