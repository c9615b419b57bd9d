#include "config/KeyReadProcess.h"

#include "config/KeychainStore.h"

#include <QCoreApplication>
#include <QPointer>
#include <QProcess>
#include <cstdio>

namespace velnora::KeyReadProcess {

int run(const ProcessArguments& arguments)
{
    const QStringList& list = arguments.list();
    const qsizetype index = list.indexOf(QString::fromLatin1(flag));
    if (index < 0 || index + 2 >= list.size()) {
        std::fputs("read-api-key：用法 --read-api-key 钥匙串服务名 服务标识\n", stderr);
        return 2;
    }
    QByteArray output;
    try {
        const std::optional<QString> key = KeychainStore(list.at(index + 1)).apiKey(list.at(index + 2));
        output = key ? "found\n" + key->toUtf8() : QByteArray("none\n");
    } catch (const KeychainError& error) {
        output = "error\n" + QByteArray::number(error.status()) + '\n' + error.detail().toUtf8();
    }
    std::fwrite(output.constData(), 1, size_t(output.size()), stdout);
    return std::fflush(stdout) == 0 ? 0 : 1;
}

KeychainReply parse(const QByteArray& output)
{
    KeychainReply reply;
    const qsizetype lineEnd = output.indexOf('\n');
    const QByteArray kind = output.left(lineEnd);
    const QByteArray rest = lineEnd < 0 ? QByteArray() : output.mid(lineEnd + 1);
    if (kind == "found") {
        reply.key = QString::fromUtf8(rest);
    } else if (kind == "error") {
        const qsizetype statusEnd = rest.indexOf('\n');
        bool number = false;
        const int status = rest.left(statusEnd).toInt(&number);
        reply.error = number ? KeychainError(status, QString::fromUtf8(rest.mid(statusEnd + 1)))
                             : KeychainError(KeychainError::serviceFailed);
    } else if (kind != "none") {
        reply.error =
            KeychainError(KeychainError::serviceFailed, QStringLiteral("读取钥匙串的子进程没有给出结果"));
    }
    return reply;
}

void start(QObject* context, const QString& program, const QString& service, const QString& providerID,
           std::function<void(const KeychainReply&)> done)
{
    // Owned by the application, not the context: a child still waiting on a prompt outlives a closed
    // window and is reaped when it ends.
    auto* child = new QProcess(QCoreApplication::instance());
    child->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    const QPointer<QObject> receiver(context);
    const auto finish = [child, receiver, done = std::move(done)](const KeychainReply& reply) {
        child->disconnect();
        child->deleteLater();
        if (receiver && done) {
            done(reply);
        }
    };
    QObject::connect(child, &QProcess::finished, child,
                     [child, finish] { finish(parse(child->readAllStandardOutput())); });
    QObject::connect(child, &QProcess::errorOccurred, child, [finish](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) {
            finish(
                {false, std::nullopt,
                 KeychainError(KeychainError::serviceFailed, QStringLiteral("读取钥匙串的子进程无法启动"))});
        }
    });
    child->start(program, {QString::fromLatin1(flag), service, providerID});
}

} // namespace velnora::KeyReadProcess
