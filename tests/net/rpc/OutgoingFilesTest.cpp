#include "rpc/OutgoingFiles.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "rpc/CallFolders.h"
#include "rpc/Sha256.h"

namespace qel::rpc {
namespace {

namespace fs = std::filesystem;
using Kind = OutgoingFiles::Chunk::Kind;

class OutgoingFilesTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = fs::temp_directory_path() / "outgoing-XXXXXX";
        folder = ::mkdtemp(pattern.data());
    }
    void TearDown() override { fs::remove_all(folder); }

    std::string write(const std::string& name, const std::string& content) const {
        const std::string path = folder + "/" + name;
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }
    static std::size_t foldersIn(const std::string& directory) {
        std::size_t count = 0;
        for (const auto& entry : fs::directory_iterator(directory))
            count += entry.is_directory() ? 1 : 0;
        return count;
    }

    std::string folder;
    std::string error;
};

TEST_F(OutgoingFilesTest, FilesComeInChunksWithTheirDigests) {
    OutgoingFiles files;
    ASSERT_TRUE(files.add("x", write("x", "head\nline\n"), error));
    ASSERT_TRUE(files.add("y", write("y", ""), error));
    EXPECT_EQ(files.totalBytes(), 10u);
    EXPECT_TRUE(files.needsRoom());
    EXPECT_EQ(files.next(6).bytes, "head\nl");
    const auto second = files.next(6);
    EXPECT_EQ(second.bytes, "ine\n");
    EXPECT_EQ(second.offset, 6u);
    EXPECT_FALSE(files.needsRoom());
    const auto end = files.next(6);
    EXPECT_EQ(end.kind, Kind::fileEnd);
    EXPECT_EQ(end.offset, 10u);
    Sha256 digest;
    digest.add("head\nline\n", 10);
    EXPECT_EQ(end.bytes, digest.finish());
    EXPECT_EQ(files.next(6).kind, Kind::fileEnd);
    EXPECT_EQ(files.next(6).kind, Kind::allSent);
    EXPECT_TRUE(files.isAtEnd());
    EXPECT_EQ(files.sentBytes(), 10u);
    EXPECT_EQ(files.sentLines(), 2u);
}

TEST_F(OutgoingFilesTest, WhatIsNoPlainFileIsRefused) {
    OutgoingFiles files;
    EXPECT_FALSE(files.add("x", folder + "/missing", error));
    EXPECT_NE(error.find("x"), std::string::npos);
    EXPECT_FALSE(files.add("x", folder, error));
    fs::create_symlink(write("real", "secret"), folder + "/link");
    EXPECT_FALSE(files.add("x", folder + "/link", error));
    ASSERT_EQ(::mkfifo((folder + "/pipe").c_str(), 0600), 0);
    EXPECT_FALSE(files.add("x", folder + "/pipe", error));
}

TEST_F(OutgoingFilesTest, AFileThatShrinksIsAFault) {
    OutgoingFiles files;
    const std::string path = write("x", "0123456789");
    ASSERT_TRUE(files.add("x", path, error));
    ASSERT_EQ(files.next(4).kind, Kind::data);
    fs::resize_file(path, 2);
    EXPECT_EQ(files.next(4).kind, Kind::fault);
}

TEST_F(OutgoingFilesTest, EveryCallHasAPrivateFolderThatGoesWithIt) {
    CallFolders folders(folder + "/transfer", error);
    ASSERT_EQ(error, "");
    auto one = folders.create();
    auto two = folders.create();
    ASSERT_TRUE(one && two);
    EXPECT_NE(one->path(), two->path());
    EXPECT_EQ(fs::status(one->path()).permissions(), fs::perms::owner_all);
    const std::string first = one->nextPath("tembra_audit_report");
    const std::string second = one->nextPath("tembra_audit_report");
    EXPECT_NE(first, second);
    EXPECT_NE(first.find("tembra_audit_report"), std::string::npos);
    EXPECT_FALSE(fs::exists(first));
    EXPECT_TRUE(fs::is_directory(fs::path(first).parent_path()));
    std::ofstream(first) << "data";
    fs::create_directories(second);
    std::ofstream(second + "/audit_export.csv") << "more";
    EXPECT_TRUE(one->contains(first));
    EXPECT_TRUE(one->contains(second + "/audit_export.csv"));
    EXPECT_FALSE(two->contains(first));
    EXPECT_FALSE(one->contains(one->path() + "/../../escape"));
    EXPECT_EQ(one->usedBytes(), 8u);
    one.reset();
    EXPECT_EQ(foldersIn(folder + "/transfer"), 1u);
    two.reset();
    EXPECT_EQ(foldersIn(folder + "/transfer"), 0u);
}

TEST_F(OutgoingFilesTest, LeftoversAreSweptAtStart) {
    const std::string transfer = folder + "/transfer";
    fs::create_directories(transfer + "/call-abc123/1");
    std::ofstream(transfer + "/call-abc123/1/tembra_audit_report") << "names of people";
    std::ofstream(transfer + "/notes.txt") << "somebody else's";
    const CallFolders folders(transfer, error);
    EXPECT_EQ(error, "");
    EXPECT_EQ(foldersIn(transfer), 0u);
    EXPECT_TRUE(fs::exists(transfer + "/notes.txt"));
    EXPECT_EQ(fs::status(transfer).permissions(), fs::perms::owner_all);
}

TEST_F(OutgoingFilesTest, ADirectoryThatAnotherUsesIsLeftAlone) {
    const std::string transfer = folder + "/transfer";
    CallFolders first(transfer, error);
    const auto inUse = first.create();
    CallFolders second(transfer, error);
    EXPECT_NE(error.find("another process"), std::string::npos);
    EXPECT_TRUE(fs::exists(inUse->path()));
    EXPECT_EQ(second.create(), nullptr);
}

TEST_F(OutgoingFilesTest, NamesOfHandlersCannotLeaveTheFolder) {
    CallFolders folders(folder + "/transfer", error);
    const auto call = folders.create();
    const std::string path = call->nextPath("../../etc/passwd");
    EXPECT_EQ(path.rfind(call->path() + "/", 0), 0u);
    EXPECT_EQ(path.find(".."), std::string::npos);
}

}  // namespace
}  // namespace qel::rpc
