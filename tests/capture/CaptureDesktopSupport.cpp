#include "CaptureDesktopSupport.h"

#include "capture/SelectionReadError.h"

#include <QTest>

namespace velnora::test {

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
    if (!waitUntil([&] { return process.state() == QProcess::NotRunning; }, 5000)) {
        process.kill();
        process.waitForFinished(1000);
        return std::nullopt;
    }
    if (process.error() != QProcess::UnknownError || process.exitCode() != 0) {
        return std::nullopt;
    }
    return process.readAllStandardOutput();
}

QString readOutcome(const std::function<SelectionResult()>& read)
{
    try {
        return read().text;
    } catch (const SelectionReadError& error) {
        return error.description();
    }
}

std::optional<QByteArray> clipboard(const QString& target)
{
    return runTool(QStringLiteral("xclip"), {"-o", "-selection", "clipboard", "-t", target});
}

std::unique_ptr<BackgroundTool> ownSelection(const QString& selection, const QByteArray& text)
{
    auto tool = std::make_unique<BackgroundTool>(QStringLiteral("xclip"),
                                                 QStringList{"-quiet", "-selection", selection}, text);
    const auto owned = [&] {
        return runTool(QStringLiteral("xclip"), {"-o", "-selection", selection}) == text;
    };
    return waitUntil(owned, 5000) ? std::move(tool) : nullptr;
}

QRectF windowOf(const QString& readyLine)
{
    const QStringList parts = readyLine.split(u' ');
    return parts.size() == 5 ? QRectF(parts[1].toInt(), parts[2].toInt(), parts[3].toInt(), parts[4].toInt())
                             : QRectF();
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

BackgroundTool gtkSource(const QStringList& arguments)
{
    return BackgroundTool("/usr/bin/python3", QStringList{CAPTURE_SOURCES_DIR "/gtk_source.py"} + arguments);
}

BackgroundTool tkSource()
{
    return BackgroundTool("wish", {CAPTURE_SOURCES_DIR "/tk_source.tcl"});
}

TestClient::TestClient(const QStringList& arguments, bool accessible)
    : BackgroundTool(QStringLiteral(CAPTURE_TEST_CLIENT),
                     arguments + (accessible ? QStringList{"--accessible"} : QStringList()), {})
{}

QString BackgroundTool::readyLine()
{
    waitUntil([this] { return m_process.canReadLine() || m_process.state() == QProcess::NotRunning; }, 10000);
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
    return waitUntil([this] { return m_process.state() == QProcess::NotRunning; }, timeoutMs);
}

} // namespace velnora::test
