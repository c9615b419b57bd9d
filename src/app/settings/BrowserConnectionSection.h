#pragma once

#include "bridge/RequestStore.h"
#include "config/ProviderCatalog.h"

#include <QGroupBox>
#include <QUrl>
#include <functional>

class QHBoxLayout;
class QLabel;
class QPushButton;
class QTimer;

namespace velnora {

class PageSelfCheck;
class ResultLine;

// "浏览器连接": whether the companion extension is connected (in Chrome or Firefox, whichever carries
// it), and the repair, install and page-check actions.
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
    // Opens the chosen site in the browser and reports, without sending anything, whether the page
    // can take a request. The choice shown in the window counts, saved or not.
    void checkPage();
    void setChosenProvider(std::function<BrowserProvider()> chosenProvider);
    bool isRepairing() const { return m_repairing; }

    QLabel* statusLabel() const { return m_status; }
    QLabel* adviceLabel() const { return m_advice; }
    ResultLine* messageLine() const { return m_message; }
    QPushButton* repairButton() const { return m_repair; }
    QPushButton* pageCheckButton() const { return m_checkPage; }

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void tick();
    void installFirefoxExtension(const QString& folder);

    RequestStore m_requestStore;
    std::function<bool(const QUrl&)> m_openURL;
    QLabel* m_status;
    QLabel* m_advice;
    ResultLine* m_message;
    QPushButton* m_repair;
    QPushButton* m_install;
    QPushButton* m_checkPage;
    PageSelfCheck* m_pageCheck;
    std::function<BrowserProvider()> m_chosenProvider;
    QHBoxLayout* m_actions;
    QTimer* m_ticker;
    bool m_repairing = false;
    double m_repairDeadline = 0;
    int m_ticks = 0;
};

} // namespace velnora
