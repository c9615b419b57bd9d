#pragma once

#include <QObject>
#include <QString>

namespace velnora {

// The running application's end of the control bus: owns the well-known name (so a second instance
// can tell it is not alone), hears the four broadcasts and answers ExplainSelection.
class ControlService : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.tarnwick.lumaquill")
public:
    explicit ControlService(QObject* parent = nullptr);
    ~ControlService() override;

    // Takes the well-known name and starts listening. False when another instance holds the name
    // (or no session bus exists); the broadcasts are heard either way when a bus exists.
    bool start();
    bool ownsName() const { return m_ownsName; }

public Q_SLOTS:
    // Text to explain; empty asks for the current selection. Answers at once, the work comes later.
    Q_SCRIPTABLE void ExplainSelection(const QString& text);

Q_SIGNALS:
    void notificationReceived(const QString& name);
    void explainRequested(const QString& text);

private Q_SLOTS:
    void onNotify(const QString& name);

private:
    bool m_ownsName = false;
    bool m_listening = false;
};

} // namespace velnora
