#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "qelCore/Item.h"
#include "qelCore/ItemStore.h"
#include "qelCore/String.h"
#include "support/TemporaryFolder.h"

namespace qel::test {

inline Item path(std::string_view name) {
    Item out;
    out.addString(name);
    return out;
}

inline Item text(std::string_view value) {
    return path(value);
}

inline Item key(const Item& parent, long long number) {
    Item out = parent;
    out.addInteger(number);
    return out;
}

/// The URL of the store that a test means by a folder of its own: the embedded one in the folder, or what stands for
/// it where the same tests run on another engine.
inline std::function<std::string(const std::string& folder)>& storeUrlOf() {
    static std::function<std::string(const std::string&)> make = [](const std::string& folder) {
        return "lmdb:" + folder;
    };
    return make;
}

/// A store in a temporary folder, current while the test runs.
class StoreTest : public ::testing::Test {
  protected:
    void SetUp() override { reopen(); }
    void TearDown() override { close(); }

    std::string url() const { return storeUrlOf()(folder_ / "store"); }
    void close() { store_.reset(); }
    void reopen() { reopen(options_); }
    void reopen(const StoreOptions& options) {
        close();
        std::string reason;
        store_ = ItemStore::open(url(), options, reason);
        ASSERT_NE(store_, nullptr) << reason;
        ItemStore::setCurrent(store_.get());
    }

    static void write(const Item& at, std::string_view value) { at.store(text(value)); }
    static std::string read(const Item& at) {
        const ConstByteSpan bytes = at.fetch();
        if (bytes.isNull())
            return "(null)";
        Item value;
        value.setPlain(bytes);
        String out;
        return value.decodeElementAsString(out) ? out.str() : "(" + value.asString().str() + ")";
    }

    TemporaryFolder folder_;
    StoreOptions options_;
    std::unique_ptr<ItemStore> store_;
};

}  // namespace qel::test
