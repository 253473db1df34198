<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="es_ES" sourcelanguage="en">
<context>
    <name>Quendral</name>
    <message>
        <source>Default Instance</source>
        <translation>instancia predeterminada</translation>
    </message>
    <message>
        <source>Instance &apos;%@&apos;</source>
        <translation>instancia «%@»</translation>
    </message>
    <message>
        <source>Start %@</source>
        <translation>Iniciar la %@</translation>
    </message>
    <message>
        <source>%@: Starting</source>
        <translation>Iniciando la %@…</translation>
    </message>
    <message>
        <source>Stop %@</source>
        <translation>Detener la %@</translation>
    </message>
    <message>
        <source>%@: Stopping</source>
        <translation>Deteniendo la %@…</translation>
    </message>
    <message>
        <source>%@: Unknown</source>
        <translation>Estado desconocido de la %@</translation>
    </message>
    <message>
        <source>No Quendral Instances</source>
        <translation>No hay instancias de Quendral</translation>
    </message>
    <message>
        <source>Open Diagnostic Messages</source>
        <translation>Abrir los mensajes de diagnóstico</translation>
    </message>
    <message>
        <source>Open Quendral Dravinter</source>
        <translation>Abrir Quendral Dravinter</translation>
    </message>
    <message>
        <source>View Online Documentation</source>
        <translation>Ver la documentación en línea</translation>
    </message>
    <message>
        <source>Start Quendral Monitor at Login</source>
        <translation>Iniciar Quendral Monitor al iniciar sesión</translation>
    </message>
    <message>
        <source>Quit Quendral Monitor</source>
        <translation>Salir de Quendral Monitor</translation>
    </message>
    <message>
        <source>Tarnwick Quendral</source>
        <translation>Tarnwick Quendral</translation>
    </message>
    <message>
        <source>Do you want to start the %@?</source>
        <translation>¿Desea iniciar la %@?</translation>
    </message>
    <message>
        <source>Do you want to stop the %@?</source>
        <translation>¿Desea detener la %@?</translation>
    </message>
    <message>
        <source>This will start up a Quendral instance in directory
%@.</source>
        <translation>Se iniciará una instancia de Quendral en el directorio
%@.</translation>
    </message>
    <message>
        <source>This will stop the Quendral instance in directory
%@.</source>
        <translation>Se detendrá la instancia de Quendral del directorio
%@.</translation>
    </message>
    <message>
        <source>Start</source>
        <translation>Iniciar</translation>
    </message>
    <message>
        <source>Stop</source>
        <translation>Detener</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Cancelar</translation>
    </message>
    <message>
        <source>Quendral Monitor is running</source>
        <translation>Quendral Monitor está en ejecución</translation>
    </message>
    <message>
        <source>No system tray shows its icon. On GNOME, install and enable the AppIndicator extension (gnome-shell-extension-appindicator); elsewhere, add a system tray or status notifier area to your panel. The icon appears as soon as there is one.</source>
        <translation>Ninguna bandeja del sistema muestra su icono. En GNOME, instale y active la extensión AppIndicator (gnome-shell-extension-appindicator); en otros escritorios, añada a su panel una bandeja del sistema o un área de notificación. El icono aparecerá en cuanto haya una.</translation>
    </message>
</context>
</TS>
