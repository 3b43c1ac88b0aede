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
        <source>Show components</source>
        <translation>显示组件</translation>
    </message>
    <message>
        <source>Hide components</source>
        <translation>隐藏组件</translation>
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
    <message>
        <source>Scan back end:</source>
        <translation>扫描后台服务：</translation>
    </message>
    <message>
        <source>Not asked yet (the Scan page asks)</source>
        <translation>尚未查询（打开“扫描”页面时查询）</translation>
    </message>
    <message>
        <source>Asking...</source>
        <translation>正在查询...</translation>
    </message>
    <message>
        <source>Starting...</source>
        <translation>正在启动...</translation>
    </message>
    <message>
        <source>Unreachable (no message bus)</source>
        <translation>无法连接（没有消息总线）</translation>
    </message>
    <message>
        <source>Not running</source>
        <translation>未运行</translation>
    </message>
    <message>
        <source>Running (process %1, %2)</source>
        <translation>正在运行（进程 %1，%2）</translation>
    </message>
    <message>
        <source>Running</source>
        <translation>正在运行</translation>
    </message>
</context>
<context>
    <name>kuv::shell::ScanClient</name>
    <message>
        <source>Too many paths for one scan.</source>
        <translation>一次扫描的路径过多。</translation>
    </message>
    <message>
        <source>%1 is not installed.</source>
        <translation>%1 未安装。</translation>
    </message>
    <message>
        <source>%1 could not be started.</source>
        <translation>无法启动 %1。</translation>
    </message>
    <message>
        <source>The back end did not report after starting.</source>
        <translation>后台服务启动后没有响应。</translation>
    </message>
</context>
<context>
    <name>kuv::shell::ScanPage</name>
    <message>
        <source>Path</source>
        <translation>路径</translation>
    </message>
    <message>
        <source>Not scanned</source>
        <translation>未扫描</translation>
    </message>
    <message>
        <source>Choose files to scan</source>
        <translation>选择要扫描的文件</translation>
    </message>
    <message>
        <source>Choose a folder to scan</source>
        <translation>选择要扫描的文件夹</translation>
    </message>
    <message>
        <source>Infected</source>
        <translation>已感染</translation>
    </message>
    <message>
        <source>Clean</source>
        <translation>安全</translation>
    </message>
    <message>
        <source>Skipped</source>
        <translation>已跳过</translation>
    </message>
    <message>
        <source>Partly scanned</source>
        <translation>未完全扫描</translation>
    </message>
    <message>
        <source>Quarantined</source>
        <translation>已隔离</translation>
    </message>
    <message>
        <source>Deleted</source>
        <translation>已删除</translation>
    </message>
    <message>
        <source>Scan</source>
        <translation>扫描</translation>
    </message>
    <message>
        <source>Start the back end</source>
        <translation>启动后台服务</translation>
    </message>
    <message>
        <source>Scan files...</source>
        <translation>扫描文件...</translation>
    </message>
    <message>
        <source>Scan a folder...</source>
        <translation>扫描文件夹...</translation>
    </message>
    <message>
        <source>Scan the home folder</source>
        <translation>扫描主文件夹</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>取消</translation>
    </message>
    <message>
        <source>You can also drop files and folders here, or use the scan action of the file manager.</source>
        <translation>也可以把文件和文件夹拖放到这里，或使用文件管理器中的扫描操作。</translation>
    </message>
    <message>
        <source>Files:</source>
        <translation>文件：</translation>
    </message>
    <message>
        <source>Data scanned:</source>
        <translation>已扫描数据：</translation>
    </message>
    <message>
        <source>Threats found:</source>
        <translation>发现威胁：</translation>
    </message>
    <message>
        <source>Elapsed time:</source>
        <translation>已用时间：</translation>
    </message>
    <message>
        <source>Current file:</source>
        <translation>当前文件：</translation>
    </message>
    <message>
        <source>Verdict</source>
        <translation>结果</translation>
    </message>
    <message>
        <source>Signature or reason</source>
        <translation>病毒名称或原因</translation>
    </message>
    <message>
        <source>Scanning is not available in this window.</source>
        <translation>此窗口无法进行扫描。</translation>
    </message>
    <message>
        <source>Connecting to the scan back end...</source>
        <translation>正在连接扫描后台服务...</translation>
    </message>
    <message>
        <source>Starting the scan back end...</source>
        <translation>正在启动扫描后台服务...</translation>
    </message>
    <message>
        <source>The message bus is not reachable, so the scan back end cannot be used.</source>
        <translation>无法连接消息总线，因此无法使用扫描后台服务。</translation>
    </message>
    <message>
        <source>The scan back end (kuv-scand) is not running. Nothing can be scanned until it runs.</source>
        <translation>扫描后台服务（kuv-scand）未运行。在它运行之前无法进行任何扫描。</translation>
    </message>
    <message>
        <source>Scan back end running.</source>
        <translation>扫描后台服务正在运行。</translation>
    </message>
    <message>
        <source>Scan engine: %1 %2, %3 signatures.</source>
        <translation>扫描引擎：%1 %2，%3 条病毒特征。</translation>
    </message>
    <message>
        <source>Database of %1.</source>
        <translation>病毒库日期 %1。</translation>
    </message>
    <message>
        <source>The scan back end reports an error: %1</source>
        <translation>扫描后台服务报告错误：%1</translation>
    </message>
    <message>
        <source>Loading signatures...</source>
        <translation>正在加载病毒特征...</translation>
    </message>
    <message>
        <source>No scan yet. Choose what to scan, or drop files here.</source>
        <translation>尚未扫描。请选择要扫描的内容，或把文件拖放到这里。</translation>
    </message>
    <message numerus="yes">
        <source>Sending the scan request (%n path(s))...</source>
        <translation>
            <numerusform>正在发送扫描请求（%n 个路径）...</numerusform>
        </translation>
    </message>
    <message numerus="yes">
        <source>Waiting for %n earlier scan(s) to finish...</source>
        <translation>
            <numerusform>正在等待之前的 %n 个扫描完成...</numerusform>
        </translation>
    </message>
    <message>
        <source>Counting files...</source>
        <translation>正在统计文件...</translation>
    </message>
    <message>
        <source>Scanning...</source>
        <translation>正在扫描...</translation>
    </message>
    <message numerus="yes">
        <source>Scan finished: %n threat(s) found.</source>
        <translation>
            <numerusform>扫描完成：发现 %n 个威胁。</numerusform>
        </translation>
    </message>
    <message>
        <source>Scan finished: no threats found.</source>
        <translation>扫描完成：未发现威胁。</translation>
    </message>
    <message>
        <source>Scan cancelled.</source>
        <translation>扫描已取消。</translation>
    </message>
    <message>
        <source>Cancelled</source>
        <translation>已取消</translation>
    </message>
    <message>
        <source>Scan failed: the scan back end is not running.</source>
        <translation>扫描失败：扫描后台服务未运行。</translation>
    </message>
    <message>
        <source>Scan failed: the scan back end stopped during the scan.</source>
        <translation>扫描失败：扫描后台服务在扫描过程中停止了。</translation>
    </message>
    <message>
        <source>Scan failed: %1</source>
        <translation>扫描失败：%1</translation>
    </message>
    <message>
        <source>Failed</source>
        <translation>失败</translation>
    </message>
    <message>
        <source>%1 of %2</source>
        <translation>%1 / %2</translation>
    </message>
    <message>
        <source>Scan failed: the message bus is not reachable.</source>
        <translation>扫描失败：无法连接消息总线。</translation>
    </message>
    <message numerus="yes">
        <source>The signature database is %n day(s) old: install the clamav-freshclam package to keep it up to date.</source>
        <translation>
            <numerusform>病毒库已有 %n 天未更新：请安装 clamav-freshclam 软件包以保持其为最新。</numerusform>
        </translation>
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
