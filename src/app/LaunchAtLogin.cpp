#include "app/LaunchAtLogin.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

namespace velnora::LaunchAtLogin {

namespace {

// Desktop entries quote an argument that holds a reserved character, and escape four inside quotes.
QString quotedArgument(const QString& argument)
{
    static const QString reserved = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`=%");
    bool needsQuotes = argument.isEmpty();
    for (const QChar c : argument) {
        needsQuotes = needsQuotes || reserved.contains(c);
    }
    if (!needsQuotes) {
        return argument;
    }
    QString escaped;
    for (const QChar c : argument) {
        if (c == u'"' || c == u'`' || c == u'$' || c == u'\\') {
            escaped += u'\\';
        }
        escaped += c;
    }
    // A literal percent sign is doubled in Exec whether quoted or not.
    escaped.replace(u'%', QStringLiteral("%%"));
    return u'"' + escaped + u'"';
}

} // namespace

QString autostartFilePath()
{
    QString configHome = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (configHome.isEmpty() || !QDir::isAbsolutePath(configHome)) {
        configHome = QDir::homePath() + QStringLiteral("/.config");
    }
    return configHome + QStringLiteral("/autostart/velnora.desktop");
}

bool isEnabled()
{
    QFile file(autostartFilePath());
    if (!file.open(QIODevice::ReadOnly)) {
        return false;
    }
    bool inEntry = false;
    while (!file.atEnd()) {
        // "Hidden = true" is as valid as "Hidden=true".
        QByteArray line;
        for (const char c : file.readLine(4096)) {
            if (c != ' ' && c != '\t' && c != '\n' && c != '\r') {
                line += c;
            }
        }
        if (line.startsWith('[')) {
            inEntry = line == "[DesktopEntry]"; // blanks are gone
            continue;
        }
        if (!inEntry) {
            continue;
        }
        if (line == "Hidden=true" || line == "X-GNOME-Autostart-enabled=false") {
            return false;
        }
    }
    return true;
}

QByteArray entryText(const QString& executablePath)
{
    QByteArray text;
    text += "[Desktop Entry]\n";
    text += "Type=Application\n";
    text += "Name=澜镜\n";
    text += "Comment=选中文字，按快捷键，用通俗的中文解释\n";
    text += "Exec=" + quotedArgument(executablePath).toUtf8() + "\n";
    text += "Icon=velnora\n";
    text += "Terminal=false\n";
    text += "X-GNOME-Autostart-enabled=true\n";
    // Plasma starts autostart entries in parallel; after the panel, the tray is there to take the icon.
    text += "X-KDE-autostart-after=panel\n";
    return text;
}

std::optional<QString> setEnabled(bool enabled, const QString& executablePath)
{
    const QString path = autostartFilePath();
    if (!enabled) {
        QFile file(path);
        if (file.exists() && !file.remove()) {
            return QStringLiteral("无法删除 %1").arg(path);
        }
        return std::nullopt;
    }
    const QString folder = QFileInfo(path).absolutePath();
    if (!QDir().mkpath(folder)) {
        return QStringLiteral("无法创建文件夹 %1").arg(folder);
    }
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        return QStringLiteral("无法写入 %1").arg(path);
    }
    file.write(entryText(executablePath));
    if (!file.commit()) {
        return QStringLiteral("无法写入 %1").arg(path);
    }
    return std::nullopt;
}

} // namespace velnora::LaunchAtLogin
