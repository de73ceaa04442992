#include "audit/UserGroups.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <vector>

namespace qel::programs {

FileGroups::FileGroups(const std::string& text) {
    constexpr std::string_view byteOrderMark = "\xef\xbb\xbf";
    std::string_view left = text;
    if (left.starts_with(byteOrderMark))
        left.remove_prefix(byteOrderMark.size());
    while (!left.empty()) {
        const std::size_t length = std::min(left.find('\n'), left.size());
        std::string_view line = left.substr(0, length);
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        if (!line.empty())
            readLine(line);
        left.remove_prefix(std::min(length + 1, left.size()));
    }
}

void FileGroups::readLine(std::string_view line) {
    const Vector<String> fields = String(line).split(';');
    const auto [entry, isNew] = groups_.try_emplace(fields[0].str());
    if (!isNew)
        return;
    for (std::size_t i = 1; i < fields.size(); ++i)
        if (!fields[i].empty())
            entry->second.push_back(fields[i]);
}

List<String> FileGroups::groupsOf(const std::string& user) {
    const auto found = groups_.find(user);
    return found == groups_.end() ? List<String>() : found->second;
}

namespace {

/// Calls one of the name service's functions that take a buffer, with a larger one as long as it asks for it.
template <class Call>
bool withBuffer(const Call& call) {
    constexpr std::size_t largest = 1 << 20;
    for (std::vector<char> buffer(1024);; buffer.resize(buffer.size() * 2)) {
        const int error = call(buffer);
        if (error != ERANGE || buffer.size() >= largest)
            return error == 0;
    }
}

std::string nameOfGroup(gid_t group) {
    std::string name;
    withBuffer([&](std::vector<char>& buffer) {
        struct group entry {};
        struct group* found = nullptr;
        const int error = ::getgrgid_r(group, &entry, buffer.data(), buffer.size(), &found);
        if (error == 0 && found != nullptr)
            name = found->gr_name;
        return error;
    });
    return name;
}

bool firstGroupOf(const std::string& user, gid_t& group) {
    bool isKnown = false;
    const bool answered = withBuffer([&](std::vector<char>& buffer) {
        struct passwd entry {};
        struct passwd* found = nullptr;
        const int error = ::getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found);
        isKnown = error == 0 && found != nullptr;
        if (isKnown)
            group = found->pw_gid;
        return error;
    });
    return answered && isKnown;
}

}  // namespace

List<String> SystemGroups::groupsOf(const std::string& user) {
    List<String> names;
    gid_t first = 0;
    if (user.empty() || !firstGroupOf(user, first))
        return names;
    std::vector<gid_t> groups(16);
    int count = static_cast<int>(groups.size());
    while (::getgrouplist(user.c_str(), first, groups.data(), &count) < 0) {
        groups.resize(std::max(groups.size() * 2, static_cast<std::size_t>(std::max(count, 0))));
        count = static_cast<int>(groups.size());
    }
    for (int i = 0; i < count; ++i)
        if (const std::string name = nameOfGroup(groups[static_cast<std::size_t>(i)]); !name.empty())
            names.push_back(name);
    return names;
}

}  // namespace qel::programs
