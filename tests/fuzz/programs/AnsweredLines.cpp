// Any item as the answer to the remote call for lines, printed as text and as JSON Lines: whatever it holds, each JSON
// line is one, with the members that are documented.

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "audit/LineText.h"
#include "auditing/AuditExport.h"
#include "common/Failure.h"
#include "fuzz/Check.h"
#include "qelCore/logging/Log.h"

using namespace qel;
using namespace qel::programs;

namespace {

void checkJson(ConstByteSpan line) {
    std::string text;
    appendJsonLine(text, line);
    fuzz::check(std::count(text.begin(), text.end(), '\n') == 1 && text.ends_with('\n'), "one line");
    const nlohmann::json parsed = nlohmann::json::parse(text, nullptr, false);
    fuzz::check(parsed.is_object() && parsed.size() == 6, "a JSON object of six members");
    for (const char* const name : {"time", "origin", "user", "device", "event", "params"})
        fuzz::check(parsed.contains(name), "the documented members");
}

void checkText(ConstByteSpan line) {
    Item item;
    item.setPlain(line);
    std::string text;
    AuditExport::appendCsvLine(text, item);
    fuzz::check(text.ends_with('\n') && std::count(text.begin(), text.end(), ';') >= 11, "a whole CSV line");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    logging::setSink(nullptr);
    Item answer;
    answer.setPlain(data, size);
    try {
        forEachLine(answer, [](ConstByteSpan line) {
            checkJson(line);
            checkText(line);
        });
    } catch (const Failure& failure) {
        fuzz::check(failure.code() == exitBadData, "an answer that is none is bad data");
    }
    return 0;
}
