// Any text as a file of users and their groups, held against a plain reading of the same lines.

#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "audit/UserGroups.h"
#include "fuzz/Check.h"

using namespace qel;

namespace {

using Groups = std::map<std::string, std::vector<std::string>>;

Groups plainGroups(const std::string& text) {
    Groups groups;
    std::istringstream lines(text.starts_with("\xef\xbb\xbf") ? text.substr(3) : text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty())
            continue;
        std::istringstream fields(line);
        std::string user;
        std::getline(fields, user, ';');
        if (groups.count(user) != 0)
            continue;
        std::vector<std::string>& found = groups[user];
        for (std::string group; std::getline(fields, group, ';');)
            if (!group.empty())
                found.push_back(group);
    }
    return groups;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    programs::FileGroups groups(text);
    for (const auto& [user, expected] : plainGroups(text)) {
        std::vector<std::string> found;
        for (const String& group : groups.groupsOf(user))
            found.push_back(group.str());
        fuzz::check(found == expected, "a user has the groups of his first line");
    }
    fuzz::check(groups.groupsOf("nobody;at all").size() == 0, "who has no line has no groups");
    return 0;
}
