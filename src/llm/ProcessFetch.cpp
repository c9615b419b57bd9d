#include "llm/ProcessFetch.h"

#include "llm/FetchWorker.h"
#include "llm/NetworkSupport.h"

#include <QCoreApplication>
#include <QProcess>

namespace velnora {

namespace {

NetworkError workerFailure(const QString& what)
{
    NetworkError error;
    error.code = QNetworkReply::UnknownNetworkError;
    error.systemMessage = what;
    return error;
}

} // namespace

QPointer<ProcessFetch> ProcessFetch::start(const QString& program, const PreparedRequest& request,
                                           NetworkFetch::BodyHandler onBody,
                                           NetworkFetch::Completion onComplete)
{
    QPointer<ProcessFetch> fetch = new ProcessFetch(std::move(onBody), std::move(onComplete));
    fetch->launch(program, request);
    return fetch;
}

ProcessFetch::ProcessFetch(NetworkFetch::BodyHandler onBody, NetworkFetch::Completion onComplete)
    : m_onBody(std::move(onBody)), m_onComplete(std::move(onComplete))
{}

void ProcessFetch::launch(const QString& program, const PreparedRequest& request)
{
    m_worker = new QProcess(this);
    m_worker->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    connect(m_worker, &QProcess::readyReadStandardOutput, this, &ProcessFetch::readFrames);
    connect(m_worker, &QProcess::finished, this, &ProcessFetch::onWorkerEnded);
    connect(m_worker, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) {
            complete(NetworkFetch::Outcome::failed(workerFailure(QStringLiteral("联网子进程无法启动"))));
        }
    });
    m_worker->start(program, {QString::fromLatin1(FetchWorker::flag)});
    // Written once the process runs; the input stays open: closing it, or our death, ends the worker.
    m_worker->write(FetchWorker::encodeRequest(request));
}

void ProcessFetch::readFrames()
{
    if (!m_worker) {
        return;
    }
    m_pending += m_worker->readAllStandardOutput();
    while (!m_ended) {
        bool broken = false;
        const std::optional<QByteArray> payload =
            FetchWorker::takeFrame(m_pending, NetworkSupport::bodyLimit + 4096, &broken);
        const std::optional<FetchWorker::Frame> frame =
            payload ? FetchWorker::decodeFrame(*payload) : std::nullopt;
        if (broken || (payload && !frame)) {
            complete(
                NetworkFetch::Outcome::failed(workerFailure(QStringLiteral("联网子进程的输出无法识别"))));
            return;
        }
        if (!frame) {
            return; // the rest of the frame is still on its way
        }
        if (frame->status) {
            m_status = frame->status;
        }
        if (frame->kind == FetchWorker::Frame::Kind::end) {
            if (frame->failure) {
                complete(NetworkFetch::Outcome::failed(*frame->failure));
            } else {
                complete(NetworkFetch::Outcome::success(NetworkFetch::Response{m_status, m_body}));
            }
            return;
        }
        m_body += frame->bytes;
        if (m_onBody && !m_onBody(frame->bytes, frame->last)) {
            abandon();
            return;
        }
    }
}

void ProcessFetch::onWorkerEnded()
{
    readFrames(); // what it wrote before exiting still counts
    if (!m_ended) {
        complete(NetworkFetch::Outcome::failed(workerFailure(QStringLiteral("联网子进程意外退出"))));
    }
}

void ProcessFetch::complete(NetworkFetch::Outcome outcome)
{
    if (m_ended) {
        return;
    }
    const NetworkFetch::Completion completion = std::move(m_onComplete);
    abandon();
    if (completion) {
        completion(outcome);
    }
}

void ProcessFetch::abandon()
{
    if (m_ended) {
        return;
    }
    m_ended = true;
    m_body = QByteArray();
    m_pending = QByteArray();
    if (QProcess* worker = m_worker) {
        worker->disconnect(this);
        // Reaped when it has gone, so that abandoning never waits on it; the application takes what
        // is still running when it quits.
        worker->setParent(QCoreApplication::instance());
        if (worker->state() == QProcess::NotRunning) {
            worker->deleteLater();
        } else {
            connect(worker, &QProcess::finished, worker, &QObject::deleteLater);
            worker->kill();
        }
        m_worker = nullptr;
    }
    deleteLater();
}

} // namespace velnora
