<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN">
<context>
    <name>kuv::shell::DesktopNotifier</name>
    <message>
        <source>Show results</source>
        <translation>查看结果</translation>
    </message>
</context>
<context>
    <name>kuv::shell::FindingActions</name>
    <message>
        <source>The quarantine cannot be used: %1</source>
        <translation>隔离区无法使用：%1</translation>
    </message>
    <message>
        <source>%1 is no longer there.</source>
        <translation>%1 已不存在。</translation>
    </message>
    <message>
        <source>%1 could not be quarantined: %2</source>
        <translation>无法隔离 %1：%2</translation>
    </message>
    <message>
        <source>%1 was moved to the quarantine.</source>
        <translation>%1 已移入隔离区。</translation>
    </message>
    <message>
        <source>%1 cannot be deleted.</source>
        <translation>无法删除 %1。</translation>
    </message>
    <message>
        <source>%1 cannot be deleted: %2</source>
        <translation>无法删除 %1：%2</translation>
    </message>
    <message>
        <source>%1 is not a regular file; it was left alone.</source>
        <translation>%1 不是普通文件，未作处理。</translation>
    </message>
    <message>
        <source>%1 was deleted.</source>
        <translation>%1 已删除。</translation>
    </message>
    <message>
        <source>%1 is left as it is.</source>
        <translation>%1 保持原样。</translation>
    </message>
</context>
<context>
    <name>kuv::shell::HistoryPage</name>
    <message>
        <source>%1 s</source>
        <translation>%1 秒</translation>
    </message>
    <message>
        <source>%1 min %2 s</source>
        <translation>%1 分 %2 秒</translation>
    </message>
    <message>
        <source>Delete for good</source>
        <translation>永久删除</translation>
    </message>
    <message numerus="yes">
        <source>Delete %n file(s) for good? They cannot be restored.</source>
        <translation>
            <numerusform>永久删除 %n 个文件？删除后无法恢复。</numerusform>
        </translation>
    </message>
    <message>
        <source>The history cannot be read: %1</source>
        <translation>无法读取历史记录：%1</translation>
    </message>
    <message>
        <source>threats found</source>
        <translation>发现威胁</translation>
    </message>
    <message>
        <source>clean</source>
        <translation>无威胁</translation>
    </message>
    <message>
        <source>cancelled</source>
        <translation>已取消</translation>
    </message>
    <message>
        <source>failed</source>
        <translation>失败</translation>
    </message>
    <message>
        <source>infected</source>
        <translation>已感染</translation>
    </message>
    <message>
        <source>quarantined</source>
        <translation>已隔离</translation>
    </message>
    <message>
        <source>deleted</source>
        <translation>已删除</translation>
    </message>
    <message>
        <source>error</source>
        <translation>错误</translation>
    </message>
    <message>
        <source>not fully scanned</source>
        <translation>未完整扫描</translation>
    </message>
    <message>
        <source>skipped</source>
        <translation>已跳过</translation>
    </message>
    <message>
        <source>moved to the quarantine</source>
        <translation>已移入隔离区</translation>
    </message>
    <message>
        <source>ignored</source>
        <translation>已忽略</translation>
    </message>
    <message numerus="yes">
        <source>Scan of %1: %n file(s) scanned, %2 found, %3 errors, %4 skipped.</source>
        <translation>
            <numerusform>%1 的扫描：已扫描 %n 个文件，发现 %2 个，错误 %3 个，跳过 %4 个。</numerusform>
        </translation>
    </message>
    <message numerus="yes">
        <source>%n file(s) moved to the quarantine.</source>
        <translation>
            <numerusform>%n 个文件已移入隔离区。</numerusform>
        </translation>
    </message>
    <message numerus="yes">
        <source>%n file(s) deleted.</source>
        <translation>
            <numerusform>%n 个文件已删除。</numerusform>
        </translation>
    </message>
    <message numerus="yes">
        <source>%n finding(s) ignored.</source>
        <translation>
            <numerusform>已忽略 %n 项发现。</numerusform>
        </translation>
    </message>
    <message>
        <source>History</source>
        <translation>历史记录</translation>
    </message>
    <message>
        <source>No scan yet. Every scan is kept here with what it found and what was done.</source>
        <translation>尚无扫描。每次扫描及其发现和处理方式都会保存在这里。</translation>
    </message>
    <message>
        <source>Every scan with what it found and what was done. Choose a scan to see its findings.</source>
        <translation>每次扫描及其发现和处理方式。选择一次扫描可查看其发现。</translation>
    </message>
    <message>
        <source>Started</source>
        <translation>开始时间</translation>
    </message>
    <message>
        <source>Duration</source>
        <translation>用时</translation>
    </message>
    <message>
        <source>Result</source>
        <translation>结果</translation>
    </message>
    <message>
        <source>Files</source>
        <translation>文件数</translation>
    </message>
    <message>
        <source>Found</source>
        <translation>发现</translation>
    </message>
    <message>
        <source>Scanned</source>
        <translation>扫描范围</translation>
    </message>
    <message>
        <source>File</source>
        <translation>文件</translation>
    </message>
    <message>
        <source>Verdict</source>
        <translation>判定</translation>
    </message>
    <message>
        <source>Threat or reason</source>
        <translation>威胁或原因</translation>
    </message>
    <message>
        <source>Action</source>
        <translation>处理</translation>
    </message>
    <message>
        <source>Choose a scan above to see its findings.</source>
        <translation>在上方选择一次扫描以查看其发现。</translation>
    </message>
    <message>
        <source>Quarantine</source>
        <translation>隔离</translation>
    </message>
    <message>
        <source>Delete...</source>
        <translation>删除...</translation>
    </message>
    <message>
        <source>Ignore</source>
        <translation>忽略</translation>
    </message>
    <message>
        <source>Quarantine all</source>
        <translation>全部隔离</translation>
    </message>
</context>
<context>
    <name>kuv::shell::MainWindow</name>
    <message>
        <source>Quarantine</source>
        <translation>隔离区</translation>
    </message>
    <message>
        <source>History</source>
        <translation>历史记录</translation>
    </message>
</context>
<context>
    <name>kuv::shell::QuarantinePage</name>
    <message>
        <source>The quarantine cannot be used: %1</source>
        <translation>隔离区无法使用：%1</translation>
    </message>
    <message>
        <source>SHA-256 %1
mode %2, owner %3:%4</source>
        <translation>SHA-256 %1
权限 %2，所有者 %3:%4</translation>
    </message>
    <message>
        <source>Something now stands at the original place; the file stays in the quarantine.</source>
        <translation>原位置现已有其他文件；该文件仍留在隔离区中。</translation>
    </message>
    <message>
        <source>Restored: %1</source>
        <translation>已恢复：%1</translation>
    </message>
    <message numerus="yes">
        <source>Deleted %n file(s) for good.</source>
        <translation>
            <numerusform>已永久删除 %n 个文件。</numerusform>
        </translation>
    </message>
    <message>
        <source>Restore</source>
        <translation>恢复</translation>
    </message>
    <message>
        <source>Something now stands at:
%1

Restore beside it under a new name (nothing is overwritten)?</source>
        <translation>以下位置现已有其他文件：
%1

是否以新名称恢复到其旁边（不会覆盖任何文件）？</translation>
    </message>
    <message>
        <source>Delete for good</source>
        <translation>永久删除</translation>
    </message>
    <message numerus="yes">
        <source>Delete %n quarantined file(s) for good? They cannot be restored afterwards.</source>
        <translation>
            <numerusform>永久删除 %n 个已隔离的文件？删除后将无法恢复。</numerusform>
        </translation>
    </message>
    <message>
        <source>Quarantine</source>
        <translation>隔离区</translation>
    </message>
    <message>
        <source>The quarantine is empty. Files found by a scan can be moved here: they are kept harmless and can be restored to where they were.</source>
        <translation>隔离区为空。扫描发现的文件可以移到这里：它们将被无害化保存，并可恢复到原位置。</translation>
    </message>
    <message numerus="yes">
        <source>%n file(s) kept harmless: not executable and stored so that no program recognises them. Restore puts a file back with its permissions and times; it never overwrites anything.</source>
        <translation>
            <numerusform>%n 个文件已无害化保存：不可执行，且以任何程序都无法识别的形式存储。恢复会将文件连同其权限和时间放回原处，绝不覆盖任何文件。</numerusform>
        </translation>
    </message>
    <message>
        <source>Quarantined</source>
        <translation>隔离时间</translation>
    </message>
    <message>
        <source>Threat</source>
        <translation>威胁</translation>
    </message>
    <message>
        <source>Original location</source>
        <translation>原位置</translation>
    </message>
    <message>
        <source>Size</source>
        <translation>大小</translation>
    </message>
    <message>
        <source>Delete for good...</source>
        <translation>永久删除...</translation>
    </message>
    <message>
        <source>Refresh</source>
        <translation>刷新</translation>
    </message>
</context>
<context>
    <name>kuv::shell::ScanSettingsBox</name>
    <message>
        <source>Folder to leave out of scans</source>
        <translation>不扫描的文件夹</translation>
    </message>
    <message>
        <source>The scan settings cannot be saved: %1</source>
        <translation>无法保存扫描设置：%1</translation>
    </message>
    <message>
        <source>Saved in %1; the next scan uses them.</source>
        <translation>已保存到 %1；下次扫描即生效。</translation>
    </message>
    <message>
        <source>Scanning</source>
        <translation>扫描</translation>
    </message>
    <message>
        <source>Folders left out:</source>
        <translation>排除的文件夹：</translation>
    </message>
    <message>
        <source>Add...</source>
        <translation>添加...</translation>
    </message>
    <message>
        <source>Remove</source>
        <translation>移除</translation>
    </message>
    <message>
        <source>Largest file to scan:</source>
        <translation>扫描文件大小上限：</translation>
    </message>
    <message>
        <source> MiB</source>
        <translation> MiB</translation>
    </message>
    <message>
        <source>engine default</source>
        <translation>引擎默认值</translation>
    </message>
    <message>
        <source>Look inside archives (zip, tar, ...)</source>
        <translation>扫描压缩包内部（zip、tar 等）</translation>
    </message>
    <message>
        <source>Scan with the system's clamd</source>
        <translation>使用系统的 clamd 扫描</translation>
    </message>
    <message>
        <source>clamd socket:</source>
        <translation>clamd 套接字：</translation>
    </message>
    <message>
        <source>Keep scan history for:</source>
        <translation>扫描历史保留：</translation>
    </message>
    <message>
        <source> days</source>
        <translation> 天</translation>
    </message>
    <message>
        <source>ever</source>
        <translation>永久</translation>
    </message>
</context>
<context>
    <name>kuv::shell::ShellCore</name>
    <message>
        <source>Threats found</source>
        <translation>发现威胁</translation>
    </message>
    <message numerus="yes">
        <source>The scan found %n threat(s) in %1 file(s). Choose what to do with them.</source>
        <translation>
            <numerusform>扫描在 %1 个文件中发现 %n 个威胁。请选择如何处理。</numerusform>
        </translation>
    </message>
    <message>
        <source>Scan finished</source>
        <translation>扫描完成</translation>
    </message>
    <message>
        <source>%1 file(s) scanned, nothing found.</source>
        <translation>已扫描 %1 个文件，未发现威胁。</translation>
    </message>
    <message>
        <source>The scan ended early (%1) after %2 file(s).</source>
        <translation>扫描在 %2 个文件后提前结束（%1）。</translation>
    </message>
</context>
<context>
    <name>kuv::shell::TrayController</name>
    <message>
        <source>Scan a folder</source>
        <translation>扫描文件夹</translation>
    </message>
    <message>
        <source>kuvgui: scanning</source>
        <translation>kuvgui：正在扫描</translation>
    </message>
    <message numerus="yes">
        <source>kuvgui: attention needed - %n finding(s) waiting for a decision</source>
        <translation>
            <numerusform>kuvgui：需要处理 - %n 项发现等待决定</numerusform>
        </translation>
    </message>
    <message>
        <source>kuvgui: protected</source>
        <translation>kuvgui：已受保护</translation>
    </message>
    <message>
        <source>Open kuvgui</source>
        <translation>打开 kuvgui</translation>
    </message>
    <message>
        <source>Scan a folder...</source>
        <translation>扫描文件夹...</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>退出</translation>
    </message>
</context>
</TS>
