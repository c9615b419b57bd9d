#pragma once

#include "bridge/RequestStore.h"

#include <QGroupBox>
#include <QUrl>
#include <functional>

class QHBoxLayout;
class QLabel;
class QPushButton;
class QTimer;

namespace velnora {

class ResultLine;

// "浏览器连接": whether the companion extension is connected, and the repair and install actions.
// Its status is read again every two seconds while it is visible.
class BrowserConnectionSection : public QGroupBox
{
    Q_OBJECT
public:
    BrowserConnectionSection(RequestStore requestStore, std::function<bool(const QUrl&)> openURL,
                             QWidget* parent = nullptr);

    void refreshStatus();
    void repair();
    void installExtension();
    bool isRepairing() const { return m_repairing; }

    QLabel* statusLabel() const { return m_status; }
    QLabel* adviceLabel() const { return m_advice; }
    ResultLine* messageLine() const { return m_message; }
    QPushButton* repairButton() const { return m_repair; }
    // The row of action buttons; the page check ("检测网页") joins it.
    QHBoxLayout* actionRow() const { return m_actions; }

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void tick();

    RequestStore m_requestStore;
    std::function<bool(const QUrl&)> m_openURL;
    QLabel* m_status;
    QLabel* m_advice;
    ResultLine* m_message;
    QPushButton* m_repair;
    QPushButton* m_install;
    QHBoxLayout* m_actions;
    QTimer* m_ticker;
    bool m_repairing = false;
    double m_repairDeadline = 0;
    int m_ticks = 0;
};

} // namespace velnora
