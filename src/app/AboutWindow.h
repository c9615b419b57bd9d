#pragma once

#include <QWidget>

class QLabel;
class QPushButton;

namespace velnora {

class ProductUpdates;

// "关于与更新…": the product, its version, and the two update checks with their result sentences.
class AboutWindow : public QWidget
{
    Q_OBJECT
public:
    // updates may be shared with the tray menu's "检查更新…"; the window does not own it.
    explicit AboutWindow(ProductUpdates* updates, QWidget* parent = nullptr);

    // Shows the window, or raises it when it is already open. It deletes itself when closed.
    void present();

    QLabel* applicationStatusLabel() const { return m_applicationStatus; }
    QLabel* extensionStatusLabel() const { return m_extensionStatus; }
    QPushButton* checkApplicationButton() const { return m_checkApplication; }
    QPushButton* checkExtensionButton() const { return m_checkExtension; }
    QPushButton* downloadButton() const { return m_download; }

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    void refreshApplication();
    void refreshExtension();

    ProductUpdates* m_updates;
    QLabel* m_applicationStatus;
    QLabel* m_extensionStatus;
    QPushButton* m_checkApplication;
    QPushButton* m_checkExtension;
    QPushButton* m_download;
};

} // namespace velnora
