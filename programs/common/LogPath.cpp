#include "common/LogPath.h"

#include <algorithm>

#include "common/Failure.h"

namespace qel::programs {

Item logPath(const std::string& text) {
    Item path;
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t end = std::min(text.find('/', start), text.size());
        if (end == start)
            throw Failure(exitConfiguration,
                          "the log path \"" + text + "\" has an empty part, expected one like site/audit");
        path.addString(std::string_view(text).substr(start, end - start));
        start = end + 1;
    }
    return path;
}

std::shared_ptr<Credentials> loadCredentials(const ConfigBase& config, const TlsConfig& tls,
                                             const std::string& siteKey) {
    CredentialFiles files;
    files.certificate = config.resolve(tls.certificate);
    files.key = config.resolveSecret(tls.key);
    files.authority = config.resolve(tls.authority);
    files.revoked = config.resolve(tls.revoked);
    files.siteKey = config.resolveSecret(siteKey);
    std::string error;
    std::shared_ptr<Credentials> credentials = Credentials::load(files, error);
    if (!credentials)
        throw Failure(exitConfiguration, error);
    return credentials;
}

}  // namespace qel::programs
