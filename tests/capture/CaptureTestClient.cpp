// A second X client for the capture tests: a Qt window that takes the focus, prints "ready X Y W H" (its
// frame, logical) and runs until killed. --accessible (or QT_LINUX_ACCESSIBILITY_ALWAYS_ON): it answers over
// AT-SPI.
//   fields [--focus password]   A focused text field with a selection, or the password field beside it.
//   copy [--class NAME] [--replace] [--blank] [--stall]  Holds CLIPBOARD (text, HTML and PNG) and answers
//                               Ctrl+C (Ctrl+Shift+C) by copying; --blank copies only white space. --replace:
//                               xclip takes CLIPBOARD with newer text while the copied text is served.
//                               --stall: the PNG takes 4 s to come, longer than anyone waits for it.
#include "CaptureTestData.h"

#include <QApplication>
#include <QClipboard>
#include <QDeadlineTimer>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMimeData>
#include <QProcess>
#include <QThread>
#include <QTimer>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/prctl.h>
#include <xcb/xcb.h>

namespace {

using namespace velnora::test;

xcb_window_t clipboardOwner()
{
    xcb_connection_t* c = qApp->nativeInterface<QNativeInterface::QX11Application>()->connection();
    auto* atom = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, 9, "CLIPBOARD"), nullptr);
    auto* owner = xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, atom->atom), nullptr);
    const xcb_window_t window = owner->owner;
    std::free(atom);
    std::free(owner);
    return window;
}

class CopiedText : public QMimeData
{
public:
    CopiedText(const char* text, bool replace) : m_replace(replace) { setText(QString::fromUtf8(text)); }

protected:
    QVariant retrieveData(const QString& format, QMetaType type) const override
    {
        // Blocking here keeps the reader waiting for its data until the newer owner exists.
        if (std::exchange(m_replace, false)) {
            const xcb_window_t ours = clipboardOwner();
            auto* xclip = new QProcess(qApp);
            xclip->setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGKILL); });
            xclip->start(QStringLiteral("xclip"), {QStringLiteral("-quiet"), QStringLiteral("-selection"),
                                                   QStringLiteral("clipboard")});
            xclip->write(CaptureTestData::newerText);
            xclip->closeWriteChannel();
            xclip->waitForBytesWritten(5000);
            const QDeadlineTimer deadline(5000);
            while (clipboardOwner() == ours && !deadline.hasExpired()) {
                QThread::msleep(10);
            }
        }
        return QMimeData::retrieveData(format, type);
    }

private:
    mutable bool m_replace;
};

// Serves its image only after a delay, as an owner busy encoding a huge picture would.
class StalledImage : public QMimeData
{
protected:
    QVariant retrieveData(const QString& format, QMetaType type) const override
    {
        if (format == QStringLiteral("image/png")) {
            QThread::msleep(4000);
        }
        return QMimeData::retrieveData(format, type);
    }
};

class Window : public QWidget
{
public:
    bool replace = false;
    bool blank = false;

protected:
    void keyPressEvent(QKeyEvent* event) override
    {
        if (event->key() == Qt::Key_C && event->modifiers() & Qt::ControlModifier) {
            const bool shifted = event->modifiers() & Qt::ShiftModifier;
            const char* copied = shifted ? CaptureTestData::copiedWithShift : CaptureTestData::copiedPlain;
            QApplication::clipboard()->setMimeData(new CopiedText(blank ? " \n " : copied, replace));
        }
    }
};

} // namespace

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "xcb");
    if (std::any_of(argv, argv + argc, [](const char* a) { return std::strcmp(a, "--accessible") == 0; })) {
        qputenv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
    }
    QApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    const QString mode = arguments.value(1);
    Window window;
    QWidget* target = &window;
    QLineEdit* text = nullptr;
    if (mode == QStringLiteral("fields")) {
        auto* layout = new QHBoxLayout(&window);
        text = new QLineEdit(QString::fromUtf8(CaptureTestData::fieldText), &window);
        auto* password = new QLineEdit(QStringLiteral("hunter2-secret"), &window);
        password->setEchoMode(QLineEdit::Password);
        layout->addWidget(text);
        layout->addWidget(password);
        target = arguments.contains(QStringLiteral("password")) ? password : text;
    } else if (mode == QStringLiteral("copy")) {
        const qsizetype named = arguments.indexOf(QStringLiteral("--class")) + 1;
        if (named > 0 && named < arguments.size()) {
            QApplication::setApplicationName(arguments[named]); // the class half of WM_CLASS
        }
        window.replace = arguments.contains(QStringLiteral("--replace"));
        window.blank = arguments.contains(QStringLiteral("--blank"));
        window.setFocusPolicy(Qt::StrongFocus);
        auto* earlier = arguments.contains(QStringLiteral("--stall")) ? new StalledImage : new QMimeData;
        earlier->setText(QString::fromUtf8(CaptureTestData::earlierText));
        earlier->setHtml(QString::fromUtf8(CaptureTestData::earlierHtml));
        earlier->setData(QStringLiteral("image/png"), CaptureTestData::earlierImage());
        QApplication::clipboard()->setMimeData(earlier);
    } else {
        std::fprintf(stderr, "usage: %s fields|copy [--accessible]\n", argv[0]);
        return 2;
    }
    window.setGeometry(200, 150, 700, 80);
    window.show();

    // Without a window manager the focus is ours to take: asked for until the server agrees, then left
    // alone, as a real program would.
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (QApplication::focusWidget() != target || !window.isActiveWindow()) {
            window.activateWindow();
            target->setFocus();
            return;
        }
        poll.stop();
        if (target == text) {
            text->setSelection(CaptureTestData::selectionStart, CaptureTestData::selectionLength);
        }
        const QRect frame = window.frameGeometry();
        std::printf("ready %d %d %d %d\n", frame.x(), frame.y(), frame.width(), frame.height());
        std::fflush(stdout);
    });
    poll.start(50);
    return app.exec();
}
