#pragma once

#include "config/ResolvedProviderConfiguration.h"
#include "support/LoopbackHttpServer.h"
#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>
#include <optional>

namespace velnora::test {

inline QByteArray captureBytes(const QString& name)
{
    QFile file(sourceDir() + QStringLiteral("/tests/data/wire-captures/") + name);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << name.toStdString();
    return file.readAll();
}

// A recorded service body and what the rules make of it.
struct CaptureExpectation
{
    QString name;
    ProviderWireProtocol protocol;
    QString text;
    QStringList errors; // the error event's message, if the stream ends in one
};

inline QList<CaptureExpectation> captureExpectations()
{
    const QJsonObject all = QJsonDocument::fromJson(captureBytes(QStringLiteral("rule-texts.json"))).object();
    QList<CaptureExpectation> list;
    for (auto it = all.begin(); it != all.end(); ++it) {
        const QJsonObject entry = it.value().toObject();
        list.append(
            {it.key(), *fromRawValue<ProviderWireProtocol>(entry.value("protocol").toString()),
             entry.value("text").toString(),
             entry.value("error").isString() ? QStringList{entry.value("error").toString()} : QStringList()});
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

// velnora --api-stream-self-test's standard output followed by its exit code, run directly or inside
// `wrapper`.
inline QString selfTest(const QStringList& arguments, QStringList wrapper = {})
{
    wrapper << velnoraBinary() << QStringLiteral("--api-stream-self-test") << arguments;
    const QString program = wrapper.takeFirst();
    const ProgramRun run = runProgram(program, wrapper);
    return run.out + QString::number(run.exitCode);
}

// A loopback server that the developer's proxy variables cannot divert requests from.
class LoopbackTest : public ::testing::Test
{
protected:
    LoopbackTest()
    {
        for (const char* name : {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY", "all_proxy",
                                 "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
            m_environment.unset(name);
        }
    }

    EnvironmentGuard m_environment;
    LoopbackHttpServer m_server;
};

} // namespace velnora::test
