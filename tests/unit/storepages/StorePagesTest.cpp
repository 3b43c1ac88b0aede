// SPDX-License-Identifier: GPL-2.0-or-later
// The Quarantine and History pages on a real per-user store: listing, restore (never over a file),
// delete, findings quarantined from an opened job; screenshots in English and Simplified Chinese.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include <QApplication>
#include <QDir>
#include <QEvent>
#include <QFileInfo>
#include <QImage>
#include <QLocale>
#include <QTranslator>

#include "Harness.h"
#include "HistoryPage.h"
#include "Quarantine.h"
#include "QuarantinePage.h"
#include "StorePaths.h"

using namespace kuv::store;
using kuv::shell::HistoryPage;
using kuv::shell::QuarantinePage;

namespace {

class StorePagesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("XDG_DATA_HOME", (m_dir.path() + "/data").c_str(), 1);
        setenv("XDG_CONFIG_HOME", (m_dir.path() + "/config").c_str(), 1);
        mkdir((m_dir.path() + "/home").c_str(), 0700);
        mkdir((m_dir.path() + "/home/Downloads").c_str(), 0700);
        mkdir((m_dir.path() + "/home/mail").c_str(), 0700);
    }
    std::string home(const std::string& rel) const { return m_dir.path() + "/home/" + rel; }
    std::unique_ptr<QuarantineStore> store()
    {
        std::string error;
        auto s = QuarantineStore::open(userDataDir(), error);
        EXPECT_TRUE(s) << error;
        return s;
    }
    int64_t addJob(int64_t ageMs, const std::string& state, int64_t files, const std::vector<std::string>& found,
                   int64_t durationMs = 4200)
    {
        JobRecord j;
        j.job = "job-" + std::to_string(ageMs);
        j.startMs = nowMs() - ageMs;
        j.durationMs = durationMs;
        j.state = state;
        j.paths = {home("")};
        j.files = files;
        j.bytes = files * 20000;
        j.infected = int64_t(found.size());
        for (const std::string& f : found) {
            j.findings.push_back({f, "infected", "Win.Test.Sample-1", "", ""});
        }
        j.findings.push_back({home("locked.db"), "error", "", "permission denied", ""});
        std::vector<std::string> notices;
        std::string error;
        EXPECT_TRUE(recordJob(userDataDir(), j, notices, error)) << error;
        return j.id;
    }

    kuvtest::TempDir m_dir;
};

TEST_F(StorePagesTest, QuarantinePageListsRestoresWithoutOverwritingAndDeletes)
{
    kuvtest::writeFile(home("Downloads/invoice.pdf.exe"), "first sample");
    kuvtest::writeFile(home("mail/invoice.pdf.exe"), "second sample");
    chmod(home("Downloads/invoice.pdf.exe").c_str(), 0755);
    {
        auto s = store();
        ASSERT_TRUE(s->quarantine(home("Downloads/invoice.pdf.exe"), "Win.Test.Sample-1", "").ok());
        ASSERT_TRUE(s->quarantine(home("mail/invoice.pdf.exe"), "Win.Test.Sample-2", "").ok());
    }
    QuarantinePage page;
    ASSERT_EQ(page.entryCount(), 2);

    // Something new stands at one original place: restore leaves it and keeps the entry.
    kuvtest::writeFile(home("Downloads/invoice.pdf.exe"), "the user's new file");
    page.select();
    EXPECT_EQ(page.restoreSelected(false), 1);
    EXPECT_EQ(kuvtest::readFile(home("Downloads/invoice.pdf.exe")), "the user's new file");
    EXPECT_EQ(kuvtest::readFile(home("mail/invoice.pdf.exe")), "second sample");
    ASSERT_EQ(page.entryCount(), 1);
    EXPECT_FALSE(page.message().isEmpty());

    page.select();
    EXPECT_EQ(page.restoreSelected(true), 1);
    EXPECT_EQ(kuvtest::readFile(home("Downloads/invoice.pdf.exe.restored")), "first sample");
    struct stat st {};
    ASSERT_EQ(stat(home("Downloads/invoice.pdf.exe.restored").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0755u);
    EXPECT_EQ(page.entryCount(), 0);

    {
        auto s = store();
        ASSERT_TRUE(s->quarantine(home("mail/invoice.pdf.exe"), "Win.Test.Sample-2", "").ok());
    }
    page.refresh();
    page.select();
    EXPECT_EQ(page.deleteSelected(), 1);
    EXPECT_EQ(page.entryCount(), 0);
    EXPECT_TRUE(store()->list().empty());
    EXPECT_FALSE(QFileInfo::exists(QString::fromStdString(home("mail/invoice.pdf.exe"))));
}

TEST_F(StorePagesTest, HistoryPageOpensAJobAndQuarantinesItsFindings)
{
    kuvtest::writeFile(home("Downloads/a.exe"), "sample a");
    kuvtest::writeFile(home("Downloads/b.exe"), "sample b");
    addJob(3 * 86400000LL, "done", 1200, {});
    const int64_t withFindings = addJob(3600000, "done", 48, {home("Downloads/a.exe"), home("Downloads/b.exe")});
    addJob(60000, "cancelled", 7, {});
    // Older than the retention setting: pruned when the page reads the history.
    addJob(400LL * 86400000, "done", 1, {});

    HistoryPage page;
    EXPECT_EQ(page.jobCount(), 3);
    ASSERT_TRUE(page.openJob(withFindings));
    EXPECT_EQ(page.findingCount(), 3);
    EXPECT_EQ(page.quarantineSelected(true), 2) << page.message().toStdString();
    EXPECT_FALSE(QFileInfo::exists(QString::fromStdString(home("Downloads/a.exe"))));
    auto s = store();
    ASSERT_EQ(s->list().size(), 2u);
    EXPECT_EQ(s->db().pendingFindings(), 0);
    JobRecord j;
    ASSERT_TRUE(s->db().job(withFindings, j));
    EXPECT_EQ(j.findings[0].action.rfind("quarantined ", 0), 0u) << j.findings[0].action;
    // Handled findings are not handled twice.
    EXPECT_EQ(page.quarantineSelected(true), 0);
    EXPECT_FALSE(page.openJob(999999));
}

TEST_F(StorePagesTest, ScreenshotsInEnglishAndSimplifiedChinese)
{
    kuvtest::writeFile(home("Downloads/invoice.pdf.exe"), "one");
    kuvtest::writeFile(home("mail/invoice.pdf.exe"), "two");
    kuvtest::writeFile(home("Downloads/setup-crack.exe"), std::string(300000, 'x'));
    kuvtest::writeFile(home("Downloads/a.exe"), "sample a");
    {
        auto s = store();
        ASSERT_TRUE(s->quarantine(home("Downloads/invoice.pdf.exe"), "Win.Trojan.Agent-123", "").ok());
        ASSERT_TRUE(s->quarantine(home("mail/invoice.pdf.exe"), "Win.Trojan.Agent-123", "").ok());
        ASSERT_TRUE(s->quarantine(home("Downloads/setup-crack.exe"), "Win.Packed.Generic-9", "").ok());
    }
    addJob(2 * 86400000LL, "done", 15230, {}, 312000);
    addJob(5 * 3600000LL, "cancelled", 310, {});
    const int64_t found = addJob(600000, "done", 48, {home("Downloads/a.exe"), home("Downloads/b.exe")});

    const char* build = std::getenv("KUV_BUILD_DIR");
    const QString outDir = QString::fromLocal8Bit(build != nullptr ? build : ".") + "/screenshots";
    ASSERT_TRUE(QDir().mkpath(outDir));
    QuarantinePage quarantine;
    HistoryPage history;
    quarantine.resize(900, 560);
    history.resize(900, 560);
    history.openJob(found);
    QTranslator zh;
    QImage english;
    for (const QString& lang : {QStringLiteral("en"), QStringLiteral("zh-CN")}) {
        if (lang == QLatin1String("zh-CN")) {
            ASSERT_TRUE(zh.load(QStringLiteral(":/kuvgui/i18n/kuvguistore_zh_CN.qm")));
            QCoreApplication::installTranslator(&zh);
            QLocale::setDefault(QLocale(QStringLiteral("zh_CN")));
            history.openJob(found);
        }
        QCoreApplication::processEvents();
        for (QWidget* page : {static_cast<QWidget*>(&quarantine), static_cast<QWidget*>(&history)}) {
            page->show();
            QCoreApplication::processEvents();
            const QImage shot = page->grab().toImage();
            const QString file = QStringLiteral("%1/store-%2-%3.png").arg(outDir, lang, page->objectName());
            ASSERT_TRUE(shot.save(file, "PNG")) << file.toStdString();
            EXPECT_GT(QFileInfo(file).size(), 5000) << file.toStdString();
            if (page == &history && lang == QLatin1String("en")) {
                english = shot;
            } else if (page == &history) {
                EXPECT_NE(shot, english) << "the Chinese page looks like the English one";
            }
            page->hide();
        }
    }
    QCoreApplication::removeTranslator(&zh);
    QLocale::setDefault(QLocale::c());
}

} // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
