#include "TestEnvironment.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string_view>

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
    // Listing the cases (ctest's discovery) needs no application, so it works without a display.
    const bool listing = std::any_of(argv, argv + argc, [](const char* argument) {
        return std::string_view(argument) == "--gtest_list_tests";
    });
    std::optional<TestApplication> application;
    if (!listing) {
        application.emplace(argc, argv);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
