#include "overlay/FontCaches.h"

#include <QFile>
#include <QFontDatabase>
#include <QStandardPaths>
#include <QThreadPool>

namespace velnora::FontCaches {

void release()
{
    // Qt has no call that empties its font caches, but dropping an application font rebuilds them
    // from scratch. DejaVu Sans is small and on every Debian desktop (fontconfig's own dependency).
    const QString font = QStandardPaths::locate(QStandardPaths::GenericDataLocation,
                                                QStringLiteral("fonts/truetype/dejavu/DejaVuSans.ttf"));
    if (font.isEmpty()) {
        return;
    }
    QFile file(font);
    if (!file.open(QIODevice::ReadOnly)) {
        return;
    }
    // From memory: given a path, fontconfig would keep the font in its own set after Qt dropped it.
    const int id = QFontDatabase::addApplicationFontFromData(file.readAll());
    if (id >= 0) {
        QFontDatabase::removeApplicationFont(id);
    }
}

void prepare()
{
    QThreadPool::globalInstance()->start([] { QFontDatabase::families(); });
}

} // namespace velnora::FontCaches
