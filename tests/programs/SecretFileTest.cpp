#include "common/SecretFile.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "common/Configs.h"
#include "common/Failure.h"
#include "support/TemporaryFolder.h"

namespace qel::programs {
namespace {

class SecretFileTest : public testing::Test {
  protected:
    std::string withMode(mode_t mode) {
        const std::string file = folder_.write("secret", "x");
        ::chmod(file.c_str(), mode);
        return file;
    }
    test::TemporaryFolder folder_;
};

TEST_F(SecretFileTest, OwnerOnlyIsFine) {
    EXPECT_EQ(secretFileFault(withMode(0600)), "");
    EXPECT_EQ(secretFileFault(withMode(0400)), "");
}

TEST_F(SecretFileTest, OthersAndTheGroupAreToldWithTheCure) {
    const std::string file = withMode(0604);
    EXPECT_EQ(secretFileFault(file),
              file + ": others may touch it (mode 0604), expected 0600; cure: chmod 600 " + file);
    EXPECT_EQ(secretFileFault(withMode(0640)),
              file + ": its group may touch it (mode 0640), expected 0600; cure: chmod 600 " + file);
}

TEST_F(SecretFileTest, GroupIsFineInTheCredentialsDirectoryOnly) {
    ::setenv("CREDENTIALS_DIRECTORY", folder_.path().c_str(), 1);
    EXPECT_EQ(secretFileFault(withMode(0440)), "");
    EXPECT_NE(secretFileFault(withMode(0444)), "");
    ::setenv("CREDENTIALS_DIRECTORY", (folder_ / "deeper").c_str(), 1);
    EXPECT_NE(secretFileFault(withMode(0440)), "");
    ::unsetenv("CREDENTIALS_DIRECTORY");
}

TEST_F(SecretFileTest, CopyOfTheServiceManagerStandsInForTheFileOfThatName) {
    ConfigBase config;
    config.folder = "/etc/site";
    folder_.write("server.key", "copy");
    EXPECT_EQ(config.resolveSecret("server.key"), "/etc/site/server.key");
    ::setenv("CREDENTIALS_DIRECTORY", folder_.path().c_str(), 1);
    EXPECT_EQ(config.resolveSecret("server.key"), folder_ / "server.key");
    EXPECT_EQ(config.resolveSecret("/elsewhere/server.key"), folder_ / "server.key");
    EXPECT_EQ(config.resolveSecret("site.key"), "/etc/site/site.key");
    EXPECT_EQ(config.resolveSecret(""), "");
    ::unsetenv("CREDENTIALS_DIRECTORY");
}

TEST_F(SecretFileTest, FoldersAndMissingFilesAreNoSecrets) {
    EXPECT_EQ(secretFileFault(folder_.path()), folder_.path() + ": expected a regular file");
    try {
        requireSecretFile(folder_ / "nowhere");
        ADD_FAILURE() << "a missing file passed";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code(), exitInputMissing);
    }
}

TEST_F(SecretFileTest, WrittenSecretsAreForTheirOwnerAndNeverReplaceAFile) {
    const std::string file = folder_ / "key";
    writeSecretFile(file, "bytes");
    EXPECT_EQ(secretFileFault(file), "");
    EXPECT_EQ(test::TemporaryFolder::read(file), "bytes");
    EXPECT_THROW(writeSecretFile(file, "other"), Failure);
    EXPECT_EQ(test::TemporaryFolder::read(file), "bytes");
}

}  // namespace
}  // namespace qel::programs
