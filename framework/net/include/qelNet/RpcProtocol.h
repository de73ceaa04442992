#pragma once

#include "qelNet/Export.h"

namespace qel {

/// The session type of remote calls. Stored in programs of all versions, so for good.
constexpr short rpcSessionType = 4;

/// Why a remote call has no result. The numbers below 100 travel, those from 100 on are found out by the
/// caller's own end.
enum class RpcError : int {
    none = 0,
    notPermitted = 1,
    noSuchCall = 2,
    notAnswered = 3,     ///< the handler left the call unfinished
    resultTooLarge = 4,  ///< ask for less at a time
    transferFailed = 5,
    badRequest = 6,
    busy = 7,    ///< too many calls wait already
    failed = 8,  ///< the handler could not work

    connectionLost = 100,    ///< cut before the answer was whole
    refusedByClient = 101,   ///< the server sent what was not asked for, or not what it announced
    cannotCreateFile = 102,  ///< a target file cannot be made
    cannotWriteFile = 103,   ///< writing failed half-way
    cancelled = 104,
    noConnection = 105,  ///< no session could be opened
};

/// How a file transfer ended, as RpcContext::getFileTransferStatus gives it.
enum class RpcTransfer : int {
    done = 0,
    refused = 1,  ///< the client had not asked for such a file
    clientCannotWrite = 2,
    damaged = 3,  ///< size or digest did not match
    serverCannotRead = 4,
    connectionLost = 5,
    cancelled = 6,
    stalled = 7,  ///< no progress within the limit of a call
};

/// A short name for logs and results: "not permitted".
QELNET_EXPORT const char* describe(RpcError error);

}  // namespace qel
