#include "TestEnvironment.h"

#include <gtest/gtest.h>
#include <optional>

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
    testing::InitGoogleTest(&argc, argv);
    // Listing the cases (ctest's discovery) needs no application, so it works without a display.
    std::optional<TestApplication> application;
    if (!GTEST_FLAG_GET(list_tests)) {
        application.emplace(argc, argv);
    }
    return RUN_ALL_TESTS();
}
