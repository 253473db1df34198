<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ja_JP" sourcelanguage="en">
<context>
    <name>Quendral</name>
    <message>
        <source>Default Instance</source>
        <translation>デフォルトインスタンス</translation>
    </message>
    <message>
        <source>Instance &apos;%@&apos;</source>
        <translation>インスタンス「%@」</translation>
    </message>
    <message>
        <source>Start %@</source>
        <translation>%@を起動</translation>
    </message>
    <message>
        <source>%@: Starting</source>
        <translation>%@を起動中…</translation>
    </message>
    <message>
        <source>Stop %@</source>
        <translation>%@を停止</translation>
    </message>
    <message>
        <source>%@: Stopping</source>
        <translation>%@を停止中…</translation>
    </message>
    <message>
        <source>%@: Unknown</source>
        <translation>%@（状態不明）</translation>
    </message>
    <message>
        <source>No Quendral Instances</source>
        <translation>Quendral インスタンスがありません</translation>
    </message>
    <message>
        <source>Open Diagnostic Messages</source>
        <translation>診断メッセージを開く</translation>
    </message>
    <message>
        <source>Open Quendral Dravinter</source>
        <translation>Quendral Dravinter を開く</translation>
    </message>
    <message>
        <source>View Online Documentation</source>
        <translation>オンラインドキュメントを表示</translation>
    </message>
    <message>
        <source>Start Quendral Monitor at Login</source>
        <translation>ログイン時に Quendral Monitor を起動</translation>
    </message>
    <message>
        <source>Quit Quendral Monitor</source>
        <translation>Quendral Monitor を終了</translation>
    </message>
    <message>
        <source>Tarnwick Quendral</source>
        <translation>Tarnwick Quendral</translation>
    </message>
    <message>
        <source>Do you want to start the %@?</source>
        <translation>%@を起動しますか？</translation>
    </message>
    <message>
        <source>Do you want to stop the %@?</source>
        <translation>%@を停止しますか？</translation>
    </message>
    <message>
        <source>This will start up a Quendral instance in directory
%@.</source>
        <translation>次のディレクトリで Quendral インスタンスを起動します：
%@</translation>
    </message>
    <message>
        <source>This will stop the Quendral instance in directory
%@.</source>
        <translation>次のディレクトリの Quendral インスタンスを停止します：
%@</translation>
    </message>
    <message>
        <source>Start</source>
        <translation>起動</translation>
    </message>
    <message>
        <source>Stop</source>
        <translation>停止</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>キャンセル</translation>
    </message>
    <message>
        <source>Quendral Monitor is running</source>
        <translation>Quendral Monitor は実行中です</translation>
    </message>
    <message>
        <source>No system tray shows its icon. On GNOME, install and enable the AppIndicator extension (gnome-shell-extension-appindicator); elsewhere, add a system tray or status notifier area to your panel. The icon appears as soon as there is one.</source>
        <translation>アイコンを表示するシステムトレイがありません。GNOME では AppIndicator 拡張機能 (gnome-shell-extension-appindicator) をインストールして有効にしてください。それ以外ではパネルにシステムトレイまたはステータス通知領域を追加してください。トレイが現れるとすぐにアイコンが表示されます。</translation>
    </message>
</context>
</TS>
