#pragma once

#include "capture/SelectionResult.h"
#include "support/LoopbackHttpServer.h" // waitUntil

#include <QProcess>
#include <QStringList>
#include <functional>
#include <memory>
#include <optional>

namespace velnora::test {

// Spin the event loop (so this process keeps serving its selections) until the condition holds or the
// timeout passes; spinUntil returns the condition.
bool spinUntil(const std::function<bool()>& condition, int timeoutMs);
void spinFor(int milliseconds);

// Runs a command line tool to its end (event loop spinning) and returns its standard output, or none
// when it failed or took more than 5 s. The input is written and the channel closed.
std::optional<QByteArray> runTool(const QString& program, const QStringList& arguments,
                                  const QByteArray& input = {});

// The text a read gives, or the message of the error it ends with.
QString readOutcome(const std::function<SelectionResult()>& read);

// The CLIPBOARD in one format (a MIME type or TARGETS), as xclip reads it.
std::optional<QByteArray> clipboard(const QString& target);

// A program that keeps running, like "xclip -quiet" or a GTK window, killed when the object goes.
class BackgroundTool
{
public:
    BackgroundTool(const QString& program, const QStringList& arguments, const QByteArray& input = {});
    ~BackgroundTool();

    // The next line the program prints, once it did; empty after 10 s.
    QString readyLine();
    // Every line printed since the last call.
    QStringList printedLines();
    bool finished(int timeoutMs);
    // Ended by returning from main with status 0, not by a signal.
    bool exitedCleanly() const
    {
        return m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
    }
    qint64 processId() const { return m_process.processId(); }

protected:
    QProcess m_process;
};

// xclip holding "primary" or "clipboard" with this text; none when the server never said so.
std::unique_ptr<BackgroundTool> ownSelection(const QString& selection, const QByteArray& text);

// The window of a source's "ready X Y W H" line; empty for any other line.
QRectF windowOf(const QString& readyLine);

// The programs beside these tests: gtk_source.py in one of its modes, and tk_source.tcl.
BackgroundTool gtkSource(const QStringList& arguments);
BackgroundTool tkSource();

// One of the capture_test_client modes, accessible or not.
class TestClient : public BackgroundTool
{
public:
    explicit TestClient(const QStringList& arguments, bool accessible = false);
};

} // namespace velnora::test
