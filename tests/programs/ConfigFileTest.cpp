#include "common/ConfigFile.h"

#include <gtest/gtest.h>

#include "common/Failure.h"
#include "common/Folders.h"
#include "support/TemporaryFolder.h"

namespace qel::programs {
namespace {

class ConfigFileTest : public testing::Test {
  protected:
    /// The sentence that reading `text` as the daemon's configuration ends with, without the folder.
    std::string faultOf(const std::string& text) {
        const std::string file = folder_.write("c.toml", text);
        DaemonConfig config;
        try {
            readConfig(file, config);
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.code(), exitConfiguration);
            const std::string sentence = failure.what();
            EXPECT_EQ(sentence.rfind(folder_.path() + '/', 0), 0u) << sentence;
            return sentence.substr(folder_.path().size() + 1);
        }
        return "read without a fault";
    }

    test::TemporaryFolder folder_;
};

TEST_F(ConfigFileTest, SampleOfTheDaemonIsWhatTheProgramPrintsForItsDefaults) {
    EXPECT_EQ(readTextFile(QEL_SOURCE_DIR "/packaging/qel-auditd.toml"), printConfig(DaemonConfig(), true));
}

TEST_F(ConfigFileTest, SampleOfTheWorkstationIsWhatTheProgramPrintsForItsDefaults) {
    EXPECT_EQ(readTextFile(QEL_SOURCE_DIR "/packaging/qel-audit.toml"),
              printConfig(WorkstationConfig(), true));
}

TEST_F(ConfigFileTest, EmptyFileMeansDefaults) {
    DaemonConfig config;
    readConfig(folder_.write("c.toml", ""), config);
    EXPECT_EQ(printConfig(config, false), printConfig(DaemonConfig(), false));
}

TEST_F(ConfigFileTest, PrintedConfigurationReadsBackToTheSameValues) {
    DaemonConfig config;
    config.listen = "[::1]:0";
    config.name = "a \"quoted\" back\\slash \u00e4";
    config.audit = {"site/audit", "trail", true};
    config.auditors = {"anna", "paul'o"};
    config.transferDirectory = "line\nbreak\ttab\x7f";
    config.idleSeconds = 7;
    config.metricsListen = "127.0.0.1:9100";
    const std::string printed = printConfig(config, true);
    DaemonConfig again;
    readConfig(folder_.write("c.toml", printed), again);
    EXPECT_EQ(printConfig(again, true), printed);
    EXPECT_EQ(again.name, config.name);
    EXPECT_EQ(again.auditors, config.auditors);
    EXPECT_EQ(again.transferDirectory, config.transferDirectory);
    EXPECT_TRUE(again.audit.anonymous);
}

TEST_F(ConfigFileTest, UnknownKeyIsRefusedWithTheNearestOne) {
    EXPECT_EQ(faultOf("[service]\nlissten = \"a:1\"\n"),
              "c.toml:2: [service] lissten = 'a:1': unknown key, expected perhaps service.listen");
}

TEST_F(ConfigFileTest, UnknownSectionIsRefused) {
    EXPECT_EQ(faultOf("[servise]\nlisten = \"a:1\"\n"),
              "c.toml:1: [servise]: unknown section, expected perhaps service");
    EXPECT_EQ(faultOf("flavour = 1\n"), "c.toml:1: flavour = 1: unknown key");
}

TEST_F(ConfigFileTest, WrongTypeNamesFileLineKeyValueAndWhatWasExpected) {
    EXPECT_EQ(faultOf("[limits]\n\nconnections = \"many\"\n"),
              "c.toml:3: [limits] connections = 'many': expected a whole number from 1 to 1000000");
    EXPECT_EQ(faultOf("[limits]\nconnections = 1.5\n"),
              "c.toml:2: [limits] connections = 1.5: expected a whole number from 1 to 1000000");
    EXPECT_EQ(faultOf("[limits]\nidle_seconds = 0\n"),
              "c.toml:2: [limits] idle_seconds = 0: expected a whole number from 1 to 86400");
    EXPECT_EQ(faultOf("[logs.audit]\nanonymous = 1\n"),
              "c.toml:2: [logs.audit] anonymous = 1: expected true or false");
    EXPECT_EQ(faultOf("[access]\nauditors = [\"anna\", 3]\n"),
              "c.toml:2: [access] auditors = 3: expected an array of texts");
    EXPECT_EQ(faultOf("[store]\nurl = 4\n"), "c.toml:2: [store] url = 4: expected a text in double quotes");
}

TEST_F(ConfigFileTest, EndpointNeedsHostAndPort) {
    for (const char* wrong : {"7443", ":7443", "host:", "host:65536", "::1:7443", "host:7 443", "a b:1"})
        EXPECT_NE(
            faultOf(std::string("[service]\nlisten = \"") + wrong + "\"\n").find("expected \"HOST:PORT\""),
            std::string::npos)
            << wrong;
    EXPECT_EQ(faultOf("[service]\nlisten = \"[::1]:0\"\n"), "read without a fault");
}

TEST_F(ConfigFileTest, ValueWhereASectionBelongsIsRefused) {
    EXPECT_EQ(faultOf("logs = 3\n"), "c.toml:1: logs = 3: expected a section [logs]");
}

TEST_F(ConfigFileTest, BrokenTomlNamesTheLine) {
    EXPECT_EQ(faultOf("[service]\nlisten = \n").rfind("c.toml:2: ", 0), 0u);
}

TEST_F(ConfigFileTest, MissingFileAndFolderAreMissingInput) {
    for (const std::string& file : {folder_ / "nowhere.toml", folder_.path()}) {
        DaemonConfig config;
        try {
            readConfig(file, config);
            ADD_FAILURE() << file << " was read";
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.code(), exitInputMissing);
            EXPECT_NE(std::string(failure.what()).find(file + ": "), std::string::npos);
        }
    }
}

TEST_F(ConfigFileTest, FileWithoutAnEndIsRefused) {
    DaemonConfig config;
    try {
        readConfig("/dev/zero", config);
        FAIL() << "a device was read as a configuration";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code(), exitBadData);
        EXPECT_STREQ(failure.what(), "/dev/zero: is larger than 64 MiB");
    }
}

TEST_F(ConfigFileTest, AddressIsOneTextOrAnArray) {
    WorkstationConfig config;
    readConfig(folder_.write("c.toml", "[server]\naddress = \"a:1\"\n"), config);
    EXPECT_EQ(config.addresses, std::vector<std::string>{"a:1"});
    readConfig(folder_.write("c.toml", "[server]\naddress = [\"a:1\", \"b:2\"]\n"), config);
    EXPECT_EQ(config.addresses, (std::vector<std::string>{"a:1", "b:2"}));
}

TEST_F(ConfigFileTest, RelativePathsBelongToTheConfigurationsFolder) {
    WorkstationConfig config;
    readConfig(folder_.write("c.toml", "[tls]\nkey = \"/etc/key\"\n"), config);
    EXPECT_EQ(config.resolve(config.tls.certificate), folder_ / "workstation.crt");
    EXPECT_EQ(config.resolve(config.tls.key), "/etc/key");
    EXPECT_EQ(config.resolve(""), "");
    EXPECT_EQ(config.resolveUrl(config.storeUrl), "lmdb:" + (folder_ / "queue"));
    EXPECT_EQ(config.resolveUrl("postgresql://db/logs"), "postgresql://db/logs");
}

TEST_F(ConfigFileTest, CommentsOfTheSamplesNeverLookLikeAKey) {
    for (const std::string& text :
         {printConfig(DaemonConfig(), true), printConfig(WorkstationConfig(), true)}) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            if (line.empty() || line.front() != '#')
                continue;
            const std::size_t word = line.find_first_not_of("# ");
            const std::size_t end = line.find(' ', word);
            EXPECT_TRUE(end == std::string::npos || line.compare(end, 2, " =") != 0) << line;
        }
    }
}

}  // namespace
}  // namespace qel::programs
