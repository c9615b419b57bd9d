#pragma once

#include "config/ProviderCatalog.h"

#include <QDeadlineTimer>
#include <QJsonObject>
#include <QObject>
#include <QTimer>

namespace velnora {

class RequestStore;

// "检测网页": asks the extension to open the chosen chat site and look, without typing or sending,
// for the input and the send control and whether the user is signed in; ends in one Chinese sentence.
// The extension answers through the host, which leaves the answer in the data folder.
class PageSelfCheck : public QObject
{
    Q_OBJECT
public:
    static constexpr int timeoutMilliseconds = 45000;
    static constexpr const char* resultFolderName = "PageChecks";

    explicit PageSelfCheck(RequestStore& store, QObject* parent = nullptr);

    // Ignored while a check runs. finished() always follows, at the latest after the timeout.
    void start(BrowserProvider provider);
    bool isRunning() const { return m_poll.isActive(); }

    static QString resultFilePath(const RequestStore& store, const QString& requestID);
    // The host's half: stores a PAGE_CHECK_RESULT message; false when it is malformed.
    static bool recordResult(const RequestStore& store, const QJsonObject& message);
    static QString sentence(BrowserProvider provider, const QJsonObject& result);
    static bool isReady(const QJsonObject& result);

Q_SIGNALS:
    // pageReady: signed in, input and send control found.
    void finished(const QString& sentence, bool pageReady);

private:
    void poll();
    void finish(const QString& sentence, bool pageReady = false);

    RequestStore& m_store;
    QTimer m_poll;
    QDeadlineTimer m_deadline;
    QString m_requestID;
    BrowserProvider m_provider = BrowserProvider::doubao;
};

} // namespace velnora
