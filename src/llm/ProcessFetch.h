#pragma once

#include "llm/NetworkFetch.h"

#include <QByteArray>
#include <QObject>
#include <QPointer>

class QProcess;

namespace velnora {

// The parent's side of a request run by a fetch worker process (FetchWorker): the same contract as
// NetworkFetch, so a transport can use either. Deletes itself once it has ended.
class ProcessFetch : public QObject
{
    Q_OBJECT
public:
    // `program` is an executable that runs FetchWorker when given its flag (this one: /proc/self/exe).
    static QPointer<ProcessFetch> start(const QString& program, const PreparedRequest& request,
                                        NetworkFetch::BodyHandler onBody,
                                        NetworkFetch::Completion onComplete);
    std::optional<int> status() const { return m_status; }
    // Ends the exchange at once (the worker is killed), without a completion.
    void abandon();

private:
    ProcessFetch(NetworkFetch::BodyHandler onBody, NetworkFetch::Completion onComplete);
    void launch(const QString& program, const PreparedRequest& request);
    void readFrames();
    void onWorkerEnded();
    void complete(NetworkFetch::Outcome outcome);

    NetworkFetch::BodyHandler m_onBody;
    NetworkFetch::Completion m_onComplete;
    QPointer<QProcess> m_worker;
    QByteArray m_pending; // worker output not yet a whole frame
    QByteArray m_body;
    std::optional<int> m_status;
    bool m_ended = false;
};

} // namespace velnora
