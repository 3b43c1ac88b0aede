// SPDX-License-Identifier: GPL-2.0-or-later
// The installed service on a real X server (Xvfb) with the sample plugins: its main window is shown
// on request and written as PNG into the build tree (screenshots/kuvgui-main-window.png, and the
// whole screen as screenshots/kuvgui-screen.png).
#include "DesktopSupport.h"

#include <gtest/gtest.h>

#include <QGuiApplication>
#include <QImage>
#include <QPixmap>
#include <QRect>
#include <QScreen>
#include <QSet>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace {

using namespace kuvtest;
using namespace kuvdesk;

int distinctColours(const QImage& image)
{
    QSet<QRgb> colours;
    for (int y = 0; y < image.height(); y += 2) {
        for (int x = 0; x < image.width(); x += 2) {
            colours.insert(image.pixel(x, y));
        }
    }
    return colours.size();
}

// The bounding box of everything that is not the root window's black.
QRect painted(const QImage& image)
{
    int left = image.width(), top = image.height(), right = -1, bottom = -1;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            if ((image.pixel(x, y) & 0xffffff) != 0) {
                left = std::min(left, x);
                right = std::max(right, x);
                top = std::min(top, y);
                bottom = std::max(bottom, y);
            }
        }
    }
    return right < 0 ? QRect() : QRect(QPoint(left, top), QPoint(right, bottom));
}

TEST(DesktopScreenshot, MainWindowWithSamplePluginsUnderXvfb)
{
    Xvfb x(91, 140);
    ASSERT_FALSE(x.display().empty()) << x.error();

    PrivateInstall inst;
    inst.extraEnv = {"DISPLAY=" + x.display(), "QT_QPA_PLATFORM=xcb"};
    const std::string problem = inst.start();
    ASSERT_EQ(problem, "");

    // The sample plugins are loaded at start, each from the installation's lib/plugins.
    const std::string log = inst.prefix + "/log/kuvgui.log";
    for (const std::string plugin : {"eventviewer", "notifier", "protectionstatus"}) {
        const std::string loaded = "plugin [" + plugin + "] loaded from [" + inst.prefix + "/lib/plugins/";
        EXPECT_TRUE(waitUntil([&] { return fileContains(log, loaded); }, 30000)) << loaded << "\n" << readFile(log);
    }

    // The first start showed the window already; a second start asks again.
    ASSERT_TRUE(waitUntil([&] { return ctrlCount(inst.journal, 0) == 1; }, 30000));
    const RunResult show = run({inst.bin("kuvgui")}, inst.env());
    EXPECT_EQ(show.status, 1) << show.out << show.err;
    ASSERT_TRUE(waitUntil([&] { return ctrlCount(inst.journal, 0) == 2; }, 30000));

    // This process looks at the same X server as a plain client.
    setenv("QT_QPA_PLATFORM", "xcb", 1);
    setenv("DISPLAY", x.display().c_str(), 1);
    static int argc = 1;
    static char name[] = "integration_desktop_screenshot";
    static char* argv[] = {name, nullptr};
    QGuiApplication app(argc, argv);
    QScreen* screen = QGuiApplication::primaryScreen();
    ASSERT_NE(screen, nullptr);

    // The window is up and painted once the screen is no longer blank and stops changing.
    QImage shot;
    const bool settled = waitUntil(
        [&] {
            QCoreApplication::processEvents();
            const QImage first = screen->grabWindow(0).toImage();
            if (distinctColours(first) < 64) {
                return false;
            }
            usleep(700 * 1000);
            shot = screen->grabWindow(0).toImage();
            return shot == first;
        },
        60000, 300);
    ASSERT_TRUE(settled) << "the main window did not appear on " << x.display();

    const char* build = std::getenv("KUV_BUILD_DIR");
    ASSERT_NE(build, nullptr);
    const std::string dir = std::string(build) + "/screenshots";
    mkdir(dir.c_str(), 0755);
    const std::string screenPng = dir + "/kuvgui-screen.png";
    ASSERT_TRUE(shot.save(QString::fromStdString(screenPng), "PNG")) << screenPng;
    // Without a window manager the window sits on the black root: cut it out.
    const QRect window = painted(shot);
    ASSERT_GE(window.width(), 200);
    ASSERT_GE(window.height(), 150);
    const std::string png = dir + "/kuvgui-main-window.png";
    ASSERT_TRUE(shot.copy(window).save(QString::fromStdString(png), "PNG")) << png;
    EXPECT_EQ(QImage(QString::fromStdString(png)).size(), window.size());
    std::printf("screenshot: %s (%dx%d, %d colours), whole screen: %s\n", png.c_str(), window.width(),
                window.height(), distinctColours(shot.copy(window)), screenPng.c_str());

    EXPECT_EQ(inst.stop(), "");
}

} // namespace
