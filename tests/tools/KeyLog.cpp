// Preloaded into a program, writes the secrets of its TLS connections into the file QEL_KEY_LOG, in the form that tshark
// reads. The programs themselves have no such thing.
#include <dlfcn.h>
#include <openssl/ssl.h>

#include <cstdio>
#include <cstdlib>

namespace {

void writeLine(const SSL*, const char* line) {
    const char* const file = std::getenv("QEL_KEY_LOG");
    std::FILE* const out = file ? std::fopen(file, "a") : nullptr;
    if (out == nullptr)
        return;
    std::fprintf(out, "%s\n", line);
    std::fclose(out);
}

}  // namespace

extern "C" SSL_CTX* SSL_CTX_new(const SSL_METHOD* method) {
    using Make = SSL_CTX* (*)(const SSL_METHOD*);
    const auto make = reinterpret_cast<Make>(::dlsym(RTLD_NEXT, "SSL_CTX_new"));
    SSL_CTX* const context = make ? make(method) : nullptr;
    if (context != nullptr)
        SSL_CTX_set_keylog_callback(context, writeLine);
    return context;
}
