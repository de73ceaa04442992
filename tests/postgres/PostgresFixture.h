#pragma once

#include <gtest/gtest.h>

#include "support/PostgresServer.h"
#include "support/StoreFixture.h"

namespace qel::test {

/// The server of this test program: started before the first test, stopped after the last.
PostgresServer& sharedServer();
/// A store that no other test has.
std::string freshUrl();

}  // namespace qel::test
