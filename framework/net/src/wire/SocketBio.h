#pragma once

#include <openssl/bio.h>

namespace qel::tls {

/// A BIO on a non-blocking socket that it does not own. OpenSSL's own one writes so that a connection the other end has
/// reset would kill the process with SIGPIPE; a library must not change what the host does about that signal.
BIO* makeSocketBio(int socket);

}  // namespace qel::tls
