#include "wire/SocketBio.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

namespace qel::tls {
namespace {

int socketOf(BIO* bio) {
    return static_cast<int>(reinterpret_cast<std::intptr_t>(BIO_get_data(bio)));
}

bool isTemporary(int code) {
    return code == EAGAIN || code == EWOULDBLOCK || code == EINTR;
}

int writeBytes(BIO* bio, const char* data, std::size_t size, std::size_t* written) {
    BIO_clear_retry_flags(bio);
    const ssize_t count = ::send(socketOf(bio), data, size, MSG_NOSIGNAL);
    if (count < 0) {
        if (isTemporary(errno))
            BIO_set_retry_write(bio);
        return 0;
    }
    *written = static_cast<std::size_t>(count);
    return 1;
}

int readBytes(BIO* bio, char* data, std::size_t size, std::size_t* read) {
    BIO_clear_retry_flags(bio);
    const ssize_t count = ::recv(socketOf(bio), data, size, 0);
    if (count > 0) {
        *read = static_cast<std::size_t>(count);
        return 1;
    }
    if (count == 0)
        BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
    else if (isTemporary(errno))
        BIO_set_retry_read(bio);
    return 0;
}

long control(BIO* bio, int command, long, void*) {
    if (command == BIO_CTRL_FLUSH)
        return 1;
    if (command == BIO_CTRL_EOF)
        return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0;
    return 0;
}

BIO_METHOD* makeMethod() {
    BIO_METHOD* method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "quiet socket");
    BIO_meth_set_write_ex(method, writeBytes);
    BIO_meth_set_read_ex(method, readBytes);
    BIO_meth_set_ctrl(method, control);
    return method;
}

}  // namespace

BIO* makeSocketBio(int socket) {
    static BIO_METHOD* const method = makeMethod();
    BIO* bio = BIO_new(method);
    BIO_set_data(bio, reinterpret_cast<void*>(static_cast<std::intptr_t>(socket)));
    BIO_set_init(bio, 1);
    return bio;
}

}  // namespace qel::tls
