// SPDX-License-Identifier: GPL-2.0-or-later
// The Scan page draws a job's state once for the messages that arrive together, restyles its back-end
// box only when what it shows changes, draws nothing while hidden, and still shows every state right.
#include <gtest/gtest.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QEvent>
#include <QLabel>
#include <QList>
#include <QPalette>
#include <QProgressBar>

#include "ScanClient.h"
#include "ScanPage.h"
#include "ShellTestSupport.h"

namespace {

using kuv::shell::ScanClient;
using kuv::shell::ScanEnd;
using kuv::shell::ScanPage;
using kuv::shell::ScanProgress;
using shelltest::spinUntil;

// Counts the events of one type that reach a widget.
class EventCounter : public QObject {
public:
    EventCounter(QObject* target, QEvent::Type type) : m_type(type) { target->installEventFilter(this); }
    int count = 0;

protected:
    bool eventFilter(QObject*, QEvent* event) override
    {
        if (event->type() == m_type) {
            ++count;
        }
        return false;
    }

private:
    QEvent::Type m_type;
};

ScanProgress progress(qint64 scanned, qint64 total)
{
    ScanProgress p;
    p.state = QStringLiteral("scanning");
    p.filesTotal = total;
    p.filesScanned = scanned;
    return p;
}

ScanEnd finished(qint64 files, qint64 infected)
{
    ScanEnd e;
    e.state = QStringLiteral("done");
    e.files = files;
    e.infected = infected;
    return e;
}

// Lets the event loop run for a while; for checks that something did not happen.
void idle(int ms)
{
    spinUntil([] { return false; }, ms);
}

class ScanPageUpdatesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_page.setClient(&m_client);
        m_page.resize(800, 600);
        m_state = m_page.findChild<QLabel*>(QStringLiteral("kuvScanState"));
        m_threats = m_page.findChild<QLabel*>(QStringLiteral("kuvScanThreats"));
        m_files = m_page.findChild<QLabel*>(QStringLiteral("kuvScanFiles"));
        m_bar = m_page.findChild<QProgressBar*>(QStringLiteral("kuvScanProgress"));
        m_box = m_page.findChild<QWidget*>(QStringLiteral("kuvScanBackendBox"));
        m_boxText = m_page.findChild<QLabel*>(QStringLiteral("kuvScanBackendText"));
        ASSERT_TRUE(m_state && m_threats && m_files && m_bar && m_box && m_boxText);
    }

    void showAndSettle()
    {
        m_page.show();
        // No bus module in the sandbox: the client ends up reporting the bus as unreachable.
        ASSERT_TRUE(spinUntil([this] { return m_boxText->text().contains(QLatin1String("not reachable")); }))
            << m_boxText->text().toStdString();
    }

    QColor textColour(QLabel* label) const { return label->palette().color(QPalette::WindowText); }
    QColor plainColour() const { return m_page.palette().color(QPalette::WindowText); }

    shelltest::Sandbox m_sandbox;
    ScanClient m_client;
    ScanPage m_page;
    QLabel* m_state = nullptr;
    QLabel* m_threats = nullptr;
    QLabel* m_files = nullptr;
    QProgressBar* m_bar = nullptr;
    QWidget* m_box = nullptr;
    QLabel* m_boxText = nullptr;
};

TEST_F(ScanPageUpdatesTest, MessagesThatArriveTogetherAreDrawnOnce)
{
    ASSERT_NO_FATAL_FAILURE(showAndSettle());
    QList<int> values;
    QObject::connect(m_bar, &QProgressBar::valueChanged, [&values](int v) { values << v; });

    // A job's messages in one pass of the event loop: created, accepted, five progress reports.
    emit m_client.jobCreated(QStringLiteral("gui-1-1"), 1);
    emit m_client.jobAccepted(QStringLiteral("gui-1-1"), 0);
    for (int i = 1; i <= 5; ++i) {
        emit m_client.jobProgress(QStringLiteral("gui-1-1"), progress(i, 10));
    }
    EXPECT_TRUE(values.isEmpty()) << "drawn at once, message by message";
    ASSERT_TRUE(spinUntil([this] { return m_state->text() == QLatin1String("Scanning..."); }))
        << m_state->text().toStdString();
    // Only the last report was drawn: the bar moved once, straight to 50 %.
    EXPECT_EQ(QList<int>{500}, values);
    EXPECT_EQ("5 of 10", m_files->text().toStdString());
    EXPECT_EQ(1000, m_bar->maximum());
}

TEST_F(ScanPageUpdatesTest, EveryOutcomeIsShownInItsColourAndTheNextJobIsPlainAgain)
{
    ASSERT_NO_FATAL_FAILURE(showAndSettle());
    const QColor plain = plainColour();
    const QColor green(0x1b, 0x7f, 0x3b);
    const QColor red(0xb0, 0x20, 0x20);

    emit m_client.jobCreated(QStringLiteral("gui-1-1"), 2);
    emit m_client.jobAccepted(QStringLiteral("gui-1-1"), 0);
    emit m_client.jobEnded(QStringLiteral("gui-1-1"), finished(2, 0));
    ASSERT_TRUE(spinUntil([this] { return m_state->text() == QLatin1String("Scan finished: no threats found."); }))
        << m_state->text().toStdString();
    EXPECT_EQ(green, textColour(m_state));
    EXPECT_EQ("0", m_threats->text().toStdString());
    EXPECT_EQ(plain, textColour(m_threats));
    EXPECT_FALSE(m_threats->font().bold());
    EXPECT_EQ(1000, m_bar->value());

    // The next job starts plain, then ends with threats: red, and the count in bold.
    emit m_client.jobCreated(QStringLiteral("gui-1-2"), 1);
    ASSERT_TRUE(spinUntil([this] { return m_state->text().startsWith(QLatin1String("Sending the scan request")); }))
        << m_state->text().toStdString();
    EXPECT_EQ(plain, textColour(m_state));
    EXPECT_TRUE(m_state->font().bold()) << "the state line keeps its own weight";
    emit m_client.jobAccepted(QStringLiteral("gui-1-2"), 0);
    emit m_client.jobEnded(QStringLiteral("gui-1-2"), finished(1, 2));
    ASSERT_TRUE(spinUntil([this] { return m_state->text() == QLatin1String("Scan finished: 2 threat(s) found."); }))
        << m_state->text().toStdString();
    EXPECT_EQ(red, textColour(m_state));
    EXPECT_EQ("2", m_threats->text().toStdString());
    EXPECT_EQ(red, textColour(m_threats));
    EXPECT_TRUE(m_threats->font().bold());

    // A third job: the count is plain again.
    emit m_client.jobCreated(QStringLiteral("gui-1-3"), 1);
    emit m_client.jobAccepted(QStringLiteral("gui-1-3"), 0);
    emit m_client.jobEnded(QStringLiteral("gui-1-3"), finished(1, 0));
    ASSERT_TRUE(spinUntil([this] { return m_state->text() == QLatin1String("Scan finished: no threats found."); }));
    EXPECT_EQ("0", m_threats->text().toStdString());
    EXPECT_EQ(plain, textColour(m_threats));
    EXPECT_FALSE(m_threats->font().bold());
    EXPECT_EQ(green, textColour(m_state));
}

TEST_F(ScanPageUpdatesTest, TheBackEndBoxIsRestyledOnlyWhenWhatItShowsChanges)
{
    ASSERT_NO_FATAL_FAILURE(showAndSettle());
    const QString before = m_boxText->text();
    EventCounter restyled(m_box, QEvent::StyleChange);

    // Statuses that change nothing shown (the back end sends several per job), and a job event
    // whose drawing tells that the page drew.
    for (int i = 0; i < 20; ++i) {
        emit m_client.backendChanged();
    }
    emit m_client.jobCreated(QStringLiteral("gui-1-1"), 1);
    ASSERT_TRUE(spinUntil([this] { return m_state->text().startsWith(QLatin1String("Sending the scan request")); }));
    EXPECT_EQ(0, restyled.count);
    EXPECT_EQ(before.toStdString(), m_boxText->text().toStdString());

    // Starting the back end from the page passes through "starting" to "not installed" in one pass:
    // only the outcome is drawn, and the box keeps the style it had (both offer to start it).
    m_client.startBackend();
    ASSERT_TRUE(spinUntil([this] { return m_boxText->text().contains(QLatin1String("is not installed")); }))
        << m_boxText->text().toStdString();
    EXPECT_EQ(0, restyled.count);
    EXPECT_TRUE(m_box->isVisible());
    EXPECT_TRUE(m_page.findChild<QWidget*>(QStringLiteral("kuvScanStartBackend"))->isVisible());
}

TEST_F(ScanPageUpdatesTest, AWaitShowsTheBusyBarOnlyOnceItHasLasted)
{
    ASSERT_NO_FATAL_FAILURE(showAndSettle());
    // When the busy bar is painted, counted from before the job began.
    QElapsedTimer sinceStart;
    QList<qint64> busyPaints;
    EventCounter animated(m_bar, QEvent::StyleAnimationUpdate);
    class BusyPaints : public QObject {
    public:
        BusyPaints(QProgressBar* bar, QElapsedTimer& clock, QList<qint64>& at) : m_bar(bar), m_clock(clock), m_at(at)
        {
            bar->installEventFilter(this);
        }
        // Paints of the bar with a value, not busy.
        int plainPaints = 0;

    protected:
        bool eventFilter(QObject*, QEvent* event) override
        {
            if (event->type() == QEvent::Paint && m_bar->maximum() == 0) {
                m_at << m_clock.elapsed();
            } else if (event->type() == QEvent::Paint) {
                ++plainPaints;
            }
            return false;
        }

    private:
        QProgressBar* m_bar;
        QElapsedTimer& m_clock;
        QList<qint64>& m_at;
    } busy(m_bar, sinceStart, busyPaints);

    sinceStart.start();
    emit m_client.jobCreated(QStringLiteral("gui-1-1"), 1);
    emit m_client.jobAccepted(QStringLiteral("gui-1-1"), 0);
    emit m_client.jobProgress(QStringLiteral("gui-1-1"), progress(0, -1));
    ASSERT_TRUE(spinUntil([this] { return m_state->text() == QLatin1String("Counting files..."); }));
    // Counting goes on: the busy bar comes, animated.
    ASSERT_TRUE(spinUntil([&busyPaints, &animated] { return !busyPaints.isEmpty() && animated.count > 0; }))
        << busyPaints.size() << " " << animated.count;
    for (const qint64 at : busyPaints) {
        EXPECT_GE(at, 300) << "the busy bar came before the wait had lasted";
    }

    // The job ends: the bar is full and its animation stops (the style stops it when it paints the bar
    // with a value).
    const int plainBefore = busy.plainPaints;
    emit m_client.jobProgress(QStringLiteral("gui-1-1"), progress(1, 1));
    emit m_client.jobEnded(QStringLiteral("gui-1-1"), finished(1, 0));
    ASSERT_TRUE(spinUntil([this] { return m_state->text() == QLatin1String("Scan finished: no threats found."); }));
    EXPECT_EQ(1000, m_bar->value());
    ASSERT_TRUE(spinUntil([&busy, plainBefore] { return busy.plainPaints > plainBefore; }));
    idle(50);
    const int after = animated.count;
    idle(300);
    EXPECT_LE(animated.count - after, 1) << "still animated";
}

TEST_F(ScanPageUpdatesTest, AHiddenPageDrawsNothingAndShowsTheLastStateWhenShown)
{
    const QString idleText = m_state->text();
    ASSERT_FALSE(idleText.isEmpty());
    emit m_client.jobCreated(QStringLiteral("gui-1-1"), 3);
    emit m_client.jobAccepted(QStringLiteral("gui-1-1"), 0);
    emit m_client.jobProgress(QStringLiteral("gui-1-1"), progress(2, 3));
    emit m_client.jobEnded(QStringLiteral("gui-1-1"), finished(3, 1));
    idle(300);
    EXPECT_EQ(idleText.toStdString(), m_state->text().toStdString()) << "drawn while hidden";

    // Shown: the last state at once, before the first paint.
    m_page.show();
    EXPECT_EQ("Scan finished: 1 threat(s) found.", m_state->text().toStdString());
    EXPECT_EQ("1", m_threats->text().toStdString());
    EXPECT_EQ("3", m_files->text().toStdString());
    EXPECT_EQ(1000, m_bar->value());
}

} // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
