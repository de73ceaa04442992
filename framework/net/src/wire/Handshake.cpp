#include "wire/Handshake.h"

#include <algorithm>

namespace qel {
namespace {

constexpr std::string_view magic = "QELN";

std::string versionText(unsigned oldest, unsigned newest) {
    return oldest == newest ? std::to_string(newest)
                            : std::to_string(oldest) + " to " + std::to_string(newest);
}

bool checkFrameBytes(std::uint32_t bytes, std::string& error) {
    if (bytes >= largestHandshakeFrame)
        return true;
    error = "the other end accepts frames of " + std::to_string(bytes) + " bytes only; at least " +
            std::to_string(largestHandshakeFrame) + " are expected";
    return false;
}

}  // namespace

void Hello::write(std::string& out) const {
    FrameWriter(out, FrameKind::hello)
        .bytes(magic)
        .u16(oldestVersion)
        .u16(newestVersion)
        .u32(frameBytes)
        .u32(valueBytes)
        .u32(idleSeconds)
        .finish();
}

bool Hello::read(ConstByteSpan payload, std::string& error) {
    PayloadReader reader(payload);
    if (reader.bytes(magic.size()).view() != magic) {
        error = "the first frame of the other end is no hello of this protocol";
        return false;
    }
    oldestVersion = reader.u16();
    newestVersion = reader.u16();
    frameBytes = reader.u32();
    valueBytes = reader.u32();
    idleSeconds = reader.u32();
    if (!reader.ok()) {
        error = "the hello of the other end is cut short";
        return false;
    }
    return true;
}

std::uint16_t Hello::chooseVersion(std::string& error) const {
    const std::uint16_t newest = std::min(newestVersion, newestProtocolVersion);
    if (oldestVersion <= newest && newest >= oldestProtocolVersion)
        return checkFrameBytes(frameBytes, error) ? newest : std::uint16_t{0};
    error = "protocol version " + versionText(oldestVersion, newestVersion) +
            " is not spoken here; expected version " +
            versionText(oldestProtocolVersion, newestProtocolVersion);
    return 0;
}

void Welcome::write(std::string& out) const {
    FrameWriter(out, FrameKind::welcome)
        .u16(version)
        .u32(frameBytes)
        .u32(valueBytes)
        .u32(idleSeconds)
        .finish();
}

bool Welcome::read(ConstByteSpan payload, std::string& error) {
    PayloadReader reader(payload);
    version = reader.u16();
    frameBytes = reader.u32();
    valueBytes = reader.u32();
    idleSeconds = reader.u32();
    if (!reader.ok()) {
        error = "the welcome of the other end is cut short";
        return false;
    }
    if (version < oldestProtocolVersion || version > newestProtocolVersion) {
        error = "the other end chose protocol version " + std::to_string(version) + "; expected version " +
                versionText(oldestProtocolVersion, newestProtocolVersion);
        return false;
    }
    return checkFrameBytes(frameBytes, error);
}

void Open::write(std::string& out) const {
    FrameWriter(out, FrameKind::open)
        .u32(channel)
        .u16(static_cast<std::uint16_t>(sessionType))
        .u16(static_cast<std::uint16_t>(service.size()))
        .bytes(service)
        .finish();
}

bool Open::read(ConstByteSpan payload, std::string& error) {
    PayloadReader reader(payload);
    channel = reader.u32();
    sessionType = static_cast<short>(reader.u16());
    const std::size_t length = reader.u16();
    service = std::string(reader.bytes(length).view());
    if (reader.ok() && length <= longestServiceName)
        return true;
    error = "a malformed wish to open a session arrived";
    return false;
}

}  // namespace qel
