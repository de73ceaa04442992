#include "postgres/PostgresFixture.h"

#include <map>

namespace qel::test {

namespace {

std::unique_ptr<PostgresServer>& server() {
    static std::unique_ptr<PostgresServer> one;
    return one;
}

// A schema per folder that a test names: the store's tests run unchanged on this engine.
std::string urlFor(const std::string& folder) {
    static std::map<std::string, std::string> known;
    std::string& url = known[folder];
    if (url.empty())
        url = freshUrl();
    return url;
}

class ServerOfAllTests : public ::testing::Environment {
  public:
    void SetUp() override {
        server() = std::make_unique<PostgresServer>();
        storeUrlOf() = urlFor;
    }
    void TearDown() override { server().reset(); }
};

const ::testing::Environment* const environment = ::testing::AddGlobalTestEnvironment(new ServerOfAllTests);

}  // namespace

PostgresServer& sharedServer() {
    return *server();
}

std::string freshUrl() {
    static int number = 0;
    return sharedServer().storeUrl("store" + std::to_string(++number));
}

std::unique_ptr<ItemStore> openStore(const std::string& url, StoreOptions options) {
    std::string reason;
    auto store = ItemStore::open(url, options, reason);
    EXPECT_NE(store, nullptr) << reason;
    return store;
}

std::string refusal(const std::string& url, StoreOptions options) {
    std::string reason;
    return ItemStore::open(url, options, reason) == nullptr ? reason : "(opened)";
}

std::string valueAt(ItemStore& store, const Item& at) {
    return std::string(store.fetch(at).view());
}

std::string encoded(std::string_view value) {
    return std::string(text(value).bytes().view());
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::string terminateAll() {
    return sharedServer().sql(
        "SELECT count(pg_terminate_backend(pid, 5000)) FROM pg_stat_activity WHERE application_name = 'qel'");
}

}  // namespace qel::test
