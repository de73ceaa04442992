// Writes the pages of many folders: write_reports FOLDER…
//
// Each folder holds interaction.csv, audit.csv and groups.txt (user;group;group…); the pages go into its folders
// usage, details and teleradiology. It uses the library as a host does and cleans nothing.
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "auditing/AuditCSVtoHtmlReportConverter.h"
#include "qelCore/logging/Log.h"

namespace {

using Groups = std::map<std::string, qel::List<qel::String>>;

Groups readGroups(const std::string& file) {
    Groups groups;
    std::ifstream in(file, std::ios::binary);
    for (std::string line; std::getline(in, line);) {
        const qel::Vector<qel::String> fields = qel::String(line).split(';');
        groups[fields[0].str()] = qel::List<qel::String>(fields.begin() + 1, fields.end());
    }
    return groups;
}

std::string folderFor(const std::string& folder, const char* page) {
    const std::string path = folder + "/" + page;
    std::filesystem::create_directories(path);
    return path;
}

void writePages(const std::string& folder) {
    const Groups groups = readGroups(folder + "/groups.txt");
    qel::AuditCSVtoHtmlReportConverter converter;
    converter.connect([&](const qel::String& user) {
        const auto found = groups.find(user.str());
        return found == groups.end() ? qel::List<qel::String>() : found->second;
    });
    converter.readLogs((folder + "/interaction.csv").c_str(), (folder + "/audit.csv").c_str());
    converter.performUsageReport(folderFor(folder, "usage").c_str(), 0, 0, "server", false);
    converter.performUsageReport(folderFor(folder, "details").c_str(), 0, 0, "server", true);
    converter.performTeleradiologyReport(folderFor(folder, "teleradiology").c_str(), 0, 0, "server");
}

}  // namespace

int main(int count, char** arguments) {
    qel::logging::setLevel(qel::logging::levelOff);
    for (int i = 1; i < count; ++i)
        writePages(arguments[i]);
    return 0;
}
