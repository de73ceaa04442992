#pragma once

#include <gtest/gtest.h>

#include "support/PostgresServer.h"
#include "support/StoreFixture.h"

namespace qel::test {

/// The server of this test program: started before the first test, stopped after the last.
PostgresServer& sharedServer();
/// A store that no other test has.
std::string freshUrl();

/// Opens, or fails the test with the reason.
std::unique_ptr<ItemStore> openStore(const std::string& url, StoreOptions options = {});
/// Why the store is not opened.
std::string refusal(const std::string& url, StoreOptions options = {});
std::string valueAt(ItemStore& store, const Item& at);
/// How a text stands in the store.
std::string encoded(std::string_view value);
bool has(const std::string& text, const std::string& part);
/// Ends every connection of the stores that are open, at the server.
std::string terminateAll();

}  // namespace qel::test
