#include "app/UpdateRunModes.h"

#include "app/AboutWindow.h"
#include "app/ApplicationMode.h"
#include "app/ModeResult.h"
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
    AboutWindow window(&updates);
    window.present();
    application.exec();
    return 0;
}

} // namespace velnora::UpdateRunModes
