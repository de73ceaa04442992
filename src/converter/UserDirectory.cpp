#include "converter/UserDirectory.h"

#include <algorithm>
#include <utility>

#include "converter/LineView.h"

namespace qel {

UserDirectory::UserDirectory(GroupLookup lookup) : lookup_(std::move(lookup)) {}

UserDirectory::User UserDirectory::meet(std::string_view userField) {
    const std::uint32_t user = users_.numberOf(userField);
    if (user == known_.size()) {
        const std::string_view name = reportUserOf(userField);
        known_.push_back({user, meetName(name), name == "Weblink"});
    }
    return known_[user];
}

std::uint32_t UserDirectory::meetName(std::string_view name) {
    const std::uint32_t number = names_.numberOf(name);
    if (number == groupsOfName_.size())
        groupsOfName_.push_back(askForGroups(name));
    return number;
}

std::vector<std::uint32_t> UserDirectory::askForGroups(std::string_view name) {
    std::vector<std::uint32_t> numbers;
    for (const String& group : lookup_(String(name))) {
        const std::uint32_t number = groups_.numberOfCopy(untilZero(group.view()));
        // The once-rules of both group charts let a group count once however often the host names it.
        if (std::find(numbers.begin(), numbers.end(), number) == numbers.end())
            numbers.push_back(number);
    }
    return numbers;
}

}  // namespace qel
