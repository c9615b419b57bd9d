#include "capture/GnomeCustomKeybinding.h"

#undef signals
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <memory>

namespace velnora {
namespace {

constexpr char listSchema[] = "org.gnome.settings-daemon.plugins.media-keys";
constexpr char entrySchema[] = "org.gnome.settings-daemon.plugins.media-keys.custom-keybinding";
constexpr char userPath[] = "/org/gnome/settings-daemon/plugins/media-keys/custom-keybindings/custom0/";

struct Unref
{
    void operator()(gpointer object) const { g_object_unref(object); }
};
using Settings = std::unique_ptr<GSettings, Unref>;

// GLib keeps the first backend and config folder it sees, so the whole program shares one keyfile.
class GnomeCustomKeybindingTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        static QTemporaryDir home;
        qputenv("GSETTINGS_BACKEND", "keyfile");
        qputenv("XDG_CONFIG_HOME", home.filePath(QStringLiteral("config")).toUtf8());
    }

    void SetUp() override
    {
        ASSERT_TRUE(GnomeCustomKeybinding::isAvailable())
            << "GNOME's media-keys schema is missing: scripts/install-deps.sh test installs it";
        for (const char* path : {userPath, GnomeCustomKeybinding::path}) {
            Settings entry(g_settings_new_with_path(entrySchema, path));
            for (const char* key : {"name", "command", "binding"}) {
                g_settings_reset(entry.get(), key);
            }
        }
        g_settings_reset(list().get(), "custom-keybindings");
        g_settings_sync();
    }

    static Settings list() { return Settings(g_settings_new(listSchema)); }

    static QStringList paths()
    {
        gchar** values = g_settings_get_strv(list().get(), "custom-keybindings");
        QStringList result;
        for (gchar** p = values; *p; ++p) {
            result << QString::fromUtf8(*p);
        }
        g_strfreev(values);
        return result;
    }

    static QString value(const char* path, const char* key)
    {
        Settings entry(g_settings_new_with_path(entrySchema, path));
        gchar* text = g_settings_get_string(entry.get(), key);
        QString result = QString::fromUtf8(text);
        g_free(text);
        return result;
    }

    static void addUserBinding(const char* binding)
    {
        Settings entry(g_settings_new_with_path(entrySchema, userPath));
        g_settings_set_string(entry.get(), "name", "我的终端");
        g_settings_set_string(entry.get(), "command", "xterm");
        g_settings_set_string(entry.get(), "binding", binding);
        const gchar* values[] = {userPath, nullptr};
        g_settings_set_strv(list().get(), "custom-keybindings", values);
        g_settings_sync();
    }
};

TEST_F(GnomeCustomKeybindingTest, AcceleratorsFollowTheChoice)
{
    const struct
    {
        const char* id;
        const char* accelerator;
    } cases[] = {
        {"option-command-e", "<Control><Alt>e"},
        {"control-option-e", "<Super><Alt>e"},
        {"control-command-e", "<Control><Super>e"},
        {"custom:Ctrl+Shift+K", "<Control><Shift>k"},
        {"custom:Ctrl+Alt+;", "<Control><Alt>semicolon"},
        {"custom:Meta+F5", "<Super>F5"},
        {"custom:Alt+PgDown", "<Alt>Next"},
        {"custom:Ctrl+Space", "<Control>space"},
    };
    QStringList accelerators;
    for (const auto& c : cases) {
        accelerators << GnomeCustomKeybinding::accelerator(HotKeyChoice::fromID(QString::fromLatin1(c.id)));
        EXPECT_EQ(accelerators.back(), QLatin1String(c.accelerator)) << c.id;
    }
    // GNOME reads the binding with GTK's parser, which knows keys by their keysym names only.
    QProcess gtk;
    gtk.start(QStringLiteral("/usr/bin/python3"),
              QStringList{QStringLiteral("-c"),
                          QStringLiteral("import sys, gi\n"
                                         "gi.require_version('Gtk', '3.0')\n"
                                         "from gi.repository import Gtk\n"
                                         "for a in sys.argv[1:]: print(Gtk.accelerator_parse(a)[0] != 0)")} +
                  accelerators);
    ASSERT_TRUE(gtk.waitForFinished(20000));
    EXPECT_EQ(QString::fromUtf8(gtk.readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts),
              QStringList(accelerators.size(), QStringLiteral("True")))
        << accelerators.join(u' ').toStdString();
}

// The user's entry stays as it was; one of the same keys, however spelled, keeps the keys for the user.
TEST_F(GnomeCustomKeybindingTest, BindsItsOwnEntryOnceBesideTheUsersUnlessTheUserHasTheKeys)
{
    const QString ours = QLatin1String(GnomeCustomKeybinding::path);
    for (const char* spelling : {"<Super>t", "<Control><Alt>e", "<Primary><Alt>E", "<Alt><Ctrl>e"}) {
        SCOPED_TRACE(spelling);
        const bool free = QLatin1String(spelling) == QLatin1String("<Super>t");
        SetUp();
        addUserBinding(spelling);
        for (int round = 0; round < 2; ++round) {
            const auto result = GnomeCustomKeybinding::bind(HotKeyChoice::choice(std::nullopt));
            EXPECT_EQ(result.outcome,
                      free ? GnomeCustomKeybinding::Outcome::bound : GnomeCustomKeybinding::Outcome::taken);
            EXPECT_TRUE(result.message.contains(free ? "Ctrl+Alt+E" : "我的终端"))
                << result.message.toStdString();
        }
        EXPECT_EQ(paths(), (free ? QStringList{userPath, ours} : QStringList{userPath}));
        EXPECT_EQ(value(userPath, "binding"), QLatin1String(spelling));
        EXPECT_EQ(value(userPath, "command"), QStringLiteral("xterm"));
        if (free) {
            EXPECT_EQ(value(GnomeCustomKeybinding::path, "command"),
                      QStringLiteral("velnora --explain-selection"));
            EXPECT_EQ(value(GnomeCustomKeybinding::path, "binding"), QStringLiteral("<Control><Alt>e"));
        }
    }
}

} // namespace
} // namespace velnora
