#pragma once

#include "config/ResolvedProviderConfiguration.h"
#include "llm/ProviderResult.h"
#include "support/LoopbackHttpServer.h"
#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>
#include <gtest/gtest.h>
#include <optional>

// Readable failure messages for Qt strings.
inline void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}
inline void PrintTo(const QByteArray& bytes, std::ostream* out)
{
    *out << '"' << bytes.toStdString() << '"';
}

namespace velnora::test {

inline QString captureDir()
{
    return sourceDir() + QStringLiteral("/tests/data/wire-captures");
}

inline QByteArray captureBytes(const QString& name)
{
    QFile file(captureDir() + u'/' + name);
    if (!file.open(QIODevice::ReadOnly)) {
        ADD_FAILURE() << "missing capture " << name.toStdString();
        return {};
    }
    return file.readAll();
}

struct CaptureExpectation
{
    QString name;
    ProviderWireProtocol protocol;
    QString text;
    std::optional<QString> error;
};

inline QList<CaptureExpectation> captureExpectations()
{
    QFile file(captureDir() + QStringLiteral("/rule-texts.json"));
    if (!file.open(QIODevice::ReadOnly)) {
        ADD_FAILURE() << "missing rule-texts.json";
        return {};
    }
    const QJsonObject all = QJsonDocument::fromJson(file.readAll()).object();
    QList<CaptureExpectation> list;
    for (auto it = all.begin(); it != all.end(); ++it) {
        const QJsonObject entry = it.value().toObject();
        CaptureExpectation expectation{
            it.key(), *fromRawValue<ProviderWireProtocol>(entry.value("protocol").toString()),
            entry.value("text").toString(), std::nullopt};
        if (entry.value("error").isString()) {
            expectation.error = entry.value("error").toString();
        }
        list.append(expectation);
    }
    return list;
}

// Accepts every configuration: for requests to the loopback server.
inline void acceptAnyAddress(const ResolvedProviderConfiguration&) {}

inline ResolvedProviderConfiguration
loopbackProvider(const QString& id, ProviderWireProtocol protocol, const QUrl& base,
                 const QString& model = QStringLiteral("doubao-test-model"),
                 const QString& key = QStringLiteral("sk-loopback-test"))
{
    ProviderDefinition definition = ProviderDefinition::definition(id);
    definition.wireProtocol = protocol;
    return {definition, base.toString(), model, key};
}

// Records what a stream delivers, and checks that every call arrives on the main thread and that no
// delta follows the completion.
struct StreamRecorder
{
    QStringList deltas;
    std::optional<StreamResult> result;
    int completions = 0;
    bool offMainThread = false;
    bool deltaAfterCompletion = false;

    QString text() const { return deltas.join(QString()); }

    auto deltaHandler()
    {
        return [this](const QString& text) {
            offMainThread =
                offMainThread || QThread::currentThread() != QCoreApplication::instance()->thread();
            deltaAfterCompletion = deltaAfterCompletion || completions > 0;
            deltas.append(text);
        };
    }
    auto completionHandler()
    {
        return [this](const StreamResult& outcome) {
            offMainThread =
                offMainThread || QThread::currentThread() != QCoreApplication::instance()->thread();
            ++completions;
            result = outcome;
        };
    }
    bool waitForCompletion(int timeoutMs = 10000)
    {
        return waitUntil([this] { return completions > 0; }, timeoutMs);
    }
};

} // namespace velnora::test
