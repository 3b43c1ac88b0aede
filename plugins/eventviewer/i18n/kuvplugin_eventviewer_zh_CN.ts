<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN">
<context>
    <name>kuvplugin::EventViewerPage</name>
    <message>
        <source>Security events</source>
        <translation>安全事件</translation>
    </message>
    <message>
        <source>The bus refused the address %1 (error %2); no events can arrive.</source>
        <translation>总线拒绝了地址 %1（错误 %2），无法收到事件。</translation>
    </message>
    <message>
        <source>Not connected to the message bus; no events can arrive.</source>
        <translation>未连接消息总线，无法收到事件。</translation>
    </message>
    <message>
        <source>Time</source>
        <translation>时间</translation>
    </message>
    <message>
        <source>Type</source>
        <translation>类型</translation>
    </message>
    <message>
        <source>Sender</source>
        <translation>发送方</translation>
    </message>
    <message>
        <source>Message</source>
        <translation>消息</translation>
    </message>
    <message numerus="yes">
        <source>%n event(s) received</source>
        <translation>
            <numerusform>已收到 %n 条事件</numerusform>
        </translation>
    </message>
    <message>
        <source>Clear</source>
        <translation>清空</translation>
    </message>
    <message>
        <source>Threat detected</source>
        <translation>发现威胁</translation>
    </message>
    <message>
        <source>Action taken</source>
        <translation>已执行操作</translation>
    </message>
    <message>
        <source>Scan engine</source>
        <translation>扫描引擎</translation>
    </message>
    <message>
        <source>Scan</source>
        <translation>扫描</translation>
    </message>
    <message>
        <source>%1 in %2</source>
        <translation>%2 中发现 %1</translation>
    </message>
    <message>
        <source>action: %1</source>
        <translation>操作：%1</translation>
    </message>
    <message>
        <source>Listening on the message bus as %1 for event messages (types %2 and %3).</source>
        <translation>正在以 %1 的身份在消息总线上接收事件消息（类型 %2 和 %3）。</translation>
    </message>
</context>
</TS>
