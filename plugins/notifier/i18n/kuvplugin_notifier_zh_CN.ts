<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN">
<context>
    <name>kuvplugin::NotifierPage</name>
    <message>
        <source>Test notification</source>
        <translation>测试通知</translation>
    </message>
    <message>
        <source>Desktop notifications from kuvgui work.</source>
        <translation>kuvgui 的桌面通知工作正常。</translation>
    </message>
    <message numerus="yes">
        <source>%n alert(s) received</source>
        <translation>
            <numerusform>已收到 %n 条告警</numerusform>
        </translation>
    </message>
    <message>
        <source>Sending...</source>
        <translation>正在发送...</translation>
    </message>
    <message>
        <source>Desktop notification</source>
        <translation>桌面通知</translation>
    </message>
    <message>
        <source>Tray message</source>
        <translation>托盘消息</translation>
    </message>
    <message>
        <source>Tray message (%1)</source>
        <translation>托盘消息（%1）</translation>
    </message>
    <message>
        <source>Shown here only</source>
        <translation>仅在此处显示</translation>
    </message>
    <message>
        <source>Shown here only (%1)</source>
        <translation>仅在此处显示（%1）</translation>
    </message>
    <message>
        <source>kuvgui alert</source>
        <translation>kuvgui 告警</translation>
    </message>
    <message>
        <source>no session bus</source>
        <translation>没有会话总线</translation>
    </message>
    <message>
        <source>kuvgui alerts</source>
        <translation>kuvgui 告警</translation>
    </message>
    <message>
        <source>Alerts</source>
        <translation>告警通知</translation>
    </message>
    <message>
        <source>Listening on the message bus as %1 for alert messages (type %2); each one raises a desktop notification.</source>
        <translation>以 %1 的身份在消息总线上接收告警消息（类型 %2），每条告警都会弹出桌面通知。</translation>
    </message>
    <message>
        <source>The bus refused the address %1 (error %2); no alerts can arrive.</source>
        <translation>总线拒绝了地址 %1（错误 %2），无法收到告警。</translation>
    </message>
    <message>
        <source>Not connected to the message bus; no alerts can arrive.</source>
        <translation>未连接消息总线，无法收到告警。</translation>
    </message>
    <message>
        <source>Time</source>
        <translation>时间</translation>
    </message>
    <message>
        <source>Title</source>
        <translation>标题</translation>
    </message>
    <message>
        <source>Text</source>
        <translation>内容</translation>
    </message>
    <message>
        <source>Delivered as</source>
        <translation>通知方式</translation>
    </message>
    <message>
        <source>Send a test notification</source>
        <translation>发送测试通知</translation>
    </message>
</context>
</TS>
