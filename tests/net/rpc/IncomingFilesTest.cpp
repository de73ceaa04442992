#include "rpc/IncomingFiles.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "rpc/Sha256.h"

namespace qel::rpc {
namespace {

namespace fs = std::filesystem;

class IncomingFilesTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = fs::temp_directory_path() / "incoming-XXXXXX";
        folder = ::mkdtemp(pattern.data());
    }
    void TearDown() override { fs::remove_all(folder); }

    std::string path(const std::string& name) const { return folder + "/" + name; }
    static std::string digestOf(const std::string& bytes) {
        Sha256 digest;
        digest.add(bytes.data(), bytes.size());
        return digest.finish();
    }
    static std::string contentOf(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    std::size_t filesInFolder() const {
        return static_cast<std::size_t>(
            std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
    }

    std::string folder;
};

TEST_F(IncomingFilesTest, WholeFilesTakeTheirNames) {
    IncomingFiles files({path("a.csv"), path("b.csv")});
    ASSERT_FALSE(files.begin({{path("a.csv"), 6}, {path("b.csv"), 0}}));
    EXPECT_FALSE(files.data(0, 0, "one"));
    EXPECT_FALSE(files.data(0, 3, "two"));
    EXPECT_FALSE(files.end(0, 6, digestOf("onetwo")));
    EXPECT_FALSE(files.isWhole());
    EXPECT_FALSE(files.end(1, 0, digestOf("")));
    ASSERT_TRUE(files.isWhole());
    EXPECT_FALSE(fs::exists(path("a.csv")));
    ASSERT_FALSE(files.keep());
    EXPECT_EQ(contentOf(path("a.csv")), "onetwo");
    EXPECT_EQ(contentOf(path("b.csv")), "");
    EXPECT_EQ(files.kept().size(), 2u);
    EXPECT_EQ(filesInFolder(), 2u);
    EXPECT_EQ(fs::status(path("a.csv")).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(IncomingFilesTest, UnfinishedFilesLeaveNothing) {
    {
        IncomingFiles files({path("a.csv")});
        ASSERT_FALSE(files.begin({{path("a.csv"), 6}}));
        ASSERT_FALSE(files.data(0, 0, "one"));
        EXPECT_EQ(filesInFolder(), 1u);
    }
    EXPECT_EQ(filesInFolder(), 0u);
}

TEST_F(IncomingFilesTest, AnOlderFileStaysWholeUntilTheNewOneIs) {
    std::ofstream(path("a.csv")) << "old";
    {
        IncomingFiles files({path("a.csv")});
        ASSERT_FALSE(files.begin({{path("a.csv"), 3}}));
        ASSERT_FALSE(files.data(0, 0, "new"));
    }
    EXPECT_EQ(contentOf(path("a.csv")), "old");
}

TEST_F(IncomingFilesTest, PathsThatWereNotAskedForAreRefused) {
    for (const std::string& hostile :
         {path("../escape.csv"), path("a.csv/../b.csv"), std::string("/etc/passwd"), path("A.csv"),
          path("a.csv "), std::string("a.csv"), std::string()}) {
        IncomingFiles files({path("a.csv")});
        const auto fault = files.begin({{hostile, 1}});
        EXPECT_EQ(fault.error, RpcError::refusedByClient) << hostile;
        EXPECT_EQ(filesInFolder(), 0u) << hostile;
    }
}

TEST_F(IncomingFilesTest, OneTargetIsAcceptedOnce) {
    IncomingFiles files({path("a.csv"), path("b.csv")});
    EXPECT_EQ(files.begin({{path("a.csv"), 1}, {path("a.csv"), 1}}).error, RpcError::refusedByClient);
    IncomingFiles twice({path("a.csv")});
    ASSERT_FALSE(twice.begin({{path("a.csv"), 1}}));
    EXPECT_EQ(twice.begin({{path("a.csv"), 1}}).error, RpcError::refusedByClient);
}

TEST_F(IncomingFilesTest, MoreBytesThanAnnouncedAreRefused) {
    IncomingFiles files({path("a.csv")});
    ASSERT_FALSE(files.begin({{path("a.csv"), 4}}));
    ASSERT_FALSE(files.data(0, 0, "1234"));
    EXPECT_EQ(files.data(0, 4, "5").error, RpcError::refusedByClient);
}

TEST_F(IncomingFilesTest, DataOutOfTurnIsRefused) {
    IncomingFiles files({path("a.csv"), path("b.csv")});
    EXPECT_EQ(files.data(0, 0, "x").error, RpcError::refusedByClient);
    ASSERT_FALSE(files.begin({{path("a.csv"), 4}, {path("b.csv"), 4}}));
    EXPECT_EQ(files.data(1, 0, "x").error, RpcError::refusedByClient);
    EXPECT_EQ(files.data(0, 1, "x").error, RpcError::refusedByClient);
    EXPECT_EQ(files.data(7, 0, "x").error, RpcError::refusedByClient);
}

TEST_F(IncomingFilesTest, AShortFileIsRefused) {
    IncomingFiles files({path("a.csv")});
    ASSERT_FALSE(files.begin({{path("a.csv"), 4}}));
    ASSERT_FALSE(files.data(0, 0, "123"));
    EXPECT_EQ(files.end(0, 4, digestOf("123")).error, RpcError::refusedByClient);
}

TEST_F(IncomingFilesTest, AWrongDigestIsRefused) {
    IncomingFiles files({path("a.csv")});
    ASSERT_FALSE(files.begin({{path("a.csv"), 3}}));
    ASSERT_FALSE(files.data(0, 0, "123"));
    EXPECT_EQ(files.end(0, 3, digestOf("124")).error, RpcError::refusedByClient);
    EXPECT_FALSE(files.isWhole());
}

TEST_F(IncomingFilesTest, ATargetThatCannotBeMadeIsSaidAtOnce) {
    IncomingFiles files({path("missing/a.csv")});
    EXPECT_EQ(files.begin({{path("missing/a.csv"), 3}}).error, RpcError::cannotCreateFile);
}

TEST_F(IncomingFilesTest, AnAnnouncementLargerThanTheDiskIsSaidBeforeTheFirstByte) {
    IncomingFiles files({path("a.csv")});
    EXPECT_EQ(files.begin({{path("a.csv"), std::uint64_t{1} << 60}}).error, RpcError::cannotWriteFile);
}

}  // namespace
}  // namespace qel::rpc
