#pragma once

#include <QObject>
#include <QString>
#include <QTimer>

class QSystemTrayIcon;

namespace velnora {

// Short feedback of the tray application: the icon's tooltip shows the text, and one desktop
// notification (each new one replacing the last) shows it for the given time. Afterwards the tooltip
// goes back to the product name and the notification is withdrawn.
class FeedbackPresenter : public QObject
{
    Q_OBJECT
public:
    static constexpr double defaultDuration = 1.8;

    explicit FeedbackPresenter(QSystemTrayIcon* trayIcon, QObject* parent = nullptr);
    ~FeedbackPresenter() override;

    void show(const QString& text, double durationSeconds = defaultDuration);
    // The text being shown; empty once it expired.
    const QString& currentText() const { return m_text; }
    // Every text shown so far, oldest first (the last 50).
    const QStringList& history() const { return m_history; }
    static QString restingToolTip() { return QStringLiteral("澜镜"); }

Q_SIGNALS:
    void shown(const QString& text);

private:
    void expire();
    void notify(const QString& text, int timeoutMs);
    void withdraw();

    QSystemTrayIcon* m_trayIcon;
    QTimer m_timer;
    QString m_text;
    QStringList m_history;
    uint m_notificationID = 0;
    // Bumped on every show, so the answer of an older Notify call does not withdraw a newer one.
    quint64 m_generation = 0;
};

} // namespace velnora
