#pragma once

#include <string>
#include <unordered_map>

#include "qelCore/List.h"
#include "qelCore/String.h"

namespace qel::programs {

/// Tells which groups a user belongs to. One thread.
class UserGroups {
  public:
    virtual ~UserGroups() = default;
    virtual List<String> groupsOf(const std::string& user) = 0;
};

/// The groups of a text file in memory: one user per line, `user;group1;group2;…`, line ends LF or CR LF. Blank
/// lines and empty groups are skipped; of several lines about one user the first counts.
class FileGroups : public UserGroups {
  public:
    explicit FileGroups(const std::string& text);
    List<String> groupsOf(const std::string& user) override;

  private:
    void readLine(std::string_view line);

    std::unordered_map<std::string, List<String>> groups_;
};

/// The groups that the operating system's name service gives a user; none for a user it does not know.
class SystemGroups : public UserGroups {
  public:
    List<String> groupsOf(const std::string& user) override;
};

}  // namespace qel::programs
