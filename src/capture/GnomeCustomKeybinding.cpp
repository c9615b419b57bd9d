#include "capture/GnomeCustomKeybinding.h"

#include "capture/KeySymbol.h"

#undef signals
#include <QStringList>
#include <gio/gio.h>
#include <memory>

namespace velnora::GnomeCustomKeybinding {

namespace {

constexpr char mediaKeysSchema[] = "org.gnome.settings-daemon.plugins.media-keys";
constexpr char keybindingSchema[] = "org.gnome.settings-daemon.plugins.media-keys.custom-keybinding";
constexpr char listKey[] = "custom-keybindings";

struct GObjectUnref
{
    void operator()(gpointer object) const { g_object_unref(object); }
};
using Settings = std::unique_ptr<GSettings, GObjectUnref>;

QString stringOf(GSettings* settings, const char* key)
{
    gchar* value = g_settings_get_string(settings, key);
    QString text = QString::fromUtf8(value);
    g_free(value);
    return text;
}

// GTK accelerators name modifiers in any case and order.
QString normalized(const QString& accelerator)
{
    QString lower = accelerator.toLower();
    lower.replace(QStringLiteral("<primary>"), QStringLiteral("<control>"));
    lower.replace(QStringLiteral("<ctrl>"), QStringLiteral("<control>"));
    lower.replace(QStringLiteral("<meta>"), QStringLiteral("<super>"));
    QStringList modifiers;
    while (lower.startsWith(QLatin1Char('<'))) {
        const int end = lower.indexOf(QLatin1Char('>'));
        if (end < 0) {
            break;
        }
        modifiers << lower.mid(0, end + 1);
        lower = lower.mid(end + 1);
    }
    modifiers.sort();
    return modifiers.join(QString()) + lower;
}

} // namespace

bool isAvailable()
{
    GSettingsSchemaSource* source = g_settings_schema_source_get_default();
    if (!source) {
        return false;
    }
    GSettingsSchema* list = g_settings_schema_source_lookup(source, mediaKeysSchema, TRUE);
    GSettingsSchema* entry = g_settings_schema_source_lookup(source, keybindingSchema, TRUE);
    const bool available = list && entry && g_settings_schema_has_key(list, listKey);
    if (list) {
        g_settings_schema_unref(list);
    }
    if (entry) {
        g_settings_schema_unref(entry);
    }
    return available;
}

QString accelerator(const HotKeyChoice& choice)
{
    QString text;
    if (choice.modifiers & Qt::ControlModifier) {
        text += QStringLiteral("<Control>");
    }
    if (choice.modifiers & Qt::MetaModifier) {
        text += QStringLiteral("<Super>");
    }
    if (choice.modifiers & Qt::AltModifier) {
        text += QStringLiteral("<Alt>");
    }
    if (choice.modifiers & Qt::ShiftModifier) {
        text += QStringLiteral("<Shift>");
    }
    return text + KeySymbol::nameOf(choice.key);
}

Result bind(const HotKeyChoice& choice)
{
    if (!isAvailable()) {
        return {Outcome::unavailable, manualInstruction()};
    }
    const QString wanted = accelerator(choice);
    Settings list(g_settings_new(mediaKeysSchema));
    gchar** paths = g_settings_get_strv(list.get(), listKey);
    QStringList known;
    for (gchar** p = paths; *p; ++p) {
        known << QString::fromUtf8(*p);
    }
    g_strfreev(paths);

    for (const QString& other : std::as_const(known)) {
        if (other == QLatin1String(path)) {
            continue;
        }
        Settings entry(g_settings_new_with_path(keybindingSchema, other.toUtf8().constData()));
        if (normalized(stringOf(entry.get(), "binding")) == normalized(wanted)) {
            return {Outcome::taken,
                    QStringLiteral("系统快捷键 ") + choice.title + QStringLiteral(" 已被自定义快捷键“") +
                        stringOf(entry.get(), "name") +
                        QStringLiteral("”占用，未作更改。请换一个快捷键，或在系统设置中手动绑定命令 ") +
                        QLatin1String(command) + QStringLiteral("。")};
        }
    }

    Settings ours(g_settings_new_with_path(keybindingSchema, path));
    g_settings_set_string(ours.get(), "name", "澜镜：解释选中内容");
    g_settings_set_string(ours.get(), "command", command);
    g_settings_set_string(ours.get(), "binding", wanted.toUtf8().constData());
    if (!known.contains(QLatin1String(path))) {
        known << QLatin1String(path);
        std::vector<QByteArray> bytes;
        std::vector<const gchar*> values;
        for (const QString& entry : std::as_const(known)) {
            bytes.push_back(entry.toUtf8());
        }
        for (const QByteArray& entry : bytes) {
            values.push_back(entry.constData());
        }
        values.push_back(nullptr);
        g_settings_set_strv(list.get(), listKey, values.data());
    }
    g_settings_sync();
    return {Outcome::bound,
            QStringLiteral("已设置系统快捷键 ") + choice.title + QStringLiteral("：按下即解释选中内容。")};
}

QString manualInstruction()
{
    return QStringLiteral("此桌面无法自动设置快捷键。请在系统设置的键盘快捷键中新建一个快捷键，命令填写：") +
           QLatin1String(command);
}

} // namespace velnora::GnomeCustomKeybinding
