// Any item as the arguments of the remote calls: a call is answered or left open, files are made only below the folder of
// the call, and a result can be sent.

#include <cstdint>
#include <filesystem>
#include <string>

#include "auditing/AuditExport.h"
#include "fuzz/Check.h"
#include "fuzz/SharedStore.h"
#include "qelCore/RpcProvider.h"
#include "qelCore/logging/Log.h"
#include "support/TestRpcContext.h"

using namespace qel;

namespace {

constexpr int events = 5;

void fillOnce(const Item& audit, const Item& interaction) {
    static const bool filled = [&] {
        for (long long time = 1; time <= events; ++time) {
            fuzz::sharedStore().putCentral(audit, time, 7, test::event("anna", "desk", "Login"));
            fuzz::sharedStore().putCentral(interaction, time, 7, test::event("anna", "desk", "SeriesOpened"));
        }
        return true;
    }();
    (void)filled;
}

void call(const RpcProvider& provider, const char* name, const Item& arguments) {
    const test::TestRpcContext context(name, arguments);
    provider.find(name)->handler(context);
    fuzz::check(context.files().size() <= 2, "at most two files are sent");
    const std::string folders = std::filesystem::temp_directory_path();
    for (const RpcContext::FilePair& file : context.files()) {
        fuzz::check(file.second.view().starts_with(folders), "files are made below the call's folder");
        fuzz::check(std::filesystem::exists(file.second.c_str()), "what is sent was made");
    }
    fuzz::check(context.results().size() == (context.isFinished() ? 1 : 0),
                "a call is answered once or left open");
    for (const Item& result : context.results())
        fuzz::check(result.isWellFormed(), "a result can be sent");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    logging::setSink(nullptr);
    const Item audit = test::path("audit");
    const Item interaction = test::path("interaction");
    fillOnce(audit, interaction);
    RpcProvider provider;
    AuditExport::registerRpcCalls(&provider, audit, interaction);
    Item arguments;
    arguments.setPlain(data, size);
    call(provider, "download_audit_report", arguments);
    call(provider, "get_audit_log", arguments);
    return 0;
}
