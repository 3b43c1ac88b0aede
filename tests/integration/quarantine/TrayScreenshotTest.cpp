// SPDX-License-Identifier: GPL-2.0-or-later
// The installed service under Xvfb with a system tray of our own (kuv_test_trayhost): its icon docks,
// turns to "attention needed" when a scan with findings is recorded, and the screen with the main
// window and the tray is written to screenshots/kuvgui-tray-screen.png (the tray alone to
// screenshots/kuvgui-tray-icon.png).
#include "DesktopSupport.h"

#include <gtest/gtest.h>

#include <QGuiApplication>
#include <QImage>
#include <QPixmap>
#include <QScreen>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "StoreDb.h"

namespace {

using namespace kuvtest;
using namespace kuvdesk;

int reddish(const QImage& image)
{
    int n = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QRgb p = image.pixel(x, y);
            n += (qRed(p) > 170 && qGreen(p) < 90 && qBlue(p) < 90) ? 1 : 0;
        }
    }
    return n;
}

TEST(TrayScreenshot, IconDocksShowsAttentionAndTheWindowUnderXvfb)
{
    Xvfb x(141, 190);
    ASSERT_FALSE(x.display().empty()) << x.error();
    Process tray({KUV_TRAYHOST}, {"DISPLAY=" + x.display()});
    ASSERT_TRUE(waitUntil([&] { return tray.out().find("ready") != std::string::npos || !tray.running(); }, 30000));
    ASSERT_TRUE(tray.running()) << tray.err();

    PrivateInstall inst;
    inst.extraEnv = {"DISPLAY=" + x.display(), "QT_QPA_PLATFORM=xcb"};
    ASSERT_EQ(inst.start(), "");
    const std::string log = inst.prefix + "/log/kuvgui.log";
    ASSERT_TRUE(waitUntil([&] { return fileContains(log, "tray icon shown"); }, 30000)) << readFile(log);
    ASSERT_TRUE(waitUntil([&] { return tray.out().find("docked") != std::string::npos; }, 30000)) << tray.out();

    // A scan with a finding nobody acted on yet: attention needed.
    setenv("XDG_CONFIG_HOME", (inst.home + "/.config").c_str(), 1);
    kuv::store::JobRecord job;
    job.job = "tray-test";
    job.startMs = kuv::store::nowMs() - 4000;
    job.durationMs = 4000;
    job.state = "done";
    job.paths = {inst.home};
    job.files = 12;
    job.infected = 1;
    job.findings.push_back({inst.home + "/Downloads/eicar.com", "infected", "Eicar-Test-Signature", "", ""});
    std::vector<std::string> notices;
    std::string error;
    ASSERT_TRUE(kuv::store::recordJob(inst.home + "/.local/share/kuv", job, notices, error)) << error;
    ASSERT_TRUE(waitUntil([&] { return fileContains(log, "tray state: attention"); }, 30000)) << readFile(log);

    // The first start showed the window already; a second start asks again.
    ASSERT_TRUE(waitUntil([&] { return ctrlCount(inst.journal, 0) == 1; }, 30000));
    const RunResult show = run({inst.bin("kuvgui")}, inst.env());
    EXPECT_EQ(show.status, 1) << show.out << show.err;
    ASSERT_TRUE(waitUntil([&] { return ctrlCount(inst.journal, 0) == 2; }, 30000));

    setenv("QT_QPA_PLATFORM", "xcb", 1);
    setenv("DISPLAY", x.display().c_str(), 1);
    static int argc = 1;
    static char name[] = "integration_quarantine_tray";
    static char* argv[] = {name, nullptr};
    QGuiApplication app(argc, argv);
    QScreen* screen = QGuiApplication::primaryScreen();
    ASSERT_NE(screen, nullptr);
    // Settled once the window is painted, the tray shows the badge and two grabs agree.
    QImage shot;
    const QRect trayArea(1280 - 128, 0, 128, 32);
    const bool settled = waitUntil(
        [&] {
            QCoreApplication::processEvents();
            const QImage first = screen->grabWindow(0).toImage();
            if (reddish(first.copy(trayArea)) < 4) {
                return false;
            }
            usleep(700 * 1000);
            shot = screen->grabWindow(0).toImage();
            return shot == first && reddish(shot.copy(trayArea)) >= 4;
        },
        60000, 300);
    ASSERT_TRUE(settled) << "no attention badge in the tray on " << x.display();

    const char* build = std::getenv("KUV_BUILD_DIR");
    ASSERT_NE(build, nullptr);
    const std::string dir = std::string(build) + "/screenshots";
    mkdir(dir.c_str(), 0755);
    ASSERT_TRUE(shot.save(QString::fromStdString(dir + "/kuvgui-tray-screen.png"), "PNG"));
    ASSERT_TRUE(shot.copy(trayArea).scaled(512, 128).save(QString::fromStdString(dir + "/kuvgui-tray-icon.png"), "PNG"));
    std::printf("screenshots: %s/kuvgui-tray-screen.png, %s/kuvgui-tray-icon.png\n", dir.c_str(), dir.c_str());

    EXPECT_EQ(inst.stop(), "");
    tray.signal(SIGTERM);
    tray.wait(10000);
}

} // namespace
