#include "app/FirstRunHint.h"

#include <QStringList>

namespace velnora::FirstRunHint {

QString setupMessage()
{
    return QStringLiteral("免 Key 网页会话可直接使用；配置 API Key 后可启用原生悬浮卡片。");
}

QString noTrayMessage(const QString& hotKeyTitle)
{
    return QStringLiteral(
               "这个桌面没有系统托盘，澜镜的菜单无法显示，但澜镜仍在后台运行：选中文字后按 %1 即可解释。"
               "快捷键、登录时启动和关于都在本窗口里；要再次打开本窗口，请重新启动澜镜，或在终端运行 velnora "
               "--send-settings。")
        .arg(hotKeyTitle);
}

std::optional<QString> takeLaunchMessage(ConfigurationStore& store, bool trayAvailable,
                                         const QString& hotKeyTitle)
{
    QStringList parts;
    if (!store.didShowVersion2Setup()) {
        store.setDidShowVersion2Setup(true);
        parts << setupMessage();
    }
    if (!trayAvailable && !store.didShowNoTrayHint()) {
        store.setDidShowNoTrayHint(true);
        parts << noTrayMessage(hotKeyTitle);
    }
    if (parts.isEmpty()) {
        return std::nullopt;
    }
    return parts.join(u'\n');
}

} // namespace velnora::FirstRunHint
