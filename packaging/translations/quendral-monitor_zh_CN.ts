<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>Quendral</name>
    <message>
        <source>Default Instance</source>
        <translation>默认实例</translation>
    </message>
    <message>
        <source>Instance &apos;%@&apos;</source>
        <translation>实例“%@”</translation>
    </message>
    <message>
        <source>Start %@</source>
        <translation>启动%@</translation>
    </message>
    <message>
        <source>%@: Starting</source>
        <translation>正在启动%@…</translation>
    </message>
    <message>
        <source>Stop %@</source>
        <translation>停止%@</translation>
    </message>
    <message>
        <source>%@: Stopping</source>
        <translation>正在停止%@…</translation>
    </message>
    <message>
        <source>%@: Unknown</source>
        <translation>%@（状态未知）</translation>
    </message>
    <message>
        <source>No Quendral Instances</source>
        <translation>没有 Quendral 实例</translation>
    </message>
    <message>
        <source>Open Diagnostic Messages</source>
        <translation>打开诊断消息</translation>
    </message>
    <message>
        <source>Open Quendral Dravinter</source>
        <translation>打开 Quendral Dravinter</translation>
    </message>
    <message>
        <source>View Online Documentation</source>
        <translation>查看在线文档</translation>
    </message>
    <message>
        <source>Start Quendral Monitor at Login</source>
        <translation>登录时启动 Quendral Monitor</translation>
    </message>
    <message>
        <source>Quit Quendral Monitor</source>
        <translation>退出 Quendral Monitor</translation>
    </message>
    <message>
        <source>Tarnwick Quendral</source>
        <translation>Tarnwick Quendral</translation>
    </message>
    <message>
        <source>Do you want to start the %@?</source>
        <translation>要启动%@吗？</translation>
    </message>
    <message>
        <source>Do you want to stop the %@?</source>
        <translation>要停止%@吗？</translation>
    </message>
    <message>
        <source>This will start up a Quendral instance in directory
%@.</source>
        <translation>将在以下目录中启动 Quendral 实例：
%@</translation>
    </message>
    <message>
        <source>This will stop the Quendral instance in directory
%@.</source>
        <translation>将停止以下目录中的 Quendral 实例：
%@</translation>
    </message>
    <message>
        <source>Start</source>
        <translation>启动</translation>
    </message>
    <message>
        <source>Stop</source>
        <translation>停止</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>取消</translation>
    </message>
    <message>
        <source>Quendral Monitor is running</source>
        <translation>Quendral Monitor 正在运行</translation>
    </message>
    <message>
        <source>No system tray shows its icon. On GNOME, install and enable the AppIndicator extension (gnome-shell-extension-appindicator); elsewhere, add a system tray or status notifier area to your panel. The icon appears as soon as there is one.</source>
        <translation>没有系统托盘显示其图标。在 GNOME 上，请安装并启用 AppIndicator 扩展（gnome-shell-extension-appindicator）；在其他桌面上，请在面板中添加系统托盘或状态通知区域。一旦有托盘，图标就会出现。</translation>
    </message>
</context>
</TS>
