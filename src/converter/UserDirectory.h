#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "converter/Numbering.h"
#include "qelCore/List.h"
#include "qelCore/String.h"

namespace qel {

/// Asks the host for the groups of a user.
using GroupLookup = std::function<List<String>(const String&)>;

/// The users and groups of one report, numbered, with the groups of every user. The host is asked once per
/// name, when the name is met first, whether or not its line counts anywhere. Names are slices of the log.
class UserDirectory {
  public:
    /// The User field of a line.
    struct User {
        std::uint32_t user;  ///< number of the field's text
        std::uint32_t name;  ///< number of the name under which reports count it
        bool isWeblink;      ///< that name is "Weblink"
    };

    explicit UserDirectory(GroupLookup lookup);

    /// The user of a line, met now or before.
    User meet(std::string_view userField);

    std::string_view name(std::uint32_t name) const { return names_.text(name); }
    std::uint32_t nameCount() const { return names_.count(); }

    /// The groups of a user, each once, in the host's order; empty when there is none.
    const std::vector<std::uint32_t>& groupsOf(std::uint32_t name) const { return groupsOfName_[name]; }
    std::string_view group(std::uint32_t group) const { return groups_.text(group); }
    std::uint32_t groupCount() const { return groups_.count(); }
    /// The group under which users without one are shown.
    std::uint32_t noGroup() { return groups_.numberOf("No group"); }

  private:
    std::uint32_t meetName(std::string_view name);
    std::vector<std::uint32_t> askForGroups(std::string_view name);

    GroupLookup lookup_;
    TextNumbers users_;
    TextNumbers names_;
    TextNumbers groups_;
    std::vector<User> known_;
    std::vector<std::vector<std::uint32_t>> groupsOfName_;
};

}  // namespace qel
