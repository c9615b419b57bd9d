#include "app/RunModes.h"
#include "base/ProcessArguments.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QLocale>
#include <QTranslator>

namespace {

// Qt's own texts reach the user (a network error's description is shown as the card's detail,
// dialog buttons), and the product speaks Chinese whatever the session's locale. Runs whenever a
// mode creates its application object.
void installQtTranslations()
{
    auto* translator = new QTranslator(QCoreApplication::instance());
    if (translator->load(QLocale(QLocale::Chinese, QLocale::China), QStringLiteral("qtbase"),
                         QStringLiteral("_"), QLibraryInfo::path(QLibraryInfo::TranslationsPath))) {
        QCoreApplication::installTranslator(translator);
    }
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(installQtTranslations)

int main(int argc, char** argv)
{
    const velnora::ProcessArguments arguments(argc, argv);
    velnora::ProcessArguments::setCurrent(arguments);
    return velnora::RunModes::dispatch(arguments);
}
