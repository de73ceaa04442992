#include "rpc/ServerTransfer.h"

#include <algorithm>
#include <utility>

#include "rpc/RpcCore.h"
#include "rpc/RpcPackets.h"
#include "rpc/RpcSession.h"

namespace qel::rpc {

namespace {

// Read, hashed and handed to the connection in one go: large enough that the change of threads costs little, small
// enough that others of the same connection and pool have their turn.
constexpr std::size_t batchBytes = 512UL * 1024;

}  // namespace

ServerTransfer::ServerTransfer(Setup setup) : setup_(std::move(setup)), credit_(setup_.window) {}

void ServerTransfer::begin(std::unique_ptr<OutgoingFiles> files) {
    Item list;
    for (const OutgoingFiles::File& file : files->files()) {
        Item entry;
        entry.addString(file.target);
        entry.addInteger(static_cast<long long>(file.size));
        list.addItem(entry);
    }
    const Ref<Packet> packet = makePacket(transferBeginScheme, setup_.call);
    packet->setItem("content", list);
    {
        const std::lock_guard lock(mutex_);
        files_ = std::move(files);
        pumping_ = true;
    }
    setup_.link->post([packet](RpcSession& session) { session.sendPacket(packet.get()); });
    schedule();
}

void ServerTransfer::end(RpcTransfer code, const std::string& status) {
    {
        const std::lock_guard lock(mutex_);
        if (ended_)
            return;
        ended_ = true;
        code_ = code;
        status_ = status;
    }
    setup_.ended();
}

bool ServerTransfer::hasEnded(int& code, std::string& status) const {
    const std::lock_guard lock(mutex_);
    if (!ended_)
        return false;
    code = static_cast<int>(code_);
    status = status_;
    return true;
}

void ServerTransfer::credit(std::uint64_t bytes) {
    {
        const std::lock_guard lock(mutex_);
        credit_ = std::min(credit_ + std::min(bytes, setup_.window), setup_.window);
        progress_ = true;
        if (pumping_ || ended_ || allSent_ || files_ == nullptr)
            return;
        pumping_ = true;
    }
    schedule();
}

void ServerTransfer::drained() {
    {
        const std::lock_guard lock(mutex_);
        if (!blocked_)
            return;
        blocked_ = false;
    }
    schedule();
}

void ServerTransfer::outcome(int code, const std::string& status) {
    const bool known =
        code >= static_cast<int>(RpcTransfer::done) && code <= static_cast<int>(RpcTransfer::stalled);
    bool early = false;
    {
        const std::lock_guard lock(mutex_);
        early = !allSent_;
    }
    if (code == 0 && early)
        end(RpcTransfer::damaged, "the client confirmed files that it had not got yet");
    else
        end(known ? static_cast<RpcTransfer>(code) : RpcTransfer::clientCannotWrite, status);
}

bool ServerTransfer::takeProgress() {
    const std::lock_guard lock(mutex_);
    return std::exchange(progress_, false);
}

void ServerTransfer::addTo(RpcUse& use) const {
    const std::lock_guard lock(mutex_);
    use.rows += use_.rows;
    use.bytes += use_.bytes;
    use.files += use_.files;
}

void ServerTransfer::schedule() {
    setup_.core->events.submitAlways([self = shared_from_this()] { self->pump(); });
}

void ServerTransfer::pump() {
    std::vector<Ref<Packet>> packets;
    if (!fill(packets))
        return;
    setup_.link->post([self = shared_from_this(), list = std::move(packets)](RpcSession& session) {
        self->send(session, list);
    });
}

bool ServerTransfer::fill(std::vector<Ref<Packet>>& packets) {
    std::size_t room;
    {
        const std::lock_guard lock(mutex_);
        if (ended_) {
            pumping_ = false;
            return false;
        }
        room = static_cast<std::size_t>(std::min<std::uint64_t>(credit_, batchBytes));
    }
    std::uint64_t taken = 0;
    OutgoingFiles::Chunk chunk;
    while (room > 0 || !files_->needsRoom()) {
        chunk = files_->next(std::min(room, setup_.chunkBytes));
        if (chunk.kind == OutgoingFiles::Chunk::Kind::fault) {
            end(RpcTransfer::serverCannotRead, chunk.bytes);
            return false;
        }
        if (chunk.kind == OutgoingFiles::Chunk::Kind::allSent)
            break;
        if (chunk.kind == OutgoingFiles::Chunk::Kind::data) {
            room -= chunk.bytes.size();
            taken += chunk.bytes.size();
        }
        packets.push_back(packetOf(chunk));
    }
    setup_.core->counters.fileBytes += taken;
    const std::lock_guard lock(mutex_);
    credit_ -= taken;
    progress_ = progress_ || taken > 0;
    allSent_ = files_->isAtEnd();
    use_.rows = files_->sentLines();
    use_.bytes = files_->sentBytes();
    use_.files = files_->filesBegun();
    return true;
}

Ref<Packet> ServerTransfer::packetOf(const OutgoingFiles::Chunk& chunk) const {
    const bool data = chunk.kind == OutgoingFiles::Chunk::Kind::data;
    Ref<Packet> packet = makePacket(data ? fileDataScheme : fileEndScheme, setup_.call);
    packet->singleSet<long long>("file", static_cast<long long>(chunk.file));
    packet->singleSet<long long>(data ? "offset" : "size", static_cast<long long>(chunk.offset));
    Item content;
    content.addBytes(chunk.bytes.data(), chunk.bytes.size());
    packet->setItem("content", content);
    return packet;
}

void ServerTransfer::send(RpcSession& session, const std::vector<Ref<Packet>>& packets) {
    {
        const std::lock_guard lock(mutex_);
        if (ended_)
            return;
    }
    for (const Ref<Packet>& packet : packets)
        session.sendPacket(packet.get());
    {
        const std::lock_guard lock(mutex_);
        if (!session.canSend()) {
            blocked_ = true;
            return;
        }
    }
    goOn();
}

void ServerTransfer::goOn() {
    {
        const std::lock_guard lock(mutex_);
        pumping_ = !allSent_ && !ended_ && (credit_ > 0 || !files_->needsRoom());
        if (!pumping_)
            return;
    }
    schedule();
}

}  // namespace qel::rpc
