// SPDX-License-Identifier: GPL-2.0-or-later
// The smallest useful plugin: a page that shows the bus messages of type 4242 it receives.
#include <memory>

#include <QLabel>
#include <QObject>
#include <QPointer>

#include "IKuvGuiPlugin.h"
#include "KuvPluginSupport.h"

class HelloPlugin : public QObject, public IKuvGuiPlugin {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID KUV_GUI_PLUGIN_IID)
    Q_INTERFACES(IKuvGuiPlugin)
public:
    ~HelloPlugin() override { uninit(); }

    int init(const QVariant& paras) override
    {
        m_page = new QLabel();
        m_page->setObjectName(QStringLiteral("helloPage"));
        m_page->setWindowTitle(tr("Hello"));
        QLabel* page = m_page;
        m_receiver = std::make_unique<kuvsdk::GuiThreadReceiver>(
            page, [page](const kuvsdk::BusMessage& m) { page->setText(kuvsdk::printable(m.body)); });
        m_bus.open(paras, QStringLiteral("5A6B7C8D-1111-2222-3333-444455556666"));
        m_bus.listen(4242, m_receiver.get());
        page->setText(m_bus.state() == kuvsdk::PluginEndpoint::ON_BUS ? m_bus.guidText() : tr("No bus"));
        return 0;
    }
    void uninit() override
    {
        m_bus.close();
        delete m_page.data();
        m_receiver.reset();
    }
    QWidget* page() override { return m_page; }
    QString title() const override { return tr("Hello"); }

private:
    kuvsdk::PluginEndpoint m_bus;
    std::unique_ptr<kuvsdk::GuiThreadReceiver> m_receiver;
    QPointer<QLabel> m_page;
};

#include "HelloPlugin.moc"
