#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "qelCore/Packet.h"
#include "qelCore/PacketScheme.h"
#include "qelCore/Ref.h"

namespace qel {
namespace {

constexpr short eventType = 301;
constexpr short acknowledgementType = 302;

/// A shared library, loaded while it lives.
class Library {
  public:
    explicit Library(const std::string& file) : handle_(::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL)) {
        if (handle_ == nullptr)
            ADD_FAILURE() << ::dlerror();
    }
    ~Library() { EXPECT_TRUE(handle_ == nullptr || ::dlclose(handle_) == 0); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    void* find(const char* symbol) const { return handle_ == nullptr ? nullptr : ::dlsym(handle_, symbol); }
    PacketScheme* scheme(const char* symbol) const {
        auto* const pointer = static_cast<PacketScheme**>(find(symbol));
        return pointer == nullptr ? nullptr : *pointer;
    }

  private:
    void* handle_;
};

const std::string auditingLibrary = QEL_AUDITING_LIBRARY;
const std::string earlyHost = QEL_EARLY_HOST;
constexpr const char* eventSymbol = "_ZN3qel13AuditProtocol12AuditSession9AuditDataE";

TEST(Loading, SchemesComeAndGoWithTheLibrary) {
    ASSERT_EQ(PacketScheme::find(eventType), nullptr);
    for (int round = 0; round < 3; ++round) {
        {
            const Library library(auditingLibrary);
            ASSERT_NE(PacketScheme::find(eventType), nullptr);
            ASSERT_NE(PacketScheme::find(acknowledgementType), nullptr);
            EXPECT_EQ(library.scheme(eventSymbol), PacketScheme::find(eventType));
            EXPECT_STREQ(PacketScheme::find(eventType)->getName(), "AuditData");
        }
        EXPECT_EQ(PacketScheme::find(eventType), nullptr);
        EXPECT_EQ(PacketScheme::find(acknowledgementType), nullptr);
    }
}

TEST(Loading, ReceivedBytesSurviveTheLibraryThatMadeThem) {
    std::string bytes;
    {
        const Library library(auditingLibrary);
        const Ref<Packet> packet = makeRef<Packet>(library.scheme(eventSymbol), short{-1});
        packet->singleSetInternal("time", 7LL);
        bytes = packet->getEncoded().view();
    }
    const Ref<Packet> packet = Ref<Packet>::adopt(Packet::decode(ConstByteSpan(std::string_view(bytes))));
    EXPECT_EQ(packet->getType(), eventType);
    const Library library(auditingLibrary);
    ASSERT_TRUE(packet->fit(library.scheme(eventSymbol)));
    EXPECT_EQ(packet->singleGet<long long>("time"), 7);
}

TEST(Loading, EverythingIsReadyForTheEarliestStaticObjectOfAHost) {
    for (int round = 0; round < 2; ++round) {
        const Library host(earlyHost);
        auto* const ready = reinterpret_cast<bool (*)()>(host.find("hostFoundEverythingReady"));
        ASSERT_NE(ready, nullptr);
        EXPECT_TRUE(ready());
    }
    EXPECT_EQ(PacketScheme::find(eventType), nullptr);
}

}  // namespace
}  // namespace qel
