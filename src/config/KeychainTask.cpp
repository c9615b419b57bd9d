#include "config/KeychainTask.h"

#include <QFutureWatcher>
#include <QPromise>
#include <memory>
#include <thread>

namespace velnora::KeychainTask {

void start(QObject* context, const KeychainStore& store, Work work,
           std::function<void(const KeychainReply&)> done)
{
    auto promise = std::make_shared<QPromise<KeychainReply>>();
    auto* watcher = new QFutureWatcher<KeychainReply>(context);
    QObject::connect(watcher, &QFutureWatcherBase::finished, context, [watcher, done = std::move(done)] {
        watcher->deleteLater();
        if (watcher->future().resultCount() > 0) {
            done(watcher->future().result());
        }
    });
    watcher->setFuture(promise->future());
    promise->start();
    QThreadPool::globalInstance()->start(
        [promise, worker = store.detached(), work = std::move(work)]() mutable {
            KeychainReply reply;
            try {
                reply = work(worker);
            } catch (const KeychainError& error) {
                reply.error = error;
            }
            promise->addResult(reply);
            promise->finish();
        });
}

} // namespace velnora::KeychainTask
