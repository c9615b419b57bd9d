#include "TestEnvironment.h"

#include <gtest/gtest.h>

#ifdef VELNORA_TEST_GUI
#include <QApplication>
using TestApplication = QApplication;
#else
#include <QCoreApplication>
using TestApplication = QCoreApplication;
#endif

int main(int argc, char** argv)
{
#ifdef VELNORA_TEST_OFFSCREEN
    qputenv("QT_QPA_PLATFORM", "offscreen");
#endif
    // Every test binary lives in a throwaway home, so nothing reaches the developer's settings.
    velnora::test::TemporaryHome home;
    TestApplication application(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
