// libFuzzer target for the native-messaging host's input: the frames the browser sends (a 32-bit length in
// native byte order, then JSON). Every frame is read and handled as the host does, answers included, with
// the request queue in a scratch folder. Nothing may crash, reading must end, and no frame may remove a
// file outside the queue (a request id is part of a file name).
#include "bridge/NativeMessagingHost.h"
#include "bridge/RequestStore.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace velnora;

namespace {

struct Scratch
{
    QTemporaryDir folder{QDir::tempPath() + QStringLiteral("/fuzz_native_frames-XXXXXX")};
    RequestStore store{folder.path() + QStringLiteral("/data")};
    int output = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
};

Scratch& scratch()
{
    static Scratch instance;
    return instance;
}

// Files a frame must never reach: beside the queue, above it, and a record-like name outside it.
const char* const sentinels[] = {"data/sentinel.json", "sentinel.json",
                                 "data/PendingRequests/../outside.json"};

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    static int argc = 1;
    static char name[] = "fuzz_native_frames";
    static char* argv[] = {name, nullptr};
    new QCoreApplication(argc, argv); // answers are queued to the event loop
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Scratch& s = scratch();
    s.store.ensureDirectories();
    const QDir root(s.folder.path());
    for (const char* sentinel : sentinels) {
        QFile file(root.filePath(QLatin1String(sentinel)));
        if (!file.exists() && (!file.open(QIODevice::WriteOnly) || file.write("{}") != 2)) {
            std::abort();
        }
    }

    const int input = memfd_create("frames", MFD_CLOEXEC);
    if (input < 0 || ::write(input, data, size) != ssize_t(size) || ::lseek(input, 0, SEEK_SET) != 0) {
        std::abort();
    }
    {
        NativeMessagingHost host(s.store, input, s.output);
        int frames = 0;
        while (const std::optional<QJsonObject> message = host.readMessage()) {
            host.handleIncoming(*message);
            if (++frames > int(size / 4)) {
                std::abort(); // each frame takes at least its four length bytes: reading must end
            }
        }
        QCoreApplication::processEvents();
    }
    ::close(input);

    for (const char* sentinel : sentinels) {
        if (!QFile::exists(root.filePath(QLatin1String(sentinel)))) {
            std::abort(); // a frame removed a file outside the queue
        }
    }
    return 0;
}
