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

}  // namespace qel::test
