// Any bytes behind the handshake, to a service and to a client: whatever they are, the connection stands or ends with a
// reason, and every session that was made is released. The first byte chooses who gets the rest.

#include <cstdint>
#include <string>

#include "fuzz/Check.h"
#include "qelCore/logging/Log.h"
#include "qelNet/MemoryTransport.h"
#include "support/EchoService.h"

using namespace qel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    logging::setSink(nullptr);
    if (size < 1)
        return 0;
    const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    test::EchoService service;
    {
        MemoryTransport transport({&service});
        Client client(transport.getPeer(), "echo");
        // cppcheck-suppress unreadVariable ; it is there to receive
        const test::EchoQuery query(&client);
        transport.deliver();
        if (data[0] % 2 == 0)
            transport.injectToService(bytes);
        else
            transport.injectToClient(bytes);
        transport.deliver();
        const bool ended = !transport.getServiceReason().empty() || !transport.getClientReason().empty();
        fuzz::check(transport.isConnected() || ended, "a connection that is over says why");
    }
    fuzz::check(service.attached == service.released, "every session is released");
    return 0;
}
