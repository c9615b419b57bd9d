#include "WindowShots.h"
#include "app/settings/BrowserConnectionSection.h"
#include "app/settings/ResultLine.h"
#include "support/TestEnvironment.h"
#include "updates/ProductRelease.h"

#include <QApplication>
#include <QClipboard>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QPushButton>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace velnora;

namespace {

void writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

} // namespace

// With Firefox as the only browser, and running, the section speaks of Firefox, and "安装扩展" leads
// to the signed build on the site and to loading the bundled folder for development; nothing clips.
TEST(BrowserConnectionSection, ShowsFirefoxsStateAndHowToInstallTheExtensionThere)
{
    if (qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) {
        GTEST_SKIP() << "needs the private session: run under scripts/desktop-session.sh";
    }
    test::TemporaryHome home;
    const QString profile = home.filePath(".mozilla/firefox/p.default-release/");
    writeFile(home.filePath(".mozilla/firefox/profiles.ini"),
              "[Profile0]\nPath=p.default-release\nDefault=1\n");
    writeFile(profile + "extensions.json", R"({"addons":[]})");
    ASSERT_TRUE(QFile::link(QStringLiteral("127.0.1.1:+%1").arg(::getpid()), profile + "lock"));

    QList<QUrl> opened;
    BrowserConnectionSection section(RequestStore(home.filePath("data")), [&opened](const QUrl& url) {
        opened.append(url);
        return true;
    });
    section.resize(560, section.sizeHint().height());
    section.show();
    EXPECT_EQ(section.statusLabel()->text(), "○ 未连接 · 连接配置需要修复");
    EXPECT_TRUE(section.adviceLabel()->text().startsWith("Firefox 还没有本机的连接配置。"));

    for (QPushButton* button : section.findChildren<QPushButton*>()) {
        if (button->text().startsWith(QStringLiteral("安装扩展"))) {
            button->click();
        }
    }
    EXPECT_EQ(opened, QList<QUrl>{ProductRelease::website()});
    EXPECT_EQ(QApplication::clipboard()->text(), "about:debugging#/runtime/this-firefox");
    const QString message = section.messageLine()->text();
    EXPECT_TRUE(message.startsWith("已打开澜镜官网，下载签名版扩展并在 Firefox 中安装。"))
        << message.toStdString();
    EXPECT_TRUE(message.contains("/extension/manifest.json（重启 Firefox 后需重新载入）。"))
        << message.toStdString();
    EXPECT_EQ(test::clippedInEitherAppearance(&section, "browser-section-firefox"), QStringList());
}
