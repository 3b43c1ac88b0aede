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

// An Xvfb on the first free display from 91 on; empty display when none could be started.
class Xvfb {
public:
    Xvfb()
    {
        const std::string program = findProgram("Xvfb");
        if (program.empty()) {
            m_error = "Xvfb (package xvfb) is not installed: run scripts/setup";
            return;
        }
        for (int n = 91; n < 140 && m_display.empty(); ++n) {
            const std::string socket = "/tmp/.X11-unix/X" + std::to_string(n);
            const std::string lock = "/tmp/.X" + std::to_string(n) + "-lock";
            if (access(socket.c_str(), F_OK) == 0 || access(lock.c_str(), F_OK) == 0) {
                continue;
            }
            auto server = std::make_unique<Process>(std::vector<std::string>{
                program, ":" + std::to_string(n), "-screen", "0", "1280x800x24", "-nolisten", "tcp", "-noreset"});
            // Another test may have taken the number in between: then the server ends at once.
            if (waitUntil([&] { return access(socket.c_str(), F_OK) == 0 || !server->running(); }, 30000) &&
                server->running()) {
                m_display = ":" + std::to_string(n);
                m_server = std::move(server);
            } else {
                m_error = "Xvfb :" + std::to_string(n) + " did not start: " + server->err();
            }
        }
    }
    ~Xvfb()
    {
        if (m_server) {
            m_server->signal(SIGTERM);
            m_server->wait(20000);
        }
    }
    const std::string& display() const { return m_display; }
    const std::string& error() const { return m_error; }

private:
    std::unique_ptr<Process> m_server;
    std::string m_display;
    std::string m_error;
};

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
    Xvfb x;
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
