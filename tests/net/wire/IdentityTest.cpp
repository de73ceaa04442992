#include "qelNet/Identity.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/TestSite.h"

namespace qel {
namespace {

std::string hex(const IdentityBlock& block) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : block) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

TEST(SiteKey, BlocksAreTheKeyedHashesOfKindAndName) {
    // Computed with an independent implementation: HMAC-SHA-256 of "user\0alice" and "device\0WS-1" under 32 bytes 00..1f.
    std::vector<unsigned char> bytes(32);
    for (unsigned char i = 0; i < 32; ++i)
        bytes[i] = i;
    const Identity identity = Identity::make("alice", "WS-1", SiteKey::fromBytes(bytes));
    EXPECT_EQ(hex(identity.userBlock), "34d45cbc91de5ce7295b963a0e35627d4f93b0e009d7145c8a2abda27bc00eb8");
    EXPECT_EQ(hex(identity.deviceBlock), "aba58d6702f5ecf1bee5f88506c6bb6e94d5889ce2dc8925bbc211d8b0e63d4e");
}

TEST(SiteKey, NameOfAUserAndOfADeviceGiveDifferentBlocks) {
    const Identity identity = Identity::make("same", "same", SiteKey());
    EXPECT_NE(identity.userBlock, identity.deviceBlock);
}

TEST(SiteKey, CreatedKeyReadsBackAndIsNeverReplaced) {
    const test::TemporaryFolder folder;
    std::string error;
    ASSERT_TRUE(SiteKey::create(folder / "site.key", error)) << error;
    SiteKey first;
    ASSERT_TRUE(first.load(folder / "site.key", error)) << error;
    EXPECT_EQ(first.getFingerprint().size(), 16u);
    EXPECT_FALSE(SiteKey::create(folder / "site.key", error));
    EXPECT_NE(error.find("never replaced"), std::string::npos);
    SiteKey second;
    ASSERT_TRUE(second.load(folder / "site.key", error));
    EXPECT_EQ(first.makeBlock("user", "a"), second.makeBlock("user", "a"));
}

TEST(SiteKey, FileOpenToOthersIsRefused) {
    const test::TemporaryFolder folder;
    std::string error;
    ASSERT_TRUE(SiteKey::create(folder / "site.key", error));
    ::chmod((folder / "site.key").c_str(), 0640);
    SiteKey key;
    EXPECT_FALSE(key.load(folder / "site.key", error));
    EXPECT_NE(error.find("has mode 0640 and is open to others; expected 0600"), std::string::npos) << error;
}

TEST(SiteKey, ServiceManagersFolderMayBeReadByTheGroup) {
    const test::TemporaryFolder folder;
    std::string error;
    ASSERT_TRUE(SiteKey::create(folder / "site.key", error));
    ::chmod((folder / "site.key").c_str(), 0440);
    ::setenv("CREDENTIALS_DIRECTORY", folder.path().c_str(), 1);
    SiteKey key;
    EXPECT_TRUE(key.load(folder / "site.key", error)) << error;
    ::unsetenv("CREDENTIALS_DIRECTORY");
}

TEST(SiteKey, MalformedKeysAreRefused) {
    const test::TemporaryFolder folder;
    for (const std::string& text :
         {std::string(), std::string(63, 'a'), std::string(64, 'g'), std::string(66, 'a')}) {
        const std::string file = folder.write("site.key", text);
        ::chmod(file.c_str(), 0600);
        SiteKey key;
        std::string error;
        EXPECT_FALSE(key.load(file, error));
        EXPECT_NE(error.find("64 hexadecimal digits"), std::string::npos) << error;
    }
}

}  // namespace
}  // namespace qel
