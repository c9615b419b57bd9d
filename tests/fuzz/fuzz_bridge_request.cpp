// libFuzzer target for the request records of the on-disk queue. A record is read back by the other
// process, possibly written by another version of it: whatever the bytes, decoding must not crash, a
// record it accepts must survive being written and read again unchanged, and the queue listing must
// read it from disk as decode reads it from memory.
#include "FuzzInput.h"
#include "bridge/BridgeRequest.h"
#include "bridge/RequestStore.h"

#include <cmath>

using namespace velnora;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes = fuzzBytes(data, size);
    const std::optional<BridgeRequest> request = BridgeRequest::decode(bytes);
    if (request && std::isfinite(request->createdAt)) {
        const std::optional<BridgeRequest> again = BridgeRequest::decode(request->encode());
        if (!again || *again != *request) {
            fuzzFault("an accepted record changes when written back");
        }
    }
    if (request) {
        // Identifiers come from the other process; checking one must never fail.
        (void)RequestStore::isValidRequestIdentifier(request->id);
        (void)RequestStore::isAtomicWriteTemporary(request->id);
    }

    static RequestStore queue(scratchFolder().path());
    queue.ensureDirectories();
    const QString path = QDir(queue.queueDirectory()).filePath(QStringLiteral("record.json"));
    writeScratchFile(path, bytes);
    const std::vector<RequestStore::Pending> pending = queue.pendingRequests();
    if (pending.size() != (request ? 1u : 0u) || (request && !(pending.front().request == *request))) {
        fuzzFault("the listing and decode disagree");
    }
    QFile::remove(path);
    return 0;
}
