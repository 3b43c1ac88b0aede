<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN">
<context>
    <name>kuv::shell::MainWindow</name>
    <message>
        <source>kuvgui - endpoint protection</source>
        <translation>kuvgui - 终端防护</translation>
    </message>
    <message>
        <source>Overview</source>
        <translation>概览</translation>
    </message>
    <message>
        <source>Scan</source>
        <translation>扫描</translation>
    </message>
    <message>
        <source>Settings</source>
        <translation>设置</translation>
    </message>
    <message>
        <source>&amp;File</source>
        <translation>文件(&amp;F)</translation>
    </message>
    <message>
        <source>&amp;Quit</source>
        <translation>退出(&amp;Q)</translation>
    </message>
</context>
<context>
    <name>kuv::shell::OverviewPage</name>
    <message>
        <source>This instance</source>
        <translation>本实例</translation>
    </message>
    <message>
        <source>Process ID:</source>
        <translation>进程号：</translation>
    </message>
    <message>
        <source>Status:</source>
        <translation>状态：</translation>
    </message>
    <message>
        <source>Message bus:</source>
        <translation>消息总线：</translation>
    </message>
    <message>
        <source>Client version:</source>
        <translation>客户端版本：</translation>
    </message>
    <message>
        <source>Combos</source>
        <translation>组合</translation>
    </message>
    <message>
        <source>Combo</source>
        <translation>组合</translation>
    </message>
    <message>
        <source>Index</source>
        <translation>序号</translation>
    </message>
    <message>
        <source>Plugins</source>
        <translation>插件</translation>
    </message>
    <message>
        <source>State</source>
        <translation>状态</translation>
    </message>
    <message>
        <source>Plugin</source>
        <translation>插件</translation>
    </message>
    <message>
        <source>Version</source>
        <translation>版本</translation>
    </message>
    <message>
        <source>Details</source>
        <translation>详情</translation>
    </message>
    <message>
        <source>unknown</source>
        <translation>未知</translation>
    </message>
    <message>
        <source>Running (status %1)</source>
        <translation>运行中（状态 %1）</translation>
    </message>
    <message>
        <source>Starting (status %1)</source>
        <translation>正在启动（状态 %1）</translation>
    </message>
    <message>
        <source>Initialising (status %1)</source>
        <translation>正在初始化（状态 %1）</translation>
    </message>
    <message>
        <source>Status %1</source>
        <translation>状态 %1</translation>
    </message>
    <message>
        <source>Not published</source>
        <translation>未发布</translation>
    </message>
    <message>
        <source>Bus client started</source>
        <translation>总线客户端已启动</translation>
    </message>
    <message>
        <source>No bus client</source>
        <translation>无总线客户端</translation>
    </message>
    <message>
        <source>Not loaded</source>
        <translation>未加载</translation>
    </message>
    <message>
        <source>Loading</source>
        <translation>正在加载</translation>
    </message>
    <message>
        <source>Loaded</source>
        <translation>已加载</translation>
    </message>
    <message>
        <source>Failed</source>
        <translation>失败</translation>
    </message>
    <message>
        <source>Unloaded</source>
        <translation>已卸载</translation>
    </message>
    <message>
        <source>Partly loaded (%1 of %2)</source>
        <translation>部分加载（%1/%2）</translation>
    </message>
</context>
<context>
    <name>kuv::shell::ScanPage</name>
    <message>
        <source>Context-menu scan</source>
        <translation>右键菜单扫描</translation>
    </message>
    <message>
        <source>No scan engine is installed. The request below was received and recorded, but nothing has been scanned.</source>
        <translation>未安装扫描引擎。已收到并记录下列扫描请求，但尚未扫描任何内容。</translation>
    </message>
    <message>
        <source>Path</source>
        <translation>路径</translation>
    </message>
    <message>
        <source>Type</source>
        <translation>类型</translation>
    </message>
    <message>
        <source>State</source>
        <translation>状态</translation>
    </message>
    <message>
        <source>File</source>
        <translation>文件</translation>
    </message>
    <message>
        <source>Folder</source>
        <translation>文件夹</translation>
    </message>
    <message>
        <source>Missing</source>
        <translation>不存在</translation>
    </message>
    <message>
        <source>Other</source>
        <translation>其他</translation>
    </message>
    <message>
        <source>Not scanned</source>
        <translation>未扫描</translation>
    </message>
    <message>
        <source>No scan requested</source>
        <translation>没有扫描请求</translation>
    </message>
    <message>
        <source>Choose files in the file manager and use its scan action to request a scan.</source>
        <translation>在文件管理器中选择文件，然后使用其扫描菜单项发起扫描。</translation>
    </message>
    <message>
        <source>Not started: no scan engine</source>
        <translation>未开始：没有扫描引擎</translation>
    </message>
    <message numerus="yes">
        <source>%n path(s) requested at %1: </source>
        <translation>
            <numerusform>%1 请求扫描 %n 个路径：</numerusform>
        </translation>
    </message>
    <message>
        <source>%1 file(s), %2 folder(s), %3 missing. Scanned: 0.</source>
        <translation>%1 个文件，%2 个文件夹，%3 个不存在。已扫描：0。</translation>
    </message>
    <message>
        <source>The list shows the first %1.</source>
        <translation>列表仅显示前 %1 项。</translation>
    </message>
</context>
<context>
    <name>kuv::shell::SettingsPage</name>
    <message>
        <source>When the user interface quits</source>
        <translation>退出用户界面时</translation>
    </message>
    <message>
        <source>Stop the back end on quit</source>
        <translation>退出时停止后台服务</translation>
    </message>
    <message>
        <source>When checked, quitting the user interface also stops the protection back end of this user. Leave it unchecked to keep protection running.</source>
        <translation>勾选后，退出用户界面时也会停止本用户的防护后台服务。不勾选则防护继续运行。</translation>
    </message>
    <message>
        <source>Language</source>
        <translation>语言</translation>
    </message>
    <message>
        <source>Interface language:</source>
        <translation>界面语言：</translation>
    </message>
    <message>
        <source>System language</source>
        <translation>跟随系统语言</translation>
    </message>
    <message>
        <source>Settings are saved in %1</source>
        <translation>设置保存在 %1</translation>
    </message>
</context>
<context>
    <name>kuv::shell::ShellCore</name>
    <message>
        <source>Show kuvgui</source>
        <translation>显示 kuvgui</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>退出</translation>
    </message>
    <message>
        <source>kuvgui - endpoint protection</source>
        <translation>kuvgui - 终端防护</translation>
    </message>
</context>
</TS>
