// Any packets as what a service says of a remote call: the call ends once or goes on waiting, no file but the one asked
// for is ever made, and a file that is there at the end is whole.

#include <cstdint>
#include <filesystem>
#include <string>

#include "fuzz/Check.h"
#include "fuzz/Recipe.h"
#include "qelCore/logging/Log.h"
#include "rpc/ClientCall.h"
#include "rpc/RpcPackets.h"
#include "rpc/Sha256.h"
#include "support/TemporaryFolder.h"

using namespace qel;

namespace {

constexpr long long callNumber = 1;

void setNumbers(Packet& packet, fuzz::Recipe& recipe) {
    // Names that the packet's scheme does not have are passed over.
    for (const char* const name : {"file", "offset", "size", "code", "seconds", "bytes"})
        packet.singleSet<long long>(name, recipe.byte() % 8 == 7 ? recipe.number() : recipe.byte() % 16);
}

Item contentFor(PacketScheme* scheme, fuzz::Recipe& recipe, const std::string& target) {
    Item content;
    const std::uint8_t form = recipe.byte() % 4;
    if (form == 3) {
        content.setPlain(ConstByteSpan(recipe.text()));
    } else if (scheme == rpc::transferBeginScheme) {
        for (int files = form; files > 0; --files) {
            Item file;
            file.addString(recipe.byte() % 4 == 0 ? std::string(recipe.text()) : target);
            file.addInteger(recipe.byte() % 8 == 7 ? recipe.number() : recipe.byte() % 16);
            content.addItem(file);
        }
    } else if (scheme == rpc::fileEndScheme && form == 0) {
        const std::string digest = rpc::Sha256().finish();
        content.addBytes(digest.data(), digest.size());
    } else if (form == 1) {
        content.addString(recipe.text());
    } else {
        const std::string_view bytes = recipe.text();
        content.addBytes(bytes.data(), bytes.size());
    }
    return content;
}

Ref<Packet> nextPacket(fuzz::Recipe& recipe, const std::string& target) {
    PacketScheme* const schemes[] = {rpc::workingScheme, rpc::transferBeginScheme, rpc::fileDataScheme,
                                     rpc::fileEndScheme, rpc::resultDataScheme,    rpc::resultEndScheme,
                                     rpc::errorScheme,   rpc::callScheme};
    const std::uint8_t kind = recipe.byte();
    if (kind >= 0xF0)
        return Ref<Packet>::adopt(Packet::decode(ConstByteSpan(recipe.text())));
    PacketScheme* const scheme = schemes[kind % std::size(schemes)];
    const Ref<Packet> packet = rpc::makePacket(scheme, recipe.byte() % 8 == 7 ? 2 : callNumber);
    setNumbers(*packet, recipe);
    if (scheme != rpc::workingScheme)
        packet->setItem("content", contentFor(scheme, recipe, target));
    return packet;
}

std::size_t filesIn(const std::string& folder) {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        (void)entry;
        ++count;
    }
    return count;
}

void checkEnd(const RpcReply& reply, const std::string& target) {
    fuzz::check(static_cast<bool>(reply) == reply.sentence.empty(), "a failure has a sentence");
    fuzz::check(reply.result.isWellFormed(), "a result is well-formed");
    for (const RpcFile& file : reply.files) {
        fuzz::check(file.path == target, "only the file that was asked for");
        fuzz::check(std::filesystem::file_size(file.path) == file.bytes, "a file is whole");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    logging::setSink(nullptr);
    static const test::TemporaryFolder folder;
    const std::string target = folder / "report.csv";
    fuzz::Recipe recipe(data, size);
    RpcRequest request;
    request.name = "call";
    if (recipe.byte() % 2 == 0)
        request.targets = {target};
    request.largestResult = 1000;
    {
        int sent = 0;
        rpc::ClientCall call(callNumber, request, [&](const Ref<Packet>& packet) {
            fuzz::check(packet != nullptr, "what is sent is a packet");
            ++sent;
        });
        call.start();
        while (!recipe.atEnd()) {
            const Ref<Packet> packet = nextPacket(recipe, target);
            if (packet != nullptr)
                call.packetReceived(*packet);
        }
        if (call.isOver())
            checkEnd(call.takeReply(), target);
        fuzz::check(sent >= 1, "a call is sent");
        fuzz::check(filesIn(folder.path()) <= 1, "no other file is made");
    }
    std::filesystem::remove(target);
    fuzz::check(filesIn(folder.path()) == 0, "nothing unfinished is left");
    return 0;
}
