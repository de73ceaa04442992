#pragma once

#include <memory>
#include <string>

#include "common/Configs.h"
#include "qelCore/Item.h"
#include "qelNet/Credentials.h"

namespace qel::programs {

/// The path of a log in the store, as configurations write it: parts separated by "/".
/// Throws Failure(78) when nothing is between two of them.
Item logPath(const std::string& text);

/// Reads the credentials that a configuration names; throws Failure(78) with the fault.
std::shared_ptr<Credentials> loadCredentials(const ConfigBase& config, const TlsConfig& tls,
                                             const std::string& siteKey = {});

}  // namespace qel::programs
