// SPDX-License-Identifier: GPL-2.0-or-later
// A test plugin whose behaviour is chosen at build time (FAKE_MODE) and which writes what it is asked
// into the file named by $FAKE_PLUGIN_TRACE, one line per call.
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include <QCoreApplication>
#include <QLabel>
#include <QObject>
#include <QPointer>
#include <QThread>

#include "IKuvGuiPlugin.h"
#include "PluginInitParas.h"

#define FAKE_GOOD 0
#define FAKE_FAIL 1
#define FAKE_THROW 2
#define FAKE_UNINIT_THROW 3

namespace {

void trace(const QString& line)
{
    const char* path = std::getenv("FAKE_PLUGIN_TRACE");
    if (path == nullptr) {
        return;
    }
    if (FILE* f = std::fopen(path, "a")) {
        std::fprintf(f, "%s\n", line.toUtf8().constData());
        std::fclose(f);
    }
}

QString onGuiThread()
{
    return QThread::currentThread() == QCoreApplication::instance()->thread() ? QStringLiteral("gui")
                                                                             : QStringLiteral("other");
}

} // namespace

class FakePlugin : public QObject, public IKuvGuiPlugin {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID FAKE_IID)
    Q_INTERFACES(IKuvGuiPlugin)
public:
    int init(const QVariant& paras) override
    {
        const sPluginInitParas p = paras.value<sPluginInitParas>();
        trace(QStringLiteral("init %1 thread=%2 guid=%3 endpoint=%4")
                  .arg(QStringLiteral(FAKE_NAME), onGuiThread(),
                       p.mapParas.value(QStringLiteral("PluginGuid")).toString(),
                       p.mapParas.value(QStringLiteral("IZellMREndPoint4")).value<void*>() != nullptr
                           ? QStringLiteral("set")
                           : QStringLiteral("null")));
#if FAKE_MODE == FAKE_FAIL
        return 3;
#elif FAKE_MODE == FAKE_THROW
        throw std::runtime_error("init exploded");
#else
        m_page = new QLabel(QStringLiteral(FAKE_NAME));
        return 0;
#endif
    }

    void uninit() override
    {
        trace(QStringLiteral("uninit %1 thread=%2").arg(QStringLiteral(FAKE_NAME), onGuiThread()));
        delete m_page.data();
#if FAKE_MODE == FAKE_UNINIT_THROW
        throw std::logic_error("uninit exploded");
#endif
    }

    QWidget* page() override { return m_page; }
    QString title() const override { return QStringLiteral("Page of " FAKE_NAME); }

    ~FakePlugin() override { trace(QStringLiteral("deleted %1").arg(QStringLiteral(FAKE_NAME))); }

private:
    QPointer<QLabel> m_page;
};

#include "FakePlugin.moc"
