#include "support/TestEnvironment.h"

#include <QImage>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace velnora {
namespace {

struct Outcome
{
    int exitCode = -1;
    QString output;
};

Outcome runVelnora(const QStringList& arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.start(test::velnoraBinary(), arguments);
    if (!process.waitForFinished(30000)) {
        process.kill();
        process.waitForFinished(2000);
        return {};
    }
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()).trimmed()};
}

qreal lightnessAt(const QImage& image, QPoint point)
{
    return image.pixelColor(point).lightnessF();
}

TEST(OverlayRunModesTest, SelfTestsPrintOneLineEach)
{
    for (const char* mode : {"markdown-self-test", "overlay-self-test"}) {
        const Outcome outcome = runVelnora({QStringLiteral("--") + QString::fromLatin1(mode)});
        EXPECT_EQ(outcome.exitCode, 0) << mode;
        EXPECT_EQ(outcome.output, QString::fromLatin1(mode) + QStringLiteral(": ok"));
    }
}

TEST(OverlayRunModesTest, PreviewsAreSharpPngsInLightAndDark)
{
    QTemporaryDir directory;
    const QString light = directory.filePath(QStringLiteral("card.png"));
    const QString dark = directory.filePath(QStringLiteral("sub/card-dark.png"));
    const QString pill = directory.filePath(QStringLiteral("pill.png"));
    EXPECT_EQ(runVelnora({QStringLiteral("--render-overlay"), light}).output, QStringLiteral("render-overlay: ok"));
    // "--dark" counts wherever it stands.
    EXPECT_EQ(runVelnora({QStringLiteral("--dark"), QStringLiteral("--render-overlay"), dark}).exitCode, 0);
    EXPECT_EQ(runVelnora({QStringLiteral("--render-pill"), pill}).output, QStringLiteral("render-pill: ok"));

    const QImage lightImage(light);
    const QImage darkImage(dark);
    const QImage pillImage(pill);
    ASSERT_FALSE(lightImage.isNull());
    ASSERT_FALSE(darkImage.isNull());
    ASSERT_FALSE(pillImage.isNull());
    // Device pixel ratio 2: the card's 460-pixel body and its shadow, doubled.
    EXPECT_GE(lightImage.width(), 2 * 460);
    EXPECT_EQ(lightImage.width() % 2, 0);
    EXPECT_GE(pillImage.height(), 2 * 50);
    const QPoint body(lightImage.width() / 2, 2 * 40);
    EXPECT_GT(lightnessAt(lightImage, body), 0.8);
    EXPECT_LT(lightnessAt(darkImage, body), 0.3);
    // The rounded corners and the shadow leave the outermost pixels transparent.
    EXPECT_EQ(qAlpha(lightImage.pixel(0, 0)), 0);
    EXPECT_EQ(qAlpha(pillImage.pixel(0, 0)), 0);
}

TEST(OverlayRunModesTest, UnwritablePathIsAFailureLine)
{
    const Outcome outcome = runVelnora({QStringLiteral("--render-pill"), QStringLiteral("/proc/velnora/pill.png")});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_TRUE(outcome.output.startsWith(QStringLiteral("render-pill: 无法"))) << outcome.output.toStdString();
}

} // namespace
} // namespace velnora
