// SPDX-License-Identifier: GPL-2.0-or-later
#include "cAfxGuiMain.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <stdexcept>

#include <QCoreApplication>
#include <QtGlobal>

#include "BFLog.h"
#include "CCronTimer.h"
#include "CContainerMgr.h"
#include "CGlobalTag.h"
#include "CGuiMsgHandle.h"
#include "CGuiServer.h"
#include "CMervoConfigProxy.h"
#include "CPluginMgr.h"
#include "ConfigModule.h"
#include "ConstConfig.h"
#include "CppJson.h"
#include "FileUtils.h"
#include "Guid.h"
#include "KuvGuiInterface.h"

// The source named in every record of this file.
BF_LOG_SOURCE("gui/service/core/bin/cAfxGuiMain");

namespace {
const char* const kAppGuid = "F6352E50-5C40-11EE-BEE1-47BAD2011C1F";
const char* const kMonitorTimer = "CAfxGuiMainMonitorVersion";
const char* const kBackendMarker = "data/pubcfg/.guiexit";
const int kMsgTypeUpdatePlugins = 1003;
} // namespace

void qCleanupResources_all() { Q_CLEANUP_RESOURCE(kuvgui_service); }

CAfxGuiMain::CAfxGuiMain(CGlobalTag* tag)
    : QObject(nullptr)
    , m_pPluginMgr(nullptr)
    , m_pContainerMgr(nullptr)
    , m_pGlobalTag(tag)
    , m_pGuiMsgHandle(nullptr)
    , m_pEndPoint(nullptr)
{
    m_pPluginMgr = new CPluginMgr(nullptr);
    m_pGuiMsgHandle = new CGuiMsgHandle;
    m_pGuiMsgHandle->setCallback(&CAfxGuiMain::updatePlugins_s, this);
    m_strClientVersion = ConstConfig::singleInstance()->getClientVersion();
    basegui::Common::setLan("zh-CN");
}

CAfxGuiMain::~CAfxGuiMain()
{
    // exit() leaves the restart monitor registered, but its callback is bound to this object.
    CCronTimerInterface::singleInstance()->cancelTimerInline(kMonitorTimer);
    CLogDebug::Close();
}

int CAfxGuiMain::init(int& argc, char** argv)
{
    srand(static_cast<unsigned int>(time(nullptr)));

    if (initLog() != 1) {
        puts("failed to init debug log");
        return -1;
    }

    if (!CMervoConfigProxy::instance()->init(ConstConfig::singleInstance()->getInstallDir())) {
        BF_LOG(LOG_LEVEL_ERROR, "===== configproxy init faild. =====");
        return -1;
    }

    startBackand();

    if (initComm() != 1) {
        BF_LOG(LOG_LEVEL_ERROR, "failed to init communication");
        return -1;
    }

    m_pPluginMgr->init(m_pGlobalTag, m_pContainerMgr);

    sUninstallFunc uninstall;
    uninstall.pfnUninstall = &CAfxGuiMain::uninstallAllCombo;
    uninstall.pContext = this;
    if (KuvGuiInterface::init(argc, argv, uninstall) != 0) {
        return -1;
    }

    m_pPluginMgr->updatePluginStatus();

    CCronTimerInterface::TimerFunc monitor = std::bind(&CAfxGuiMain::monitorVersion, this, std::placeholders::_1);
    CCronTimerInterface::TimerFunc freeFunc = &CCronTimerInterface::g_funcFree;
    CCronTimerInterface::singleInstance()->addDelayTimerInline(30000, monitor, kMonitorTimer, freeFunc, nullptr, 0,
                                                               false, static_cast<CCronTimer::TimerExecMode>(1));

    startGuiGuard();
    return 0;
}

int CAfxGuiMain::initComm()
{
    m_pContainerMgr = new CContainerMgr(m_pGlobalTag);
    if (m_pContainerMgr->init() != 1) {
        BF_LOG(LOG_LEVEL_ERROR, "init ContainerMgr failed");
        return 0;
    }

    m_pEndPoint = m_pContainerMgr->createEndPoint();
    if (m_pEndPoint != nullptr) {
        GUID guid{};
        stringToGuid(guid, kAppGuid);
        if (m_pEndPoint->init(guid) != 0) {
            BF_LOG(LOG_LEVEL_ERROR, "[CAfxGuiMain] init failed, guid is [%s]", kAppGuid);
            return 0;
        }
        m_pEndPoint->registerRecvNotify(kMsgTypeUpdatePlugins, m_pGuiMsgHandle, 0);
    } else {
        BF_LOG(LOG_LEVEL_ERROR, "create CAfxGuiMain endpoint failed.");
    }

    // A command server that cannot listen costs the second-start commands, not the GUI.
    CGuiServer::GetInstance()->start();
    return 1;
}

int CAfxGuiMain::exec()
{
    if (m_pContainerMgr != nullptr) {
        m_pContainerMgr->notifyRunning();
    }
    return KuvGuiInterface::exec();
}

void CAfxGuiMain::exit()
{
    // Not the monitor's name: the restart monitor stays registered through the exit.
    CCronTimerInterface::singleInstance()->cancelTimerInline("BaseMgrPluginMonitorVersion");

    CGuiServer::GetInstance()->stop();
    utils::SingletonAbstract<CGuiServer>::UninitInstance();

    ConfigModule::UninitInstance();

    if (KuvGuiInterface::ctrl(GUI_CTR_STOP_BACKEND, nullptr)) {
        BF_LOG(LOG_LEVEL_INFO, "====== stop backend ======\n");
        stopBackand();
    } else {
        BF_LOG(LOG_LEVEL_INFO, "====== not stop backend ======\n");
    }

    CMervoConfigProxy::instance()->unloadLib();

    delete m_pPluginMgr;
    m_pPluginMgr = nullptr;

    delete m_pGuiMsgHandle;
    m_pGuiMsgHandle = nullptr;

    if (m_pContainerMgr != nullptr) {
        m_pContainerMgr->destroyEndPoint(m_pEndPoint);
        m_pEndPoint = nullptr;
        m_pContainerMgr->uninit();
        delete m_pContainerMgr;
        m_pContainerMgr = nullptr;
    }

    ConstConfig::UninitInstance();
    qCleanupResources_all();
}

int CAfxGuiMain::uninstallAllCombo(void* ctx)
{
    auto* self = static_cast<CAfxGuiMain*>(ctx);
    if (self == nullptr || self->m_pPluginMgr == nullptr) {
        return 0;
    }
    return self->m_pPluginMgr->unInstallAllCombo();
}

int CAfxGuiMain::initLog()
{
    const std::string installDir = ConstConfig::singleInstance()->getInstallDir();
    const std::string confPath = ConstConfig::singleInstance()->getConfigurationDir() + "debug/gui_debug.conf";

    if (!CFile(confPath).exists()) {
        printf("No valid logdebug configuration file %s\n", confPath.c_str());
        return 0;
    }
    Json::Value root;
    if (!CppJson::LoadJsonFile(confPath.c_str(), root)) {
        printf("No valid logdebug configuration file %s\n", confPath.c_str());
        return 0;
    }

    CLogDebug* log = CLogDebug::Instance();
    const std::string logPath = installDir + "/log/";
    const std::string logName = "kuvgui";
    log->SetProperty(LOG_PROPERTY_PATH, logPath.c_str());
    log->SetProperty(LOG_PROPERTY_NAME, logName.c_str());

    const int logSize = CppJson::GetInt("log_size", root, 1048576);
    log->SetProperty(LOG_PROPERTY_SIZE, std::to_string(logSize).c_str());
    const int backupNum = CppJson::GetInt("log_backup_max_num", root, 5);
    log->SetProperty(LOG_PROPERTY_BACKUP, std::to_string(backupNum).c_str());
    const int logLevel = CppJson::GetInt("log_level", root, 3);
    log->SetProperty(LOG_PROPERTY_LEVEL, std::to_string(logLevel).c_str());

    printf("===== initLog =====\n===== loglevel:%d\n===== logSize:%d\n===== logName:%s\n===== logPath:%s\n"
           "===== logBackupMaxNum:%d\n",
           logLevel, logSize, logName.c_str(), logPath.c_str(), backupNum);
    return 1;
}

void CAfxGuiMain::startBackand()
{
    CFile marker(ConstConfig::singleInstance()->getInstallDir() + kBackendMarker);
    if (marker.exists()) {
        BF_LOG(LOG_LEVEL_INFO, "[CAfxGuiMain] find %s ...", kBackendMarker);
        try {
            if (marker.remove()) {
                BF_LOG(LOG_LEVEL_INFO, "[CAfxGuiMain] remove %s finish", kBackendMarker);
            } else {
                BF_LOG(LOG_LEVEL_WARN, "[CAfxGuiMain] remove %s failed", kBackendMarker);
            }
        } catch (const std::runtime_error& e) {
            BF_LOG(LOG_LEVEL_WARN, "删除文件时发生异常: %s", e.what());
        }
    } else {
        BF_LOG(LOG_LEVEL_WARN, "[CAfxGuiMain] not find %s", kBackendMarker);
    }
}

void CAfxGuiMain::stopBackand()
{
    CFile marker(ConstConfig::singleInstance()->getInstallDir() + kBackendMarker);
    if (!marker.exists()) {
        BF_LOG(LOG_LEVEL_INFO, "[CAfxGuiMain] not find %s", kBackendMarker);
        if (marker.open(std::ios::out)) {
            marker.close(std::ios::in | std::ios::out);
            BF_LOG(LOG_LEVEL_INFO, "[CAfxGuiMain] create %s finish", kBackendMarker);
        } else {
            BF_LOG(LOG_LEVEL_WARN, "[CAfxGuiMain] open %s failed", kBackendMarker);
        }
    } else {
        BF_LOG(LOG_LEVEL_WARN, "[CAfxGuiMain] find %s", kBackendMarker);
    }
}

void CAfxGuiMain::startGuiGuard()
{
    BF_LOG(LOG_LEVEL_INFO, "[CAfxGuiMain] start gui guard");
    const std::string script = ConstConfig::singleInstance()->getInstallDir() + "script/" + "kuvgui_guard.sh";
    if (access(script.c_str(), F_OK) != 0) {
        BF_LOG(LOG_LEVEL_WARN, "[CAfxGuiMain] not find  %s", script.c_str());
        return;
    }
    BF_LOG(LOG_LEVEL_INFO, "[CAfxGuiMain] find %s", script.c_str());
    const std::string arguments = "1";
    BF_LOG(LOG_LEVEL_INFO, "[CAfxGuiMain] Cmd %s", arguments.c_str());
    CProcess process;
    const int rc = process.execute(script, arguments, true);
    BF_LOG(LOG_LEVEL_INFO, "[CAfxGuiMain] start kuvgui_guard end");
    if (rc != 1) {
        BF_LOG(LOG_LEVEL_INFO, "[CAfxGuiMain] restart kuvgui_guard failed");
    }
}

void CAfxGuiMain::monitorVersion(void* /*data*/)
{
    const std::string current = ConstConfig::singleInstance()->getClientVersion();
    if (current == m_strClientVersion) {
        return;
    }
    // The stored version is kept: the restart is asked for again until this process is replaced.
    BF_LOG(LOG_LEVEL_INFO, "[CAfxGuiMain] client version changed from [%s] to [%s], restart the user interface",
           m_strClientVersion.c_str(), current.c_str());
    const std::string command = QCoreApplication::applicationDirPath().toStdString() + "/../script/starttaviksd.sh";
    CProcess process;
    process.execute(command, "user_restart", true);
}

void CAfxGuiMain::updatePlugins_s(void* data)
{
    BF_LOG(LOG_LEVEL_ERROR, "[CAfxGuiMain] updatePlugins_s: plugin update notice received");
    if (data != nullptr) {
        BF_LOG(LOG_LEVEL_ERROR, "[CAfxGuiMain] updatePlugins_s: plugin state is evaluated at start, nothing to do");
    } else {
        BF_LOG(LOG_LEVEL_ERROR, "[CAfxGuiMain] data is null");
    }
}
