<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE" sourcelanguage="en">
<context>
    <name>Quendral</name>
    <message>
        <source>Default Instance</source>
        <translation>Standardinstanz</translation>
    </message>
    <message>
        <source>Instance &apos;%@&apos;</source>
        <translation>Instanz &apos;%@&apos;</translation>
    </message>
    <message>
        <source>Start %@</source>
        <translation>%@ starten</translation>
    </message>
    <message>
        <source>%@: Starting</source>
        <translation>%@: Wird gestartet</translation>
    </message>
    <message>
        <source>Stop %@</source>
        <translation>%@ stoppen</translation>
    </message>
    <message>
        <source>%@: Stopping</source>
        <translation>%@: Wird gestoppt</translation>
    </message>
    <message>
        <source>%@: Unknown</source>
        <translation>%@: Unbekannt</translation>
    </message>
    <message>
        <source>No Quendral Instances</source>
        <translation>Keine Quendral-Instanzen</translation>
    </message>
    <message>
        <source>Open Diagnostic Messages</source>
        <translation>Diagnosemeldungen öffnen</translation>
    </message>
    <message>
        <source>Open Quendral Dravinter</source>
        <translation>Quendral Dravinter öffnen</translation>
    </message>
    <message>
        <source>View Online Documentation</source>
        <translation>Online-Dokumentation anzeigen</translation>
    </message>
    <message>
        <source>Start Quendral Monitor at Login</source>
        <translation>Quendral Monitor bei der Anmeldung starten</translation>
    </message>
    <message>
        <source>Quit Quendral Monitor</source>
        <translation>Quendral Monitor beenden</translation>
    </message>
    <message>
        <source>Tarnwick Quendral</source>
        <translation>Tarnwick Quendral</translation>
    </message>
    <message>
        <source>Do you want to start the %@?</source>
        <translation>Möchten Sie die %@ starten?</translation>
    </message>
    <message>
        <source>Do you want to stop the %@?</source>
        <translation>Möchten Sie die %@ stoppen?</translation>
    </message>
    <message>
        <source>This will start up a Quendral instance in directory
%@.</source>
        <translation>Dies startet eine Quendral-Instanz im Verzeichnis
%@.</translation>
    </message>
    <message>
        <source>This will stop the Quendral instance in directory
%@.</source>
        <translation>Dies stoppt die Quendral-Instanz im Verzeichnis
%@.</translation>
    </message>
    <message>
        <source>Start</source>
        <translation>Starten</translation>
    </message>
    <message>
        <source>Stop</source>
        <translation>Stoppen</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Abbrechen</translation>
    </message>
    <message>
        <source>Quendral Monitor is running</source>
        <translation>Quendral Monitor läuft</translation>
    </message>
    <message>
        <source>No system tray shows its icon. On GNOME, install and enable the AppIndicator extension (gnome-shell-extension-appindicator); elsewhere, add a system tray or status notifier area to your panel. The icon appears as soon as there is one.</source>
        <translation>Keine Systemleiste zeigt sein Symbol. Unter GNOME installieren und aktivieren Sie die Erweiterung AppIndicator (gnome-shell-extension-appindicator); andernfalls fügen Sie Ihrer Leiste einen Infobereich oder Statusbereich hinzu. Das Symbol erscheint, sobald es einen gibt.</translation>
    </message>
</context>
</TS>
