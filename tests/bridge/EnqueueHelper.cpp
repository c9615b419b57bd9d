// bridge_enqueue_helper COUNT: plays the application's side of the queue from a separate process,
// enqueueing COUNT requests into the data folder named by VELNORA_DATA_DIR as fast as it can. The ids
// are written one a line, and only at the end, so a full pipe never slows the enqueueing.
#include "bridge/FileSystemError.h"
#include "bridge/RequestStore.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    const int count = argc > 1 ? std::atoi(argv[1]) : 0;
    velnora::RequestStore store;
    QByteArray ids;
    int status = 0;
    try {
        for (int i = 0; i < count; ++i) {
            const velnora::BridgeRequest request = store.enqueue(
                velnora::BridgeRequestType::explainText, QString::number(i), QStringLiteral("doubao"));
            ids += request.id.toLatin1() + '\n';
        }
    } catch (const velnora::FileSystemError& error) {
        std::fprintf(stderr, "%s\n", error.description().toUtf8().constData());
        status = 1;
    }
    std::fwrite(ids.constData(), 1, size_t(ids.size()), stdout);
    return status;
}
