#include "auditing/AuditCSVtoHtmlReportConverter.h"

#include <utility>

#include "converter/LogText.h"
#include "qelCore/Buffer.h"
#include "qelCore/File.h"
#include "qelCore/logging/MessageStream.h"

namespace qel {

namespace {

Vector<String> storedLines(std::string_view text) {
    Vector<String> lines;
    forEachLine(text, [&](std::string_view line) { lines.push_back(String(line)); });
    return lines;
}

struct ResourceFile {
    const char* resource;
    const char* file;
};

/// What every page loads from the folder it lies in.
constexpr ResourceFile resourceFiles[] = {
    {"tmpl-d3.min.js", "d3.min.js"},
    {"tmpl-zorvik-icon.png", "zorvik-icon.png"},
    {"tmpl-zorvik-slogan.png", "zorvik-slogan.png"},
};

}  // namespace

AuditCSVtoHtmlReportConverter::AuditCSVtoHtmlReportConverter() = default;
AuditCSVtoHtmlReportConverter::~AuditCSVtoHtmlReportConverter() = default;

void AuditCSVtoHtmlReportConverter::readLogs(const char* interactionLogPath, const char* auditLogPath) {
    String text;
    if (!text.loadFromFile(interactionLogPath)) {
        logging::MessageStream(3, 2) << "could not load csv file";
        return;
    }
    interactionLog_ = std::move(text);
    logging::MessageStream(1, 2) << "interaction log loaded from: " << interactionLogPath;
    text = String();
    if (!text.loadFromFile(auditLogPath))
        return;
    auditLog_ = std::move(text);
    logging::MessageStream(1, 2) << "audit log loaded from: " << auditLogPath;
}

void AuditCSVtoHtmlReportConverter::setLogs(String interactionLog, String auditLog) {
    interactionLog_ = std::move(interactionLog);
    auditLog_ = std::move(auditLog);
}

Vector<String> AuditCSVtoHtmlReportConverter::interactionLogLines() const {
    return storedLines(interactionLog_.view());
}

Vector<String> AuditCSVtoHtmlReportConverter::auditLogLines() const {
    return storedLines(auditLog_.view());
}

void AuditCSVtoHtmlReportConverter::getHTMLRessourceFiles(const char* targetDir) {
    for (const ResourceFile& row : resourceFiles) {
        Buffer buffer;
        if (buffer.loadFromResource(row.resource, false))
            File::writeFile((String(targetDir) + "/" + row.file).c_str(), buffer.getConstByteSpan());
        else
            logging::MessageStream(3, 2) << "required file not found: " << row.resource;
    }
}

}  // namespace qel
