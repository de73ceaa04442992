#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/Program.h"
#include "support/TemporaryFolder.h"

namespace qel::programs {

/// A site in a temporary folder with the real programs: make, enroll, serve, and call qel-audit.
class SiteFixture : public testing::Test {
  protected:
    void SetUp() override {
        const test::ProgramResult made = audit({"init", site(), "--server", "localhost"});
        ASSERT_EQ(made.code, 0) << made.err;
        edit(site() + "/qel-auditd.toml", "listen = \"0.0.0.0:7443\"", "listen = \"127.0.0.1:0\"");
    }
    void TearDown() override { stop(); }

    std::string site() const { return folder_ / "site"; }
    /// Folder of an identity, enrolled at the first use.
    std::string workstation(const std::string& user, const std::string& device = "ws-01") {
        const std::string out = folder_ / (user + '@' + device);
        if (!std::filesystem::exists(out)) {
            const test::ProgramResult made =
                audit({"enroll", site(), "--user", user, "--device", device, "--out", out});
            EXPECT_EQ(made.code, 0) << made.err;
        }
        return out;
    }
    std::string config(const std::string& user) { return workstation(user) + "/qel-audit.toml"; }

    static test::ProgramResult audit(std::vector<std::string> arguments, const std::string& input = {}) {
        arguments.insert(arguments.begin(), QEL_PROGRAMS_DIR "/qel-audit");
        return test::run(arguments, input);
    }

    test::ProgramResult record(const std::string& user, const std::string& lines,
                               const std::string& log = "interaction", bool replay = false) {
        std::vector<std::string> arguments{"record", "--config", config(user), "--log", log, "--from", "-"};
        if (replay)
            arguments.push_back("--replay");
        return audit(arguments, lines);
    }

    /// Starts the daemon and points the enrolled workstations' configurations at its port.
    void serve() {
        daemon_ = std::make_unique<test::Program>(std::vector<std::string>{
            QEL_PROGRAMS_DIR "/qel-auditd", "--config", site() + "/qel-auditd.toml"});
        ASSERT_TRUE(daemon_->waitFor("listening on ")) << daemon_->err();
        ASSERT_TRUE(daemon_->waitFor("\n"));
        const std::string& text = daemon_->err();
        const std::size_t at = text.find("listening on ");
        const std::size_t end = text.find('\n', at);
        port_ = text.substr(text.rfind(':', end) + 1, end - text.rfind(':', end) - 1);
    }
    test::ProgramResult stop() {
        if (!daemon_)
            return {};
        daemon_->signal(SIGTERM);
        const test::ProgramResult result = daemon_->wait();
        daemon_.reset();
        return result;
    }

    test::ProgramResult forward(const std::string& user) {
        edit(config(user), "address = \"localhost:7443\"", "address = \"localhost:" + port_ + '"');
        return audit({"forward", "--config", config(user), "--once"});
    }
    test::ProgramResult exportLog(const std::string& log, const std::string& out) {
        return audit({"export", "--store", "lmdb:" + site() + "/store", "--log", log, "--from", "2020",
                      "--to", "2099", "--out", out});
    }

    static void edit(const std::string& file, const std::string& from, const std::string& to) {
        std::string text = test::TemporaryFolder::read(file);
        const std::size_t at = text.find(from);
        if (at == std::string::npos)
            return;
        text.replace(at, from.size(), to);
        std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
    }

    test::TemporaryFolder folder_;
    std::unique_ptr<test::Program> daemon_;
    std::string port_;
};

}  // namespace qel::programs
