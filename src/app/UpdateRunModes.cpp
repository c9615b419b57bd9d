#include "app/UpdateRunModes.h"

#include "app/AboutWindow.h"
#include "app/ApplicationMode.h"
#include "base/ModeResult.h"
#include "updates/ProductUpdates.h"
#include "updates/UpdateSelfChecks.h"

#include <QApplication>

namespace velnora::UpdateRunModes {

int runUpdateSelfTest(const ProcessArguments&)
{
    return ModeResult::report(QStringLiteral("update-self-test"), UpdateSelfChecks::failure());
}

int runUpdatesPreview(const ProcessArguments& arguments)
{
    if (const QString reason = ApplicationMode::missingDisplayReason(); !reason.isEmpty()) {
        ModeResult::printErrorLine(reason);
        return 1;
    }
    QApplication application(arguments.argc(), arguments.argv());
    ApplicationMode::nameApplication();
    ProductUpdates updates;
    auto* window = new AboutWindow(&updates);
    // A tool window does not count for quitting on the last window closed.
    QObject::connect(window, &QObject::destroyed, &application, &QCoreApplication::quit);
    window->present();
    application.exec();
    return 0;
}

} // namespace velnora::UpdateRunModes
