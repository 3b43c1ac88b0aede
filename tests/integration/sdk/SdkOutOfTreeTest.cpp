// SPDX-License-Identifier: GPL-2.0-or-later
// The installed plugin SDK: a plugin configured and built out of tree with find_package(KuvGuiPluginSDK)
// against the staged installation, then loaded by the plugin loader onto a bus endpoint double.
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QTemporaryDir>
#include <QTranslator>

#include "CLogDebug.h"
#include "CQPluginManager.h"
#include "FakeEndpoint.h"
#include "PluginInitParas.h"
#include "ShellTestSupport.h"

namespace {

// Runs a command line, returns its exit status and appends its output to log.
int run(const std::string& command, std::string& log)
{
    log += "$ " + command + "\n";
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    if (p == nullptr) {
        return -1;
    }
    char buf[4096];
    size_t n = 0;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) {
        log.append(buf, n);
    }
    return pclose(p);
}

std::string quote(const std::string& s)
{
    std::string out = "'";
    for (char c : s) {
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return out + "'";
}

using shelltest::spinUntil;

TEST(SdkOutOfTree, PluginBuiltAgainstTheInstalledSdkLoadsAndTalksToItsEndpoint)
{
    const char* stage = std::getenv("KUV_STAGE_DIR");
    ASSERT_NE(nullptr, stage);
    ASSERT_TRUE(QFile::exists(QString::fromLocal8Bit(stage) + "/lib/cmake/KuvGuiPluginSDK/KuvGuiPluginSDKConfig.cmake"));
    ASSERT_TRUE(QFile::exists(QString::fromLocal8Bit(stage) + "/include/kuvgui-sdk/IKuvGuiPlugin.h"));

    // A copy of the installation, as integration tests use it, so nothing points back at the build tree.
    QTemporaryDir tmp;
    ASSERT_TRUE(tmp.isValid());
    const std::string root = tmp.path().toStdString();
    std::string log;
    ASSERT_EQ(0, run("cp -a " + quote(stage) + " " + quote(root + "/install"), log)) << log;
    ASSERT_EQ(0, run("cp -a " + quote(SDK_SAMPLE_DIR) + " " + quote(root + "/src"), log)) << log;

    // The test environment's sanitizer settings are not the out-of-tree build's business.
    const std::string env = "env -u ASAN_OPTIONS -u LSAN_OPTIONS -u UBSAN_OPTIONS -u TSAN_OPTIONS ";
    const std::string configure = env + quote(SDK_CMAKE) + " -S " + quote(root + "/src") + " -B " +
                                  quote(root + "/build") + " -G " + quote(SDK_GENERATOR) +
                                  " -DCMAKE_MAKE_PROGRAM=" + quote(SDK_MAKE_PROGRAM) +
                                  " -DCMAKE_CXX_COMPILER=" + quote(SDK_CXX) + " -DCMAKE_PREFIX_PATH=" +
                                  quote(root + "/install") + " -DCMAKE_BUILD_TYPE=Release";
    ASSERT_EQ(0, run(configure, log)) << log;
    ASSERT_EQ(0, run(env + quote(SDK_CMAKE) + " --build " + quote(root + "/build"), log)) << log;
    const QString module = QString::fromStdString(root + "/build/libkuvplugin_hello.so");
    ASSERT_TRUE(QFile::exists(module)) << log;

    // Installed like a packaged plugin: module in lib/plugins/, description in etc/plugins-gui/plugins/.
    const QString install = QString::fromStdString(root + "/install/");
    ASSERT_TRUE(QFile::copy(module, install + "lib/plugins/libkuvplugin_hello.so"));
    {
        QFile desc(install + "etc/plugins-gui/plugins/hello.json");
        ASSERT_TRUE(desc.open(QIODevice::WriteOnly));
        desc.write(R"({"id": "hello", "library": "lib/plugins/libkuvplugin_hello.so",
                       "iid": "org.kuv.gui.IKuvGuiPlugin/1.0", "version": "0.1",
                       "guid": "5A6B7C8D-1111-2222-3333-444455556666", "description": "out of tree"})");
    }
    CLogDebug::Instance()->SetProperty(LOG_PROPERTY_PATH, (root + "/").c_str());
    CQPluginManager* loader = CQPluginManager::singleInstance();
    loader->setPluginRelativeRootPath(install);
    loader->setPluginConfigFilePath(install + "etc/plugins-gui/plugins/");
    EXPECT_GE(loader->loadAllPluginInfo(), 4) << "the sample plugins and this one";

    FakeEndpoint endpoint;
    sPluginInitParas paras;
    paras.mapParas.insert(QStringLiteral("IZellMREndPoint4"), QVariant::fromValue<void*>(&endpoint));
    paras.mapParas.insert(QStringLiteral("CGlobalTag"), QVariant::fromValue<void*>(nullptr));
    loader->installPluginAsyn(QStringLiteral("hello"), QVariant::fromValue(paras));
    CQPluginManager::PluginStatus status;
    ASSERT_TRUE(spinUntil([&] {
        for (const auto& s : loader->pluginStatus()) {
            if (s.id == QLatin1String("hello") && s.state != CQPluginManager::PLUGIN_KNOWN) {
                status = s;
                return true;
            }
        }
        return false;
    }));
    ASSERT_EQ(CQPluginManager::PLUGIN_LOADED, status.state) << status.reason.toStdString();
    EXPECT_EQ("Hello", status.pageTitle.toStdString());
    auto* label = qobject_cast<QLabel*>(status.page.data());
    ASSERT_NE(nullptr, label);
    EXPECT_EQ("5A6B7C8D-1111-2222-3333-444455556666", label->text().toStdString());
    EXPECT_EQ(std::vector<int64_t>{4242}, endpoint.registeredTypes());

    // A message from a bus thread reaches the page on the GUI thread.
    ASSERT_TRUE(endpoint.deliver(4242, "hello from the bus"));
    ASSERT_TRUE(spinUntil([label] { return label->text() == QLatin1String("hello from the bus"); }));

    // Its embedded catalog is where the shell looks for catalogs.
    QTranslator zh;
    ASSERT_TRUE(zh.load(QStringLiteral(":/kuvgui/i18n/kuvplugin_hello_zh_CN.qm")));
    EXPECT_EQ("你好", zh.translate("HelloPlugin", "Hello").toStdString());

    std::vector<int> results;
    QObject::connect(loader, &CQPluginManager::sig_unstallPluginComplete, loader,
                     [&results](QString, int result) { results.push_back(result); });
    loader->unstallPluginAsyn(QStringLiteral("hello"));
    ASSERT_TRUE(spinUntil([&] { return !results.empty(); }));
    EXPECT_EQ(0, results[0]);
    EXPECT_EQ(1, endpoint.uninits());
    CQPluginManager::UninitInstance();
}

} // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
