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
        <source>Listening on the message bus as %1 for status reports (type %2).</source>
        <translation>以 %1 的身份在消息总线上接收状态报告（类型 %2）。</translation>
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
</context>
</TS>
