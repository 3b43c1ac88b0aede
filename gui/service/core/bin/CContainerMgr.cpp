// SPDX-License-Identifier: GPL-2.0-or-later
#include "CContainerMgr.h"

#include <dlfcn.h>

#include <cstdio>
#include <sstream>

#include <json/json.h>

#include "BFLog.h"
#include "CGlobalTag.h"
#include "CLogDebug.h"
#include "ConstConfig.h"
#include "CppJson.h"
#include "FileUtils.h"

namespace {

BF_LOG_SOURCE("gui/service/core/bin/CContainerMgr");
const char* const kInstanceGuid = "69948CC6-CA3A-471E-9D6D-E532496DBBE2";
const char* const kZellLogName = "kuvgui.zell";

// The bus log callback reports itself under this fixed line.
const unsigned int kZellLogLine = 168;

} // namespace

// The bus module's own log (kuvgui.zell): opened by zellInitLog, written by zellLogCallback on whichever
// thread the bus module logs from.
CLogDebug* CContainerMgr::g_pLogZell = nullptr;

CContainerMgr::CContainerMgr(CGlobalTag* tag)
    : m_pZellProxy(nullptr), m_hModule(nullptr), m_bInit(false), m_nStatus(0), m_pGlobalTag(tag)
{
}

CContainerMgr::~CContainerMgr()
{
    // The owner has normally torn down already; this second call only logs that it had.
    uninit();
}

void CContainerMgr::ReceiveCallback(uint64_t, int64_t, const char*, int, uint64_t, uint64_t) {}

int CContainerMgr::init()
{
    // A second call fails silently.
    if (m_bInit) {
        return 0;
    }
    if (!zellInitLog()) {
        BF_LOG(LOG_LEVEL_ERROR, "zellLogHelperInit failed");
        return 0;
    }
    if (initZell() != 1) {
        BF_LOG(LOG_LEVEL_ERROR, "initZell failed");
        return 0;
    }
    m_nStatus = 1;
    publishStatus();
    m_bInit = true;
    return 1;
}

int CContainerMgr::notifyRunning()
{
    if (!m_bInit) {
        return 0;
    }
    m_nStatus = 2;
    publishStatus();
    m_nStatus = 3;
    publishStatus();
    return 1;
}

void CContainerMgr::publishStatus()
{
    if (m_pGlobalTag == nullptr) {
        return;
    }
    std::ostringstream text;
    text << m_nStatus;
    m_pGlobalTag->setAttribute("status", text.str());
}

std::string CContainerMgr::getBaseDir()
{
    return CDir::currentDir() + "/../";
}

bool CContainerMgr::zellInitLog()
{
    ConstConfig* config = ConstConfig::singleInstance();
    const std::string confFile = config->getConfigurationDir() + "debug/gui_zell_debug.conf";
    const std::string logDir = config->getInstallDir() + "/log/";

    if (!CFile(confFile).exists()) {
        printf("No valid logdebug configuration file %s\n", confFile.c_str());
        return false;
    }
    Json::Value conf;
    if (!CppJson::LoadJsonFile(confFile.c_str(), conf)) {
        printf("No valid logdebug configuration file %s\n", confFile.c_str());
        return false;
    }

    // A null handle only leaves the bus log silent.
    g_pLogZell = LogInit(kZellLogName);

    const int logSize = CppJson::GetInt("log_size", conf, 0x100000);
    const int backupMaxNum = CppJson::GetInt("log_backup_max_num", conf, 5);
    const int logLevel = CppJson::GetInt("log_level", conf, 3);
    if (g_pLogZell != nullptr) {
        g_pLogZell->SetProperty(LOG_PROPERTY_PATH, logDir.c_str());
        g_pLogZell->SetProperty(LOG_PROPERTY_NAME, kZellLogName);
        g_pLogZell->SetProperty(LOG_PROPERTY_SIZE, std::to_string(logSize).c_str());
        g_pLogZell->SetProperty(LOG_PROPERTY_BACKUP, std::to_string(backupMaxNum).c_str());
        g_pLogZell->SetProperty(LOG_PROPERTY_LEVEL, std::to_string(logLevel).c_str());
    }

    printf("===== zellInitLog =====\n===== loglevel:%d\n===== logSize:%d\n===== logName:%s\n===== logPath:%s\n"
           "===== logBackupMaxNum:%d\n",
           logLevel, logSize, kZellLogName, logDir.c_str(), backupMaxNum);
    return true;
}

int CContainerMgr::initZell()
{
    BF_LOG(LOG_LEVEL_INFO, "[CContainerMgr] start init zell");

    const std::string baseDir = getBaseDir();
    const std::string libPath = baseDir + "lib/modules/libZellClientMgr.so";
    m_hModule = dlopen(libPath.c_str(), RTLD_LAZY);
    if (m_hModule == nullptr) {
        BF_LOG(LOG_LEVEL_ERROR, "dlopen failed: %s.", dlerror());
        return 0;
    }

    auto createInstance = reinterpret_cast<PFN_CreateInstance>(dlsym(m_hModule, "CreateInstance"));
    if (createInstance == nullptr) {
        BF_LOG(LOG_LEVEL_ERROR, "dlsym CreateInstance failed: %s.", dlerror());
        dlclose(m_hModule);
        return 0;
    }

    m_pZellProxy = createInstance(kInstanceGuid);
    if (m_pZellProxy == nullptr) {
        dlclose(m_hModule);
        return 0;
    }

    // Each member on its own, so that one that cannot be set does not cost the others.
    Json::Value settings(Json::objectValue);
    const auto setMember = [&settings](const char* key, const Json::Value& value) {
        try {
            settings[key] = value;
        } catch (...) {
        }
    };
    setMember("log_path", baseDir + "log/gui/gui.ipc.log");
    setMember("log_backup_path", baseDir + "log/gui/backup");
    setMember("socket_addr", "./kuv_zell");
    setMember("thread_nums", 1);
    setMember("log_level", 4);
    setMember("log_size", 0xA00000);

    std::string settingsText;
    if (!CppJson::WriteJsonToString(settings, settingsText, true)) {
        // m_pZellProxy is left as it is: the instance is not given back on this path.
        dlclose(m_hModule);
        return 0;
    }
    if (m_pZellProxy->init(settingsText.c_str(), "gui") != 0) {
        dlclose(m_hModule);
        return 0;
    }

    m_pZellProxy->setLogCallback(&CContainerMgr::zellLogCallback);
    m_pZellProxy->setLogMask(0xFFFFFFFF);

    BF_LOG(LOG_LEVEL_INFO, "[CContainerMgr] end init zell");
    return 1;
}

void CContainerMgr::zellLogCallback(int level, const char* text, int)
{
    if (g_pLogZell == nullptr) {
        return;
    }
    // The bus counts 0 as most severe, the process log counts 4 as most severe.
    _LOG_LEVEL mapped;
    switch (level) {
    case 0:
        mapped = LOG_LEVEL_ERROR;
        break;
    case 1:
        mapped = LOG_LEVEL_WARN;
        break;
    case 2:
        mapped = LOG_LEVEL_INFO;
        break;
    case 3:
    case 4:
        mapped = LOG_LEVEL_DEBUG;
        break;
    default:
        mapped = LOG_LEVEL_TRACE;
        break;
    }
    LogPrintStrEx(g_pLogZell, mapped, kBFLogSource, "zellLogCallback", kZellLogLine, text);
}

int CContainerMgr::uninit()
{
    BF_LOG(LOG_LEVEL_INFO, "[CContainerMgr] start uninit");
    if (!m_bInit) {
        BF_LOG(LOG_LEVEL_ERROR, "[CContainerMgr] uninit failed, not init");
        return 0;
    }

    if (m_pZellProxy != nullptr) {
        BF_LOG(LOG_LEVEL_INFO, "[CContainerMgr] start uninit zell");
        m_pZellProxy->stop();
        m_pZellProxy->release();
        auto destroyInstance = reinterpret_cast<PFN_DestoryInstance>(dlsym(m_hModule, "DestoryInstance"));
        if (destroyInstance != nullptr) {
            destroyInstance(kInstanceGuid, m_pZellProxy);
            m_pZellProxy = nullptr;
        } else {
            BF_LOG(LOG_LEVEL_ERROR, "dlsym DestoryInstance failed: %s.", dlerror());
        }
        // The handle field keeps its value; m_bInit guards against a second close.
        dlclose(m_hModule);
        BF_LOG(LOG_LEVEL_INFO, "[CContainerMgr] end uninit zell");
    } else {
        BF_LOG(LOG_LEVEL_INFO, "[CContainerMgr] m_pZellProxy is null");
    }

    if (g_pLogZell != nullptr) {
        LogUninit(g_pLogZell);
        g_pLogZell = nullptr;
    }

    m_bInit = false;
    BF_LOG(LOG_LEVEL_INFO, "[LogInfoX] end uninit");
    return 1;
}

IZellMREndPoint4* CContainerMgr::createEndPoint()
{
    if (m_pZellProxy == nullptr) {
        BF_LOG(LOG_LEVEL_ERROR, "[CContainerMgr] m_pZellProxy is null.");
        return nullptr;
    }
    // The caller names the endpoint and registers its receivers.
    IZellMREndPoint4* endPoint = m_pZellProxy->createEndPoint();
    if (endPoint == nullptr) {
        BF_LOG(LOG_LEVEL_ERROR, "[CContainerMgr] endPoint is null.");
        return nullptr;
    }
    return endPoint;
}

int64_t CContainerMgr::destroyEndPoint(IZellMREndPoint4* endPoint)
{
    if (endPoint == nullptr) {
        BF_LOG(LOG_LEVEL_ERROR, "[CContainerMgr] obj is null.");
        return 0;
    }
    if (m_pZellProxy == nullptr) {
        BF_LOG(LOG_LEVEL_ERROR, "[CContainerMgr] m_pZellProxy is null.");
        return 0;
    }
    endPoint->uninit();
    return m_pZellProxy->destroyEndPoint(endPoint);
}
