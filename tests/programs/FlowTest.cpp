#include <unistd.h>

#include "SiteFixture.h"
#include "common/Folders.h"

namespace qel::programs {
namespace {

class FlowTest : public SiteFixture {
  protected:
    /// The lines of an exported log without its header.
    std::vector<std::string> exported(const std::string& log) {
        const std::string file = folder_ / (log + ".csv");
        const test::ProgramResult result = exportLog(log, file);
        EXPECT_EQ(result.code, 0) << result.err;
        std::istringstream text(readTextFile(file));
        std::vector<std::string> lines;
        std::string line;
        std::getline(text, line);
        EXPECT_EQ(line, "Time;User;Device;Event;Param0;Param1;Param2;Param3;Param4;Param5;Param6;Param7");
        while (std::getline(text, line))
            lines.push_back(line);
        return lines;
    }
};

TEST_F(FlowTest, EventTravelsFromTheQueueIntoTheExportUnderItsOwnTimeAndNames) {
    serve();
    record("anna", "{\"time\":\"2026-03-01T08:00:00+01:00\",\"event\":[\"SeriesOpened\",\"1.2.3\",7,true]}\n",
           "interaction", true);
    record("anna", "{\"time\":\"2026-03-01T08:00:01+01:00\",\"event\":[\"DataAccess\",\"1.2\",\"1.2.3\"]}\n",
           "audit", true);
    const test::ProgramResult result = forward("anna");
    ASSERT_EQ(result.code, 0) << result.err << daemon_->err();
    EXPECT_EQ(audit({"queue", "--config", config("anna"), "--json"}).out.rfind("{\"count\":0,", 0), 0u);
    EXPECT_EQ(stop().code, 0);
    EXPECT_EQ(exported("interaction"),
              std::vector<std::string>{"03/01/2026 08:00:00;anna;ws-01;SeriesOpened;1.2.3;7;1;;;;;"});
    EXPECT_EQ(exported("audit").front(), "03/01/2026 08:00:01;anna;ws-01;DataAccess;1.2;1.2.3;;;;;;");
}

TEST_F(FlowTest, ExportOfALogInUseLeavesATraceInTheAuditTrail) {
    serve();
    record("anna", "[\"A\"]\n");
    ASSERT_EQ(forward("anna").code, 0);
    EXPECT_EQ(exported("interaction").size(), 1u);
    const std::vector<std::string> trail = exported("audit");
    ASSERT_EQ(trail.size(), 1u);
    EXPECT_NE(trail.front().find(";AuditLogUsed;export;interaction;"), std::string::npos) << trail.front();
    EXPECT_EQ(exported("audit").size(), 2u);
}

TEST_F(FlowTest, ExportCountsLineBreaksInsideValuesAndTellsWhatShiftsColumns) {
    serve();
    record("anna", "[\"A\",\"one\\ntwo\\nthree\",\"x;y\"]\n[\"B\",\"plain\"]\n");
    ASSERT_EQ(forward("anna").code, 0);
    const std::string file = folder_ / "odd.csv";
    const test::ProgramResult result =
        audit({"export", "--store", "lmdb:" + site() + "/store", "--log", "interaction", "--from", "2020",
               "--to", "2099", "--out", file, "--json"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out.rfind("{\"events\":2,\"lines\":5,", 0), 0u) << result.out;
    EXPECT_NE(result.out.find("\"shiftingValues\":2,"), std::string::npos) << result.out;
    EXPECT_NE(result.err.find("2 values hold \";\" or line breaks"), std::string::npos) << result.err;
    EXPECT_FALSE(std::filesystem::exists(file + ".part"));
}

TEST_F(FlowTest, ExportReplacesAnOlderFileWholeAndWritesIntoADevice) {
    serve();
    record("anna", "[\"A\"]\n");
    ASSERT_EQ(forward("anna").code, 0);
    const std::string file = folder_.write("old.csv", std::string(100000, 'x'));
    EXPECT_EQ(exportLog("interaction", file).code, 0);
    EXPECT_LT(readTextFile(file).size(), 300u);
    EXPECT_EQ(exportLog("interaction", "/dev/null").code, 0);
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
    const test::ProgramResult full = exportLog("interaction", "/dev/full");
    EXPECT_EQ(full.code, 74);
    EXPECT_NE(full.err.find("/dev/full: No space left on device"), std::string::npos) << full.err;
}

TEST_F(FlowTest, ExportToAFullDiskSaysSoAndLeavesTheOlderFile) {
    serve();
    std::string events;
    for (int i = 0; i < 2000; ++i)
        events += "[\"A\"]\n";
    record("anna", events);
    ASSERT_EQ(forward("anna").code, 0);
    // A disk of 64 KiB that only the program sees.
    const std::string disk = folder_ / "disk";
    std::filesystem::create_directory(disk);
    std::vector<std::string> command{"/usr/bin/unshare", "--mount"};
    if (geteuid() != 0)
        command.emplace_back("--map-root-user");
    command.insert(command.end(),
                   {"/bin/sh", "-c",
                    "mount -t tmpfs -o size=64k none \"$0\" && echo older > \"$0/log.csv\" && \"$@\"; "
                    "code=$?; cat \"$0/log.csv\"; ls -A \"$0\"; exit $code",
                    disk, QEL_PROGRAMS_DIR "/qel-audit", "export", "--store", "lmdb:" + site() + "/store",
                    "--log", "interaction", "--from", "2020", "--to", "2099", "--out", disk + "/log.csv"});
    const test::ProgramResult full = test::run(command);
    EXPECT_EQ(full.code, 74);
    EXPECT_EQ(full.out, "older\nlog.csv\n");
    EXPECT_NE(full.err.find(disk + "/log.csv: could not be written to its end; the export failed"),
              std::string::npos)
        << full.err;
}

TEST_F(FlowTest, SeveralIdentitiesKeepTheirEventsApart) {
    serve();
    record("anna", "{\"time\":\"2026-03-01T08:00:00Z\",\"event\":[\"A\"]}\n", "interaction", true);
    record("paul", "{\"time\":\"2026-03-01T08:00:00Z\",\"event\":[\"A\"]}\n", "interaction", true);
    ASSERT_EQ(forward("anna").code, 0);
    ASSERT_EQ(forward("paul").code, 0);
    const std::vector<std::string> lines = exported("interaction");
    EXPECT_EQ(lines.size(), 2u);
    EXPECT_NE(lines.front(), lines.back());
}

TEST_F(FlowTest, AnonymousLogHoldsNoName) {
    edit(site() + "/qel-auditd.toml",
         "path = \"interaction\"\n# Name of the service that receives it\nservice = "
         "\"interaction\"\n# Keep a pseudonym in place of the names of user and device\n"
         "anonymous = false",
         "path = \"interaction\"\nservice = \"interaction\"\nanonymous = true");
    serve();
    record("anna", "[\"A\"]\n[\"B\"]\n");
    ASSERT_EQ(forward("anna").code, 0);
    const std::vector<std::string> lines = exported("interaction");
    ASSERT_EQ(lines.size(), 2u);
    for (const std::string& line : lines) {
        EXPECT_EQ(line.find("anna"), std::string::npos) << line;
        EXPECT_NE(line.find(";***;"), std::string::npos) << line;
    }
}

TEST_F(FlowTest, ForwardWithoutAServiceSaysSoAndKeepsTheEvents) {
    record("anna", "[\"A\"]\n");
    port_ = "1";
    const test::ProgramResult result = forward("anna");
    EXPECT_EQ(result.code, 69);
    EXPECT_NE(result.err.find("the rest waits"), std::string::npos) << result.err;
    EXPECT_EQ(audit({"queue", "--config", config("anna"), "--json"}).out.rfind("{\"count\":1,", 0), 0u);
}

TEST_F(FlowTest, EventsThatWereTooLargeTravelWhenTheServiceTakesThem) {
    edit(site() + "/qel-auditd.toml", "\nvalue_bytes = 61440\n", "\nvalue_bytes = 256\n");
    serve();
    record("anna", "[\"A\"]\n[\"Large\",\"" + std::string(300, 'x') + "\"]\n[\"B\"]\n");
    const test::ProgramResult parked = forward("anna");
    EXPECT_EQ(parked.code, 0) << parked.err;
    EXPECT_NE(parked.err.find("1 too large and 0 damaged events were kept aside"), std::string::npos)
        << parked.err;
    stop();
    EXPECT_EQ(exported("interaction").size(), 2u);
    edit(config("anna"), "localhost:" + port_, "localhost:7443");
    edit(site() + "/qel-auditd.toml", "\nvalue_bytes = 256\n", "\nvalue_bytes = 61440\n");
    serve();
    const test::ProgramResult returned =
        audit({"queue", "--config", config("anna"), "--return-parked", "--json"});
    EXPECT_EQ(returned.out.rfind("{\"returned\":1,\"count\":1,", 0), 0u) << returned.out << returned.err;
    EXPECT_EQ(forward("anna").code, 0);
    stop();
    const std::vector<std::string> lines = exported("interaction");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[1].find(";Large;" + std::string(300, 'x') + ";"), std::string::npos) << lines[1];
}

TEST_F(FlowTest, ForwardOfAnEmptyQueueNeedsNoService) {
    EXPECT_EQ(audit({"forward", "--config", config("anna"), "--once"}).code, 0);
}

TEST_F(FlowTest, AgentForwardsWhatIsRecordedWhileItRuns) {
    serve();
    edit(config("anna"), "address = \"localhost:7443\"", "address = \"localhost:" + port_ + '"');
    test::Program agent({QEL_PROGRAMS_DIR "/qel-audit", "forward", "--config", config("anna")});
    ASSERT_TRUE(agent.waitFor("connected to ")) << agent.err();
    record("anna", "[\"A\"]\n[\"B\"]\n");
    std::string queue;
    for (int i = 0; i < 1200 && queue.rfind("{\"count\":0,", 0) != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        queue = audit({"queue", "--config", config("anna"), "--json"}).out;
    }
    EXPECT_EQ(queue.rfind("{\"count\":0,", 0), 0u) << queue;
    EXPECT_EQ(audit({"forward", "--config", config("anna"), "--once"}).code, 75) << "the agent has the queue";
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.wait().code, 0);
    EXPECT_EQ(exported("interaction").size(), 2u);
}

TEST_F(FlowTest, ReloadKeepsConnectionsAndBadConfigurationsChangeNothing) {
    config("anna");
    serve();
    daemon_->signal(SIGHUP);
    EXPECT_TRUE(daemon_->waitFor("reloaded certificates")) << daemon_->err();
    edit(site() + "/qel-auditd.toml", "auditors = []", "auditors = 3");
    daemon_->signal(SIGHUP);
    EXPECT_TRUE(daemon_->waitFor("not reloaded: ")) << daemon_->err();
    record("anna", "[\"A\"]\n");
    EXPECT_EQ(forward("anna").code, 0);
}

TEST_F(FlowTest, StoreOfAnotherSiteKeyIsRefused) {
    serve();
    ASSERT_EQ(stop().code, 0);
    const std::string key = site() + "/site.key";
    std::filesystem::remove(key);
    std::ofstream(key) << std::string(64, 'a') << '\n';
    std::filesystem::permissions(key, std::filesystem::perms(0600));
    const test::ProgramResult result =
        test::run({QEL_PROGRAMS_DIR "/qel-auditd", "--config", site() + "/qel-auditd.toml"});
    EXPECT_EQ(result.code, 78);
    EXPECT_NE(result.err.find("[identity] site_key"), std::string::npos) << result.err;
}

TEST_F(FlowTest, DaemonRefusesConfigurationsThatCannotWork) {
    const std::string file = site() + "/qel-auditd.toml";
    const std::string good = readTextFile(file);
    const auto codeWith = [&](const std::string& from, const std::string& to) {
        replaceFile(file, good);
        edit(file, from, to);
        return test::run({QEL_PROGRAMS_DIR "/qel-auditd", "--config", file}).code;
    };
    EXPECT_EQ(codeWith("path = \"interaction\"", "path = \"audit\""), 78);
    EXPECT_EQ(codeWith("service = \"interaction\"", "service = \"audit\""), 78);
    EXPECT_EQ(codeWith("path = \"interaction\"", "path = \"a//b\""), 78);
    EXPECT_EQ(codeWith("frame_bytes = 1048576", "frame_bytes = 61440"), 78);
    EXPECT_EQ(codeWith("certificate = \"server.crt\"", "certificate = \"no.crt\""), 78);
    EXPECT_EQ(codeWith("listen = ", "listne = "), 78);
    std::filesystem::permissions(site() + "/site.key", std::filesystem::perms(0640));
    EXPECT_EQ(codeWith("", ""), 78);
    EXPECT_EQ(test::run({QEL_PROGRAMS_DIR "/qel-auditd", "--config", folder_ / "no.toml"}).code, 66);
}

TEST_F(FlowTest, CheckPrintsTheEffectiveConfiguration) {
    const std::string file = folder_.write("d.toml", "[service]\nname = \"x\"\n");
    const test::ProgramResult result =
        test::run({QEL_PROGRAMS_DIR "/qel-auditd", "--config", file, "--check"});
    EXPECT_EQ(result.code, 0);
    EXPECT_NE(result.out.find("name = \"x\"\n"), std::string::npos);
    EXPECT_NE(result.out.find("[limits]\nconnections = "), std::string::npos);
}

TEST_F(FlowTest, ExportToAPlaceThatCannotBeWrittenReadsNothing) {
    serve();
    ASSERT_EQ(stop().code, 0);
    EXPECT_EQ(exportLog("audit", folder_.path()).code, 73);
    EXPECT_EQ(exportLog("audit", site() + "/site.key/x.csv").code, 73);
    EXPECT_TRUE(exported("audit").empty()) << "refused exports must not be recorded as uses";
    EXPECT_EQ(audit({"export", "--store", "lmdb:" + (folder_ / "nowhere"), "--log", "audit", "--from", "2026",
                     "--to", "2026", "--out", folder_ / "x"})
                  .code,
              66);
    EXPECT_EQ(audit({"export", "--store", "nowhere", "--log", "audit", "--from", "2026", "--to", "2026",
                     "--out", folder_ / "x"})
                  .code,
              64);
}

TEST_F(FlowTest, QueueIsNoCentralLog) {
    record("anna", "[\"A\"]\n");
    EXPECT_EQ(audit({"export", "--store", "lmdb:" + workstation("anna") + "/queue", "--log", "audit",
                     "--from", "2026", "--to", "2026", "--out", folder_ / "x"})
                  .code,
              78);
}

}  // namespace
}  // namespace qel::programs
