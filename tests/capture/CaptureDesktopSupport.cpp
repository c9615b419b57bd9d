#include "CaptureDesktopSupport.h"

#include <QTest>

namespace velnora::test {

bool spinUntil(const std::function<bool()>& condition, int timeoutMs)
{
    return QTest::qWaitFor(condition, timeoutMs);
}

void spinFor(int milliseconds)
{
    QTest::qWait(milliseconds);
}

std::optional<QByteArray> runTool(const QString& program, const QStringList& arguments,
                                  const QByteArray& input)
{
    QProcess process;
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!spinUntil([&] { return process.state() == QProcess::NotRunning; }, 5000)) {
        process.kill();
        process.waitForFinished(1000);
        return std::nullopt;
    }
    if (process.error() != QProcess::UnknownError || process.exitCode() != 0) {
        return std::nullopt;
    }
    return process.readAllStandardOutput();
}

BackgroundTool::BackgroundTool(const QString& program, const QStringList& arguments, const QByteArray& input)
{
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(program, arguments);
    m_process.waitForStarted(5000);
    m_process.write(input);
    m_process.closeWriteChannel();
}

BackgroundTool::~BackgroundTool()
{
    m_process.kill();
    m_process.waitForFinished(3000);
}

TestClient::TestClient(const QStringList& arguments, bool accessible)
    : BackgroundTool(QStringLiteral(CAPTURE_TEST_CLIENT),
                     arguments + (accessible ? QStringList{"--accessible"} : QStringList()), {})
{}

QString BackgroundTool::readyLine()
{
    spinUntil([this] { return m_process.canReadLine() || m_process.state() == QProcess::NotRunning; }, 10000);
    return m_process.canReadLine() ? QString::fromUtf8(m_process.readLine()).trimmed() : QString();
}

QStringList BackgroundTool::printedLines()
{
    QStringList lines;
    while (m_process.canReadLine()) {
        lines.append(QString::fromUtf8(m_process.readLine()).trimmed());
    }
    return lines;
}

bool BackgroundTool::finished(int timeoutMs)
{
    return spinUntil([this] { return m_process.state() == QProcess::NotRunning; }, timeoutMs);
}

} // namespace velnora::test
