#include <csignal>

#include "support/CutProxy.h"
#include "support/FaultyLine.h"
#include "system/AuditorFixture.h"

namespace qel {
namespace {

namespace fs = std::filesystem;
using test::ProcessResult;
using test::TemporaryFolder;
using test::waitFor;
using test::Workstation;

class RemoteCallsSystemTest : public AuditorTest {
  protected:
    static Item filter(long long logType, long long start, long long end) {
        Item made;
        made.addInteger(logType);
        made.addInteger(start);
        made.addInteger(end);
        return made;
    }
    static Item downloadArguments3(const std::string& folder, const Item& filterItem) {
        Item arguments;
        arguments.addString(folder);
        arguments.addItem(filterItem);
        return arguments;
    }
    static std::size_t linesIn(const Item& result) {
        Item lines;
        Item::Iterator elements(result);
        if (!elements.decodeElementAsItem(lines))
            return 0;
        std::size_t count = 0;
        for (Item::Iterator each(lines); each.skip();)
            ++count;
        return count;
    }
    std::vector<std::string> targets(const std::string& folder) const {
        return {folder + "/audit_export.csv", folder + "/constancy_export.csv"};
    }
};

TEST_F(RemoteCallsSystemTest, WithoutAThirdArgumentTheLogOfTheFilterComesAlone) {
    fill("interaction", past, 3);
    fill("audit", past, 2);
    site.startDaemon();
    fs::create_directory(into());
    CallLink link(site, anna);
    // Any log type but 0 is the interaction log.
    for (const int type : {1, 2, -1}) {
        fs::remove(into() + "/constancy_export.csv");
        const RpcReply reply =
            link.call("download_audit_report", downloadArguments3(into(), filter(type, past, past + 10)),
                      targets(into()));
        ASSERT_TRUE(reply) << reply.sentence;
        ASSERT_EQ(reply.files.size(), 1U);
        EXPECT_EQ(reply.files[0].path, into() + "/constancy_export.csv");
        EXPECT_EQ(linesOf(TemporaryFolder::read(into() + "/constancy_export.csv")).size(), 4U);
    }
    const RpcReply audit = link.call("download_audit_report",
                                     downloadArguments3(into(), filter(0, past, past + 10)), targets(into()));
    ASSERT_EQ(audit.files.size(), 1U);
    EXPECT_EQ(audit.files[0].path, into() + "/audit_export.csv");
    Item::Iterator result(audit.result);
    bool success = false;
    EXPECT_TRUE(result.decodeElementAsBool(success) && success && result.atEnd());
    EXPECT_TRUE(logs("[RPC:download_audit_report] Download of audit report finished, code=0, status="));
}

TEST_F(RemoteCallsSystemTest, BothLogsComeInTheirOrderWhateverTheLogType) {
    fill("interaction", past, 3);
    fill("audit", past, 2);
    site.startDaemon();
    fs::create_directory(into());
    CallLink link(site, anna);
    for (const int type : {0, 1}) {
        Item arguments = downloadArguments3(into(), filter(type, past, past + 10));
        arguments.addBool(true);
        const RpcReply reply = link.call("download_audit_report", arguments, targets(into()));
        ASSERT_TRUE(reply) << reply.sentence;
        ASSERT_EQ(reply.files.size(), 2U);
        EXPECT_EQ(reply.files[0].path, into() + "/audit_export.csv");
        EXPECT_EQ(reply.files[1].path, into() + "/constancy_export.csv");
    }
    EXPECT_EQ(callFolders(), 0U);
}

TEST_F(RemoteCallsSystemTest, ABadFilterIsLoggedAndTheCallEndedUnanswered) {
    test::setKey(site.config(), "call_seconds", "2");
    site.startDaemon();
    CallLink link(site, anna);
    Item two;
    two.addInteger(past);
    two.addInteger(past + 1);
    const RpcReply reply =
        link.call("download_audit_report", downloadArguments3(into(), two), targets(into()));
    EXPECT_EQ(reply.error, RpcError::notAnswered);
    EXPECT_EQ(reply.sentence.rfind("the server did not answer this call", 0), 0U) << reply.sentence;
    EXPECT_TRUE(logs("invalid parameters for audit export"));
    EXPECT_EQ(site.daemonLog().find("[RPC:download_audit_report] invalid"), std::string::npos);
    // A bad path is not even logged.
    Item number;
    number.addInteger(1);
    EXPECT_EQ(link.call("download_audit_report", number).error, RpcError::notAnswered);
}

TEST_F(RemoteCallsSystemTest, LinesTakeOnlyTheTwoLogTypes) {
    fill("interaction", past, 3);
    fill("audit", past, 2);
    site.startDaemon();
    CallLink link(site, anna);
    EXPECT_EQ(linesIn(link.call("get_audit_log", filter(1, past, past + 10)).result), 3U);
    EXPECT_EQ(linesIn(link.call("get_audit_log", filter(0, past, past + 10)).result), 2U);
    for (const int type : {2, -1}) {
        const RpcReply reply = link.call("get_audit_log", filter(type, past, past + 10));
        EXPECT_TRUE(reply) << reply.sentence;
        EXPECT_TRUE(reply.result.isEmpty());
    }
    EXPECT_TRUE(logs("[RPC:get_audit_log] invalid arguments"));
}

TEST_F(RemoteCallsSystemTest, TheEndIsInTheFileButNotInTheLines) {
    fill("interaction", past, 5);
    site.startDaemon();
    const std::string from = "1995-06-01T00:00:00Z";
    const std::string to = "1995-06-01T00:00:00.000004Z";
    const ProcessResult file = site.audit({"download", "--config", anna.config(), "--log", "interaction",
                                           "--from", from, "--to", to, "--into", into()});
    ASSERT_EQ(file.code, 0) << file.err;
    EXPECT_EQ(linesOf(TemporaryFolder::read(into() + "/constancy_export.csv")).size(), 6U);
    const ProcessResult lines = site.audit({"lines", "--config", anna.config(), "--from", from, "--to", to});
    ASSERT_EQ(lines.code, 0) << lines.err;
    EXPECT_EQ(linesOf(lines.out).size(), 5U);
}

TEST_F(RemoteCallsSystemTest, LinesAreTheDownloadedTextOrJson) {
    fill("interaction", past, 3, "1.2.840;\"quoted\"");
    site.startDaemon();
    ASSERT_EQ(download(into(), {"--log", "interaction"}).code, 0);
    const std::vector<std::string> range{"lines", "--config", anna.config(), "--from",
                                         "1990",  "--to",     "1999"};
    EXPECT_EQ(site.audit(range).out, TemporaryFolder::read(into() + "/constancy_export.csv"));
    std::vector<std::string> json = range;
    json.insert(json.end(), {"--format", "jsonl"});
    const std::vector<std::string> lines = linesOf(site.audit(json).out);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0],
              "{\"time\":\"1995-06-01T00:00:00.000000Z\",\"origin\":7,\"user\":\"carol\",\"device\":\"pc-7\","
              "\"event\":\"SeriesOpened\",\"params\":[\"1.2.840;\\\"quoted\\\"\"]}");
    EXPECT_EQ(lines[2].find("1995-06-01T00:00:00.000002Z") == std::string::npos, false);
}

TEST_F(RemoteCallsSystemTest, ManyLinesComeInSlicesAndEachOnce) {
    constexpr int count = 250000;
    fill("interaction", past, count);
    test::setKey(site.config(), "rows_per_call", "60000");
    site.startDaemon();
    const ProcessResult lines = site.audit(
        {"lines", "--config", anna.config(), "--from", "1990", "--to", "1999", "--format", "jsonl"});
    ASSERT_EQ(lines.code, 0) << lines.err;
    const std::vector<std::string> all = linesOf(lines.out);
    ASSERT_EQ(all.size(), static_cast<std::size_t>(count));
    for (std::size_t i = 1; i < all.size(); ++i)
        ASSERT_LT(all[i - 1], all[i]);
}

TEST_F(RemoteCallsSystemTest, WithoutTheRoleNothingIsReadOrWritten) {
    fill("interaction", past, 3);
    site.startDaemon();
    const Workstation mallory = site.enroll("mallory", "laptop");
    const ProcessResult file = site.audit(
        {"download", "--config", mallory.config(), "--from", "1990", "--to", "1999", "--into", into()});
    EXPECT_EQ(file.code, 77);
    EXPECT_NE(file.err.find("not permitted"), std::string::npos) << file.err;
    EXPECT_FALSE(fs::exists(into()));
    const ProcessResult lines =
        site.audit({"lines", "--config", mallory.config(), "--from", "1990", "--to", "1999"});
    EXPECT_EQ(lines.code, 77);
    EXPECT_EQ(lines.out, "");
    EXPECT_TRUE(logs("get_audit_log is not permitted to user mallory at device laptop, address 127.0.0.1:"));
    EXPECT_TRUE(traces().empty());
}

TEST_F(RemoteCallsSystemTest, AListReadAgainTakesEffectWithTheNextCall) {
    site.startDaemon();
    const Workstation dora = site.enroll("dora", "desk-2");
    const std::vector<std::string> ask{"lines", "--config", dora.config(), "--from", "1990", "--to", "1991"};
    EXPECT_EQ(site.audit(ask).code, 77);
    test::setKey(site.config(), "auditors", "[\"dora\"]");
    site.daemon().signal(SIGHUP);
    EXPECT_TRUE(waitFor([&] { return site.audit(ask).code == 0; }));
    EXPECT_EQ(download(into()).code, 77);
}

TEST_F(RemoteCallsSystemTest, EachPermittedCallLeavesItsTrace) {
    fill("interaction", past, 3);
    fill("audit", past, 2);
    site.startDaemon();
    const std::string from = "1995-06-01T00:00:00Z";
    const std::string to = "1995-06-01T00:00:01Z";
    const auto ask = [&](std::vector<std::string> command) {
        command.insert(command.end(), {"--config", anna.config(), "--from", from, "--to", to});
        return site.audit(command).code;
    };
    ASSERT_EQ(ask({"download", "--into", into()}), 0);
    ASSERT_EQ(ask({"download", "--into", into(), "--log", "audit"}), 0);
    ASSERT_EQ(ask({"lines", "--log", "interaction"}), 0);
    const std::string times = std::to_string(past) + ";" + std::to_string(past + 1000000) + ";";
    const std::vector<std::string> found = traces();
    ASSERT_EQ(found.size(), 3U);
    const auto bytes =
        fs::file_size(into() + "/constancy_export.csv") + fs::file_size(into() + "/audit_export.csv");
    EXPECT_NE(found[0].find(";anna;desk-1;AuditLogUsed;download_audit_report;both;" + times + "5;" +
                            std::to_string(bytes) + ";"),
              std::string::npos)
        << found[0];
    EXPECT_NE(found[1].find(";anna;desk-1;AuditLogUsed;download_audit_report;audit;" + times + "2;"),
              std::string::npos)
        << found[1];
    EXPECT_NE(found[2].find(";anna;desk-1;AuditLogUsed;get_audit_log;interaction;" + times + "3;"),
              std::string::npos)
        << found[2];
}

TEST_F(RemoteCallsSystemTest, AnAnonymousTrailNamesNobodyWhoReadsIt) {
    std::string text = TemporaryFolder::read(site.config());
    text.replace(text.find("anonymous = false"), 17, "anonymous = true");
    std::ofstream(site.config(), std::ios::trunc) << text;
    site.startDaemon();
    ASSERT_EQ(download(into()).code, 0);
    const std::vector<std::string> found = traces();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_NE(found[0].find(";***;AuditLogUsed;"), std::string::npos) << found[0];
    EXPECT_EQ(found[0].find("anna"), std::string::npos);
    EXPECT_EQ(found[0].find("desk-1"), std::string::npos);
}

TEST_F(RemoteCallsSystemTest, ACutAtEveryTenthLeavesNothingAndAgainWorks) {
    fill("interaction", past, 60000, std::string(150, 'x'));
    site.startDaemon();
    ASSERT_EQ(download(into("whole"), {"--log", "interaction"}).code, 0);
    const std::string whole = TemporaryFolder::read(into("whole") + "/constancy_export.csv");
    for (std::size_t tenth = 0; tenth < 10; ++tenth) {
        // Behind the handshakes of TLS and of the session, which take a few thousand bytes.
        const test::CutProxy proxy(site.port(), 20000 + whole.size() / 10 * tenth);
        test::setKey(anna.config(), "address", "\"" + proxy.address() + "\"");
        const ProcessResult cut = download(into(), {"--log", "interaction"});
        EXPECT_EQ(cut.code, 75) << tenth << ": " << cut.err;
        EXPECT_GE(proxy.cuts(), 1);
        EXPECT_EQ(entries(into()), 0U) << tenth;
        EXPECT_TRUE(waitFor([&] { return callFolders() == 0; })) << tenth;
    }
    test::setKey(anna.config(), "address", "\"" + site.address() + "\"");
    const ProcessResult again = download(into(), {"--log", "interaction"});
    ASSERT_EQ(again.code, 0) << again.err;
    EXPECT_EQ(TemporaryFolder::read(into() + "/constancy_export.csv"), whole);
    // The readings that were cut off are in the trail all the same, with what was sent.
    EXPECT_EQ(traces().size(), 12U);
}

TEST_F(RemoteCallsSystemTest, AKilledDaemonLeavesNothingAtTheClientAndSweepsAtItsStart) {
    fill("interaction", past, 200000, std::string(150, 'x'));
    site.startDaemon();
    // Slow enough to be killed in the midst of the file.
    const test::FaultyLine line(site.port(), [](int) {
        test::FaultyLine::Fault fault;
        fault.delayMilliseconds = 200;
        return fault;
    });
    test::setKey(anna.config(), "address", "\"" + line.address() + "\"");
    const auto client = site.agent(downloadArguments(into(), {"--log", "interaction"}), "client");
    ASSERT_TRUE(waitFor([&] { return entries(into()) > 0; }));
    site.killDaemon();
    EXPECT_EQ(client->wait(std::chrono::seconds(60)), 75) << client->err();
    EXPECT_EQ(entries(into()), 0U);
    EXPECT_EQ(callFolders(), 1U);
    site.startDaemon();
    EXPECT_EQ(callFolders(), 0U);
    test::setKey(anna.config(), "address", "\"" + site.address() + "\"");
    EXPECT_EQ(download(into(), {"--log", "interaction"}).code, 0);
}

TEST_F(RemoteCallsSystemTest, ADaemonThatStopsEndsItsDownloadsAndCleansUp) {
    fill("interaction", past, 200000, std::string(150, 'x'));
    site.startDaemon();
    const auto client = site.agent(downloadArguments(into(), {"--log", "interaction"}), "client");
    ASSERT_TRUE(waitFor([&] { return callFolders() > 0; }));
    EXPECT_EQ(site.stopDaemon(), 0);
    EXPECT_EQ(client->wait(std::chrono::seconds(60)), 75) << client->err();
    EXPECT_EQ(entries(into()), 0U);
    EXPECT_EQ(callFolders(), 0U);
}

TEST_F(RemoteCallsSystemTest, AnInterruptedClientLeavesNothing) {
    fill("interaction", past, 200000, std::string(150, 'x'));
    site.startDaemon();
    const auto client = site.agent(downloadArguments(into(), {"--log", "interaction"}), "client");
    ASSERT_TRUE(waitFor([&] { return callFolders() > 0; }));
    client->signal(SIGINT);
    EXPECT_EQ(client->wait(std::chrono::seconds(60)), 75) << client->err();
    EXPECT_EQ(entries(into()), 0U);
    EXPECT_TRUE(waitFor([&] { return callFolders() == 0; }));
}

TEST_F(RemoteCallsSystemTest, TwoDownloadsAndARunningIngestAllArrive) {
    fill("interaction", past, 100000, std::string(150, 'x'));
    site.startDaemon();
    const Workstation bert = site.enroll("bert", "desk-2");
    const std::string events = site.folder() + "/events.jsonl";
    {
        std::ofstream out(events);
        for (int i = 0; i < 20000; ++i)
            out << "[\"SeriesOpened\",\"1.2.840\"," << i << "]\n";
    }
    ASSERT_EQ(site.audit({"record", "--config", bert.config(), "--log", "audit", "--from", events}).code, 0);
    const auto ingest = site.agent({"forward", "--config", bert.config(), "--once"}, "ingest");
    const auto first = site.agent(downloadArguments(into("one")), "first");
    const auto second = site.agent(downloadArguments(into("two")), "second");
    EXPECT_EQ(ingest->wait(std::chrono::seconds(120)), 0) << ingest->err();
    EXPECT_EQ(first->wait(std::chrono::seconds(120)), 0) << first->err();
    EXPECT_EQ(second->wait(std::chrono::seconds(120)), 0) << second->err();
    const std::string one = TemporaryFolder::read(into("one") + "/constancy_export.csv");
    EXPECT_EQ(linesOf(one).size(), 100001U);
    EXPECT_EQ(one, TemporaryFolder::read(into("two") + "/constancy_export.csv"));
    EXPECT_EQ(callFolders(), 0U);
}

TEST_F(RemoteCallsSystemTest, ArgumentsAreCheckedBeforeAnybodyIsAsked) {
    // No daemon runs: a question would end with 69.
    EXPECT_EQ(site.audit({"download", "--config", anna.config(), "--from", "1999", "--to", "1990", "--into",
                          into()})
                  .code,
              64);
    EXPECT_EQ(site.audit({"lines", "--config", anna.config(), "--from", "1999", "--to", "1990"}).code, 64);
    std::ofstream(into()) << "a file";
    EXPECT_EQ(download(into()).code, 73);
    EXPECT_EQ(download(into("elsewhere")).code, 69);
    EXPECT_FALSE(fs::exists(into("elsewhere")));
}

}  // namespace
}  // namespace qel
