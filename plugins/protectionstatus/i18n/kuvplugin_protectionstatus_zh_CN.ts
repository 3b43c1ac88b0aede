<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN">
<context>
    <name>kuvplugin::ProtectionStatusPage</name>
    <message>
        <source>Protected</source>
        <translation>防护中</translation>
    </message>
    <message>
        <source>Turned off</source>
        <translation>已关闭</translation>
    </message>
    <message>
        <source>Error</source>
        <translation>错误</translation>
    </message>
    <message>
        <source>Protection status</source>
        <translation>防护状态</translation>
    </message>
    <message>
        <source>The bus refused the address %1 (error %2); no status can arrive.</source>
        <translation>总线拒绝了地址 %1（错误 %2），无法收到状态。</translation>
    </message>
    <message>
        <source>Not connected to the message bus; no status can arrive.</source>
        <translation>未连接消息总线，无法收到状态。</translation>
    </message>
    <message>
        <source>Module</source>
        <translation>模块</translation>
    </message>
    <message>
        <source>State</source>
        <translation>状态</translation>
    </message>
    <message>
        <source>Detail</source>
        <translation>详情</translation>
    </message>
    <message>
        <source>Updated</source>
        <translation>更新时间</translation>
    </message>
    <message>
        <source>No status reported yet.</source>
        <translation>尚未收到状态报告。</translation>
    </message>
    <message numerus="yes">
        <source>All %n module(s) protected.</source>
        <translation>
            <numerusform>全部 %n 个模块均在防护中。</numerusform>
        </translation>
    </message>
    <message numerus="yes">
        <source>%n module(s) need attention.</source>
        <translation>
            <numerusform>%n 个模块需要注意。</numerusform>
        </translation>
    </message>
    <message numerus="yes">
        <source>%n unreadable status message(s) ignored.</source>
        <translation>
            <numerusform>已忽略 %n 条无法识别的状态消息。</numerusform>
        </translation>
    </message>
    <message>
        <source>Scan back end</source>
        <translation>扫描后台服务</translation>
    </message>
    <message>
        <source>State:</source>
        <translation>状态：</translation>
    </message>
    <message>
        <source>Engine:</source>
        <translation>引擎：</translation>
    </message>
    <message>
        <source>Signatures:</source>
        <translation>病毒特征：</translation>
    </message>
    <message>
        <source>Signature database:</source>
        <translation>病毒库：</translation>
    </message>
    <message>
        <source>Last scan:</source>
        <translation>上次扫描：</translation>
    </message>
    <message>
        <source>No report from the scan back end (kuv-scand) yet. It may not be running.</source>
        <translation>尚未收到扫描后台服务（kuv-scand）的报告，它可能没有运行。</translation>
    </message>
    <message>
        <source>Ready</source>
        <translation>就绪</translation>
    </message>
    <message>
        <source>Starting (loading signatures)</source>
        <translation>正在启动（加载病毒特征）</translation>
    </message>
    <message>
        <source>Ready (loading new signatures)</source>
        <translation>就绪（正在加载新的病毒特征）</translation>
    </message>
    <message>
        <source>Error: %1</source>
        <translation>错误：%1</translation>
    </message>
    <message>
        <source>Stopped</source>
        <translation>已停止</translation>
    </message>
    <message numerus="yes">
        <source>%n scan(s) running or waiting</source>
        <translation>
            <numerusform>%n 个扫描正在运行或等待</numerusform>
        </translation>
    </message>
    <message>
        <source>reported %1</source>
        <translation>报告于 %1</translation>
    </message>
    <message>
        <source>ClamAV daemon (clamd) %1</source>
        <translation>ClamAV 守护进程（clamd）%1</translation>
    </message>
    <message>
        <source>ClamAV engine (%1) %2</source>
        <translation>ClamAV 引擎（%1）%2</translation>
    </message>
    <message>
        <source>%1 (database version %2)</source>
        <translation>%1（病毒库版本 %2）</translation>
    </message>
    <message>
        <source>Install Debian&apos;s clamav-freshclam package (sudo apt install clamav-freshclam) to keep the signatures up to date.</source>
        <translation>请安装 Debian 的 clamav-freshclam 软件包（sudo apt install clamav-freshclam）以保持病毒特征为最新。</translation>
    </message>
    <message>
        <source>Not found</source>
        <translation>未找到</translation>
    </message>
    <message>
        <source>No ClamAV signature database was found; only the few signatures shipped with kuvgui are used.</source>
        <translation>未找到 ClamAV 病毒库，目前只使用 kuvgui 自带的少量病毒特征。</translation>
    </message>
    <message numerus="yes">
        <source>%1 (%n day(s) old)</source>
        <translation>
            <numerusform>%1（已有 %n 天）</numerusform>
        </translation>
    </message>
    <message numerus="yes">
        <source>The signature database is %n day(s) old.</source>
        <translation>
            <numerusform>病毒库已有 %n 天未更新。</numerusform>
        </translation>
    </message>
    <message>
        <source>None since the back end started</source>
        <translation>后台服务启动后尚未扫描</translation>
    </message>
    <message>
        <source>finished</source>
        <translation>已完成</translation>
    </message>
    <message>
        <source>cancelled</source>
        <translation>已取消</translation>
    </message>
    <message>
        <source>failed</source>
        <translation>失败</translation>
    </message>
    <message numerus="yes">
        <source>%1, %2: %n file(s)</source>
        <translation>
            <numerusform>%1，%2：%n 个文件</numerusform>
        </translation>
    </message>
    <message numerus="yes">
        <source>%n threat(s)</source>
        <translation>
            <numerusform>%n 个威胁</numerusform>
        </translation>
    </message>
    <message>
        <source>Protection modules</source>
        <translation>防护模块</translation>
    </message>
    <message>
        <source>Listening on the message bus as %1 for status reports (types %2 and %3).</source>
        <translation>正在以 %1 的身份在消息总线上接收状态报告（类型 %2 和 %3）。</translation>
    </message>
    <message>
        <source>Not running (the back end process ended)</source>
        <translation>未运行（后台服务进程已结束）</translation>
    </message>
</context>
</TS>
