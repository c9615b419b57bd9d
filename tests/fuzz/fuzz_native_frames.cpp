// libFuzzer target for the native-messaging host's input: the frames the browser sends (a 32-bit length in
// native byte order, then JSON). Every frame is read and handled as the host does, answers included, with
// the request queue in a scratch folder. Nothing may crash, reading must end, and no frame may remove a
// file outside the queue (a request id is part of a file name).
#include "FuzzInput.h"
#include "bridge/NativeMessagingHost.h"
#include "bridge/RequestStore.h"

#include <QCoreApplication>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace velnora;

// Files a frame must never reach: beside the queue, above it, and a record-like name outside it.
static const char* const sentinels[] = {"data/sentinel.json", "sentinel.json",
                                        "data/PendingRequests/../outside.json"};

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    startApplication<QCoreApplication>(); // answers are queued to the event loop
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QDir root = scratchFolder();
    static RequestStore store(root.filePath(QStringLiteral("data")));
    static const int output = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    store.ensureDirectories();
    for (const char* sentinel : sentinels) {
        if (!root.exists(QLatin1String(sentinel))) {
            writeScratchFile(root.filePath(QLatin1String(sentinel)), "{}");
        }
    }

    const int input = memfd_create("frames", MFD_CLOEXEC);
    if (input < 0 || ::write(input, data, size) != ssize_t(size) || ::lseek(input, 0, SEEK_SET) != 0) {
        std::abort();
    }
    {
        NativeMessagingHost host(store, input, output);
        int frames = 0;
        while (const std::optional<QJsonObject> message = host.readMessage()) {
            host.handleIncoming(*message);
            // Each frame takes at least its four length bytes.
            if (++frames > int(size / 4)) {
                fuzzFault("reading does not end");
            }
        }
        QCoreApplication::processEvents();
    }
    ::close(input);
    for (const char* sentinel : sentinels) {
        if (!root.exists(QLatin1String(sentinel))) {
            fuzzFault("a frame removed a file outside the queue");
        }
    }
    return 0;
}
