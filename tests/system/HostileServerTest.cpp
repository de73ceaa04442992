#include "qelCore/ItemStore.h"
#include "qelCore/PacketScheme.h"
#include "qelCore/String.h"
#include "qelNet/Service.h"
#include "rpc/RpcPackets.h"
#include "rpc/Sha256.h"
#include "system/AuditorFixture.h"

namespace qel {
namespace {

namespace fs = std::filesystem;
using test::ProcessResult;
using test::TemporaryFolder;

/// What a server that cannot be trusted sends in answer to a call.
struct Malice {
    /// Targets and sizes that it announces; "HONEST" stands for what the client asked for.
    std::vector<std::pair<std::string, long long>> announced;
    /// Pieces of data of the first file.
    std::vector<std::string> pieces;
    bool wrongDigest = false;
    bool answersAtOnce = false;
    int resultPieces = 0;
};

class HostileSession : public Session {
    QEL_CLASS(HostileSession, Session)

    explicit HostileSession(const Malice& malice) : malice_(malice) {}

    bool packetReceived(Packet* packet) override {
        if (!packet->fit(rpc::callScheme))
            return true;
        call_ = packet->singleGet<long long>("call");
        const Item content = rpc::contentOf(*packet);
        Item::Iterator elements(content);
        String name;
        Item arguments;
        String folder;
        elements.decodeElementAsString(name);
        elements.decodeElementAsItem(arguments);
        arguments.decodeElementAsString(folder);
        attack(folder.str());
        return true;
    }

  private:
    void attack(const std::string& folder) {
        announce(folder);
        long long offset = 0;
        rpc::Sha256 digest;
        for (const std::string& piece : malice_.pieces) {
            sendData(rpc::fileDataScheme, offset, piece);
            offset += static_cast<long long>(piece.size());
            digest.add(piece.data(), piece.size());
        }
        if (malice_.wrongDigest)
            digest.add("!", 1);
        if (!malice_.announced.empty())
            sendEndOfFile(offset, digest.finish());
        for (int i = 0; i < malice_.resultPieces; ++i)
            sendData(rpc::resultDataScheme, i * 100000LL, std::string(100000, 'r'));
        if (malice_.answersAtOnce)
            sendResultEnd();
    }
    void announce(const std::string& folder) {
        if (malice_.announced.empty())
            return;
        Item list;
        for (const auto& [target, size] : malice_.announced) {
            Item entry;
            entry.addString(target == "HONEST" ? folder + "/audit_export.csv" : target);
            entry.addInteger(size);
            list.addItem(entry);
        }
        const Ref<Packet> packet = rpc::makePacket(rpc::transferBeginScheme, call_);
        packet->setItem("content", list);
        sendPacket(packet.get());
    }
    void sendData(PacketScheme* scheme, long long offset, const std::string& bytes) {
        const Ref<Packet> packet = rpc::makePacket(scheme, call_);
        packet->singleSet<long long>("offset", offset);
        Item content;
        content.addBytes(bytes.data(), bytes.size());
        packet->setItem("content", content);
        sendPacket(packet.get());
    }
    void sendEndOfFile(long long size, const std::string& digest) {
        const Ref<Packet> packet = rpc::makePacket(rpc::fileEndScheme, call_);
        packet->singleSet<long long>("size", size);
        Item content;
        content.addBytes(digest.data(), digest.size());
        packet->setItem("content", content);
        sendPacket(packet.get());
    }
    void sendResultEnd() {
        const Ref<Packet> packet = rpc::makePacket(rpc::resultEndScheme, call_);
        rpc::setText(*packet, "");
        sendPacket(packet.get());
    }

    const Malice malice_;
    long long call_ = 0;
};

class HostileFactory : public Service::SessionFactoryBase {
  public:
    explicit HostileFactory(Malice malice) : malice_(std::move(malice)) {}
    Session* createSession() override { return new HostileSession(malice_); }

  private:
    const Malice malice_;
};

class HostileServerTest : public AuditorTest {
  protected:
    /// Lets the real command ask a server of the site that has turned against it.
    ProcessResult ask(const Malice& malice, const std::vector<std::string>& command) {
        Service service("calls");
        auto* const factory = new HostileFactory(malice);
        service.registerSessionFactory(rpcSessionType, factory);
        factory->decreaseReferenceCount();
        const std::string& folder = site.siteFolder();
        std::string error;
        const auto credentials = Credentials::load({folder + "/server.crt", folder + "/server.key",
                                                    folder + "/authority.crt", "", folder + "/site.key"},
                                                   error);
        EXPECT_TRUE(credentials) << error;
        Network network;
        const Listening listening = network.listen("127.0.0.1:0", {&service}, credentials);
        EXPECT_TRUE(listening) << listening.error;
        test::setKey(anna.config(), "address", "\"" + listening.address + "\"");
        const ProcessResult result = site.audit(command);
        network.stop();
        return result;
    }
    ProcessResult downloadFrom(const Malice& malice) {
        return ask(malice, downloadArguments(into(), {"--log", "audit"}));
    }
    void expectRefused(const Malice& malice, const std::string& word) {
        const ProcessResult result = downloadFrom(malice);
        EXPECT_EQ(result.code, 65) << result.err;
        EXPECT_NE(result.err.find(word), std::string::npos) << result.err;
        EXPECT_EQ(entries(into()), 0U);
    }
};

TEST_F(HostileServerTest, OtherPathsAreNeverWritten) {
    for (const std::string& target : {site.folder() + "/evil.csv", std::string("../evil.csv"),
                                      into() + "/../evil.csv", into() + "/audit_export.csv/../evil.csv",
                                      into() + "/constancy_export.csv", std::string("evil.csv")})
        expectRefused({{{target, 4}}, {"evil"}}, "not asked for");
    expectRefused({{{"HONEST", 4}, {site.folder() + "/evil.csv", 4}}, {"evil"}}, "asked for");
    expectRefused({{{"HONEST", 4}, {"HONEST", 4}}, {"evil"}}, "");
    EXPECT_FALSE(fs::exists(site.folder() + "/evil.csv"));
    EXPECT_FALSE(fs::exists("evil.csv"));
}

TEST_F(HostileServerTest, MoreOrLessThanAnnouncedIsRefused) {
    expectRefused({{{"HONEST", 4}}, {"evil", "more"}}, "more");
    expectRefused({{{"HONEST", 4}}, {"evil and more"}}, "more");
    expectRefused({{{"HONEST", 9}}, {"evil"}}, "after 4 of 9 bytes");
    expectRefused({{{"HONEST", -1}}, {"evil"}}, "");
}

TEST_F(HostileServerTest, AWrongDigestIsRefused) {
    Malice malice{{{"HONEST", 4}}, {"evil"}};
    malice.wrongDigest = true;
    expectRefused(malice, "SHA-256");
}

TEST_F(HostileServerTest, DataWithoutAnAnnouncementIsRefused) {
    expectRefused({{}, {"evil"}}, "out of turn");
}

TEST_F(HostileServerTest, SuccessWithoutFilesIsNone) {
    Malice malice;
    malice.answersAtOnce = true;
    const ProcessResult result = downloadFrom(malice);
    EXPECT_EQ(result.code, 75) << result.err;
    EXPECT_EQ(entries(into()), 0U);
}

TEST_F(HostileServerTest, AHeaderlessFileIsNotCalledAnExport) {
    Malice malice{{{"HONEST", 4}}, {"evil"}};
    malice.answersAtOnce = true;
    const ProcessResult result = downloadFrom(malice);
    EXPECT_NE(result.code, 0) << result.err;
}

TEST_F(HostileServerTest, AResultThatIsNoLinesIsRefused) {
    Malice malice;
    malice.resultPieces = 3;
    malice.answersAtOnce = true;
    const ProcessResult result = ask(
        malice, {"lines", "--config", anna.config(), "--from", "1990", "--to", "1999", "--format", "jsonl"});
    EXPECT_EQ(result.code, 65) << result.err;
    EXPECT_EQ(result.out, "");
}

}  // namespace
}  // namespace qel
