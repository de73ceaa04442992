#include "auditd/AuditGuard.h"

#include <algorithm>
#include <utility>

#include "auditing/AuditExport.h"
#include "auditing/AuditLogTools.h"
#include "common/RemoteCalls.h"
#include "qelCore/String.h"

namespace qel::programs {

namespace {

constexpr const char* group = "Auditing";

bool readFilter(Item::Iterator elements, int& logType, AskedRange& asked) {
    return elements.decodeElementAsInteger(logType) && elements.decodeElementAsInteger(asked.start) &&
           elements.decodeElementAsInteger(asked.end);
}

AskedRange readDownload(const Item& arguments) {
    AskedRange asked;
    String target;
    Item filter;
    bool both = false;
    int logType = 0;
    Item::Iterator elements(arguments);
    if (!elements.decodeElementAsString(target) || !elements.decodeElementAsItem(filter))
        return asked;
    elements.decodeElementAsBool(both);
    if (readFilter(Item::Iterator(filter), logType, asked))
        asked.log = both ? "both" : logType == 0 ? "audit" : "interaction";
    return asked;
}

AskedRange readLines(const Item& arguments) {
    AskedRange asked;
    int logType = 0;
    if (readFilter(Item::Iterator(arguments), logType, asked) && (logType == 0 || logType == 1))
        asked.log = logType == 0 ? "audit" : "interaction";
    return asked;
}

}  // namespace

AskedRange readAskedRange(const std::string& call, const Item& arguments) {
    return call == downloadCall ? readDownload(arguments)
           : call == linesCall  ? readLines(arguments)
                                : AskedRange();
}

AuditGuard::AuditGuard(Logs logs, std::vector<std::string> auditors) : logs_(std::move(logs)) {
    setAuditors(std::move(auditors));
}

void AuditGuard::setAuditors(std::vector<std::string> auditors) {
    const std::lock_guard lock(mutex_);
    auditors_ = std::set<std::string>(auditors.begin(), auditors.end());
}

bool AuditGuard::permits(const RpcCaller& caller, const RpcProvider::Call& call) {
    return call.group == statusGroup || (call.group == group && mayRead(caller.identity.user));
}

bool AuditGuard::mayRead(const std::string& user) const {
    const std::lock_guard lock(mutex_);
    return auditors_.count(user) != 0;
}

std::string AuditGuard::examine(const RpcCaller&, const RpcProvider::Call& call, const Item& arguments,
                                std::uint64_t mostRows) {
    const AskedRange asked = readAskedRange(call.name.str(), arguments);
    // Without a last microsecond before the end there is nothing to count.
    if (call.name != linesCall || asked.log.empty() || asked.end <= asked.start)
        return {};
    const Item& log = asked.log == "audit" ? logs_.auditTrail : logs_.interactionLog;
    if (AuditExport::countLines(log, asked.start, asked.end - 1, mostRows) <= mostRows)
        return {};
    return "the range holds more than the " + std::to_string(mostRows) +
           " lines of one call; ask for a shorter one";
}

void AuditGuard::used(const RpcCaller& caller, const RpcProvider::Call& call, const Item& arguments,
                      const RpcUse& use) {
    if (call.group == statusGroup)
        return;
    const AskedRange asked = readAskedRange(call.name.str(), arguments);
    // Each file begins with a header, which is no row.
    const std::uint64_t rows = use.rows - std::min(use.rows, use.files);
    Item event;
    event.addString("AuditLogUsed");
    event.addString(call.name);
    event.addString(asked.log);
    event.addInteger(asked.start);
    event.addInteger(asked.end);
    event.addInteger(static_cast<long long>(rows));
    event.addInteger(static_cast<long long>(use.bytes));
    const Identity& who = caller.identity;
    const unsigned checksum = AuditLogTools::originChecksum(who.userBlock.data(), who.deviceBlock.data());
    const Item origin =
        AuditLogTools::origin(who.user.c_str(), who.device.c_str(), checksum, logs_.anonymousTrail);
    AuditLogTools::appendCentral(logs_.auditTrail, origin, checksum, event);
}

}  // namespace qel::programs
