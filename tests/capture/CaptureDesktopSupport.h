#pragma once

#include <QProcess>
#include <QStringList>

#include <functional>
#include <optional>

namespace velnora::test {

// Spins the event loop (so this process can keep serving its selections) until the condition holds or
// the timeout passes. Returns the condition.
bool spinUntil(const std::function<bool()>& condition, int timeoutMs);
void spinFor(int milliseconds);

// One of the capture_test_client modes, killed when the object goes.
class TestClient
{
public:
    explicit TestClient(const QStringList& arguments, bool accessible = false);
    ~TestClient();
    // The first line the client printed, once it did; empty after 10 s.
    QString readyLine();
    qint64 processId() const { return m_process.processId(); }

private:
    QProcess m_process;
};

// Runs a command line tool to its end (event loop spinning) and returns its standard output, or none
// when it failed or took more than 5 s. Input, when given, is written and the channel closed.
std::optional<QByteArray> runTool(const QString& program, const QStringList& arguments,
                                  const QByteArray& input = {});

// A tool that keeps running, like "xclip -quiet", stopped when the object goes.
class BackgroundTool
{
public:
    BackgroundTool(const QString& program, const QStringList& arguments, const QByteArray& input);
    ~BackgroundTool();

private:
    QProcess m_process;
};

// Direct X requests for arranging a test.
namespace X11TestTools {
void clearSelection(const char* selection);
bool selectionOwned(const char* selection);
bool numLockOn();
} // namespace X11TestTools

} // namespace velnora::test
