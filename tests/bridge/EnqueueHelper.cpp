// bridge_enqueue_helper COUNT: plays the application's side of the queue from a separate process,
// enqueueing COUNT requests into VELNORA_DATA_DIR as fast as it can.
#include "bridge/FileSystemError.h"
#include "bridge/RequestStore.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    const int count = argc > 1 ? std::atoi(argv[1]) : 0;
    velnora::RequestStore store;
    try {
        for (int i = 0; i < count; ++i) {
            store.enqueue(velnora::BridgeRequestType::explainText, QString::number(i));
        }
    } catch (const velnora::FileSystemError& error) {
        std::fprintf(stderr, "%s\n", error.description().toUtf8().constData());
        return 1;
    }
    return 0;
}
