#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "qelCore/File.h"
#include "qelCore/String.h"
#include "support/TemporaryFolder.h"

namespace qel {
namespace {

namespace fs = std::filesystem;

class StringFile : public testing::Test {
  protected:
    std::string contentOf(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    void put(const std::string& file, const std::string& content) {
        std::ofstream(file, std::ios::binary) << content;
    }
    std::size_t entries() {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder.path()), {}));
    }

    test::TemporaryFolder folder;
    const std::string path = folder / "page.html";
};

TEST_F(StringFile, LoadsEveryByte) {
    const std::string content("a\r\n\0\xFF;", 6);
    put(path, content);
    String text = "old";
    EXPECT_TRUE(text.loadFromFile(path.c_str()));
    EXPECT_EQ(text.str(), content);
}

TEST_F(StringFile, LoadsAnEmptyFile) {
    put(path, "");
    String text = "old";
    EXPECT_TRUE(text.loadFromFile(path.c_str()));
    EXPECT_TRUE(text.empty());
}

TEST_F(StringFile, LoadsMoreThanOneBlock) {
    const std::string content(3 * 1024 * 1024 + 17, 'x');
    put(path, content);
    String text;
    EXPECT_TRUE(text.loadFromFile(path.c_str()));
    EXPECT_TRUE(text.str() == content);
}

TEST_F(StringFile, LoadsFilesThatTellNoSize) {
    String text;
    EXPECT_TRUE(text.loadFromFile("/proc/self/stat"));
    EXPECT_FALSE(text.empty());
}

TEST_F(StringFile, MissingFileAndFolderLeaveTheTextAsItWas) {
    String text = "old";
    EXPECT_FALSE(text.loadFromFile((folder / "missing").c_str()));
    EXPECT_FALSE(text.loadFromFile(folder.path().c_str()));
    EXPECT_FALSE(text.loadFromFile((folder / "missing/file").c_str()));
    EXPECT_FALSE(text.loadFromFile(nullptr));
    EXPECT_FALSE(text.loadFromFile(""));
    EXPECT_EQ(text, "old");
}

TEST_F(StringFile, WhatNeverEndsIsGivenUp) {
    String text = "old";
    EXPECT_FALSE(text.loadFromFile("/dev/zero"));
    EXPECT_EQ(text, "old");
}

TEST_F(StringFile, FileThatCannotBeReadLeavesTheTextAsItWas) {
    String text = "old";
    EXPECT_FALSE(text.loadFromFile("/proc/self/mem"));
    EXPECT_EQ(text, "old");
}

TEST_F(StringFile, SavesExactlyItsBytes) {
    const std::string content("a\r\n\0\xFF", 5);
    EXPECT_TRUE(String(content).saveToFile(path.c_str()));
    EXPECT_EQ(contentOf(path), content);
    EXPECT_EQ(entries(), 1U);
}

TEST_F(StringFile, ReplacesALongerFile) {
    put(path, std::string(100000, 'x'));
    EXPECT_TRUE(String("short").saveToFile(path.c_str()));
    EXPECT_EQ(contentOf(path), "short");
}

TEST_F(StringFile, KeepsTheModeOfTheFileItReplaces) {
    put(path, "old");
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    EXPECT_TRUE(String("new").saveToFile(path.c_str()));
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(StringFile, NewFileTakesTheUsersMask) {
    const mode_t before = ::umask(027);
    EXPECT_TRUE(String("new").saveToFile(path.c_str()));
    ::umask(before);
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(StringFile, WritesThroughASymbolicLink) {
    const std::string target = folder / "target";
    put(target, "old");
    fs::create_symlink(target, path);
    EXPECT_TRUE(String("new").saveToFile(path.c_str()));
    EXPECT_TRUE(fs::is_symlink(path));
    EXPECT_EQ(contentOf(target), "new");
}

TEST_F(StringFile, KeepsBothNamesOfAHardLinkedFile) {
    put(path, "old");
    fs::create_hard_link(path, folder / "other");
    EXPECT_TRUE(String("new").saveToFile(path.c_str()));
    EXPECT_EQ(contentOf(folder / "other"), "new");
}

TEST_F(StringFile, FailsForAFolderAndAMissingFolder) {
    EXPECT_FALSE(String("x").saveToFile(folder.path().c_str()));
    EXPECT_FALSE(String("x").saveToFile((folder / "missing/page.html").c_str()));
    EXPECT_FALSE(String("x").saveToFile(nullptr));
    EXPECT_FALSE(String("x").saveToFile(""));
    EXPECT_EQ(entries(), 0U);
}

TEST_F(StringFile, FailsWhereThereIsNoSpace) {
    EXPECT_FALSE(String(std::string(100000, 'x')).saveToFile("/dev/full"));
}

TEST_F(StringFile, DoubledSeparatorIsAccepted) {
    EXPECT_TRUE(String("x").saveToFile((folder.path() + "//page.html").c_str()));
    EXPECT_EQ(contentOf(path), "x");
}

TEST_F(StringFile, WriteFileTakesBytesAndNothing) {
    EXPECT_TRUE(File::writeFile(path.c_str(), ConstByteSpan(std::string_view("a\0b", 3))));
    EXPECT_EQ(contentOf(path), std::string("a\0b", 3));
    EXPECT_TRUE(File::writeFile(path.c_str(), nullptr));
    EXPECT_EQ(contentOf(path), "");
    EXPECT_FALSE(File::writeFile((folder / "no/such").c_str(), nullptr));
}

}  // namespace
}  // namespace qel
