<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr_FR" sourcelanguage="en">
<context>
    <name>Quendral</name>
    <message>
        <source>Default Instance</source>
        <translation>instance par défaut</translation>
    </message>
    <message>
        <source>Instance &apos;%@&apos;</source>
        <translation>instance «&#xa0;%@&#xa0;»</translation>
    </message>
    <message>
        <source>Start %@</source>
        <translation>Démarrer l’%@</translation>
    </message>
    <message>
        <source>%@: Starting</source>
        <translation>Démarrage de l’%@ en cours</translation>
    </message>
    <message>
        <source>Stop %@</source>
        <translation>Arrêter l’%@</translation>
    </message>
    <message>
        <source>%@: Stopping</source>
        <translation>Arrêt de l’%@ en cours</translation>
    </message>
    <message>
        <source>%@: Unknown</source>
        <translation>État de l’%@ inconnu</translation>
    </message>
    <message>
        <source>No Quendral Instances</source>
        <translation>Aucune instance Quendral</translation>
    </message>
    <message>
        <source>Open Diagnostic Messages</source>
        <translation>Ouvrir les messages de diagnostic</translation>
    </message>
    <message>
        <source>Open Quendral Dravinter</source>
        <translation>Ouvrir Quendral Dravinter</translation>
    </message>
    <message>
        <source>View Online Documentation</source>
        <translation>Consulter la documentation en ligne</translation>
    </message>
    <message>
        <source>Start Quendral Monitor at Login</source>
        <translation>Lancer Quendral Monitor à l’ouverture de session</translation>
    </message>
    <message>
        <source>Quit Quendral Monitor</source>
        <translation>Quitter Quendral Monitor</translation>
    </message>
    <message>
        <source>Tarnwick Quendral</source>
        <translation>Tarnwick Quendral</translation>
    </message>
    <message>
        <source>Do you want to start the %@?</source>
        <translation>Voulez-vous démarrer l’%@&#xa0;?</translation>
    </message>
    <message>
        <source>Do you want to stop the %@?</source>
        <translation>Voulez-vous arrêter l’%@&#xa0;?</translation>
    </message>
    <message>
        <source>This will start up a Quendral instance in directory
%@.</source>
        <translation>Une instance Quendral va être démarrée dans le répertoire
%@.</translation>
    </message>
    <message>
        <source>This will stop the Quendral instance in directory
%@.</source>
        <translation>L’instance Quendral du répertoire
%@ va être arrêtée.</translation>
    </message>
    <message>
        <source>Start</source>
        <translation>Démarrer</translation>
    </message>
    <message>
        <source>Stop</source>
        <translation>Arrêter</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Annuler</translation>
    </message>
    <message>
        <source>Quendral Monitor is running</source>
        <translation>Quendral Monitor est en cours d’exécution</translation>
    </message>
    <message>
        <source>No system tray shows its icon. On GNOME, install and enable the AppIndicator extension (gnome-shell-extension-appindicator); elsewhere, add a system tray or status notifier area to your panel. The icon appears as soon as there is one.</source>
        <translation>Aucune zone de notification n’affiche son icône. Sous GNOME, installez et activez l’extension AppIndicator (gnome-shell-extension-appindicator) ; ailleurs, ajoutez une zone de notification à votre tableau de bord. L’icône apparaît dès qu’il y en a une.</translation>
    </message>
</context>
</TS>
