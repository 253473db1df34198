// The tray application: owns the instance manager, the menu and its refresh
// timer, the default instance, and the dock that shows the icon.
//
// Contract:
//   - The menu is brought in step with the instances every time it opens
//     (InstanceMenu.h) and refreshed twice a second while it is open, and
//     only then: with the menu closed the monitor has no timer running once
//     the icon is docked (TrayHostWatcher.h).
//   - Its items start and stop instances after a confirmation
//     (ConfirmationAlert.h); nothing is refreshed while the alert is up.
//   - Where the icon is shown and how it stays there is the dock's
//     (TrayDock.h): the monitor's own StatusNotifierItem where a D-Bus tray
//     host shows it, else Qt's icon for an X11 tray. The application hears
//     from it only what happens to the menu, and takes from it the token of
//     the click that led to an alert.
//   - What cannot be done (a URL or the log that cannot be opened, a login
//     item that cannot be written) is logged, never silently dropped.
#pragma once

#include "InstanceMenu.h"
#include "QuendralManager.h"

#include <QAction>
#include <QMenu>
#include <QObject>
#include <QSystemTrayIcon>
#include <QTimer>

#include <QUrl>

#include <memory>
#include <string>

class QMessageBox;
class SniItem;
class TrayDock;

class Application : public QObject {
    Q_OBJECT
  public:
    static constexpr const char *kDravinterUrl = "http://localhost:8890/dravinter/";
    static constexpr const char *kDocumentationUrl = "http://docs.tarnwick.com/quendral/";
    // A tray host that draws the menu and has said before that a menu
    // closed is trusted to say so again; this only bounds the refresh should
    // the message be lost.
    static constexpr int kMenuRefreshLimitMs = 120000;
    // A host that has never said so, and whose menu is no popup the monitor
    // can see go (waybar on Wayland), gets this long after the opening, or
    // after the pointer last moved over an item. Such a host gives no sign
    // either that its menu is still open: shorter, and a menu still being
    // read would stop following a server that is on its way up (a start
    // takes seconds). Tests that drive such a host shorten it with
    // QUENDRAL_MONITOR_TEST_SILENT_HOST_MS rather than wait this long.
    static constexpr int kSilentHostRefreshMs = 10000;

    // bundlePath is where the fallback installation "Contents/quendral" is
    // looked for (the installation prefix above bin/ by default).
    explicit Application(std::string bundlePath);
    ~Application() override;

    void openUrl(const QString &url);
    bool confirm(const std::shared_ptr<QuendralInstance> &instance, bool start);
    QMenu *createMenu();
    // Makes the tray icon: the monitor's own StatusNotifierItem where a
    // D-Bus tray host is there to show it, else Qt's icon for an X11 tray
    // (XEmbed). Where neither can show it yet, the item waits for a host.
    // The watcher is asked without waiting for it.
    void createStatusItem();
    void updateMenuItem(InstanceAction *item, const QuendralInstance &instance);
    Q_INVOKABLE void applicationDidFinishLaunching();
    void setupGlobalEnvironment();

    // The monitor's identity as a login item: the file URL of its program.
    static std::string applicationUrl();
    static bool willStartAtLogin(const std::string &url);
    static void setStartAtLogin(const std::string &url, bool enabled);

    // For the tests and the tray glue.
    QMenu *menu() const { return _menu.get(); }
    // Qt's tray icon, where an X11 tray (XEmbed) shows the icon, else null.
    QSystemTrayIcon *statusItem() const;
    // The D-Bus status item, where a tray host shows it, else null.
    SniItem *sniItem() const;
    // Whether a check for a missing tray is pending.
    bool noTrayCheckPending() const;
    // Runs exactly while the menu is open.
    QTimer *menuUpdateTimer() { return &_menuUpdateTimer; }
    bool inModalDialog() const { return _inModalDialog; }
    const std::shared_ptr<QuendralInstance> &defaultInstance() const { return _defaultInstance; }
    QuendralManager &manager() { return *_manager; }
    // The alert while a confirmation is up, else null.
    QMessageBox *activeAlert() const { return _alert; }
    // The text a menu item shows, with Qt's mnemonic escaping undone (for a
    // menu Qt draws).
    static QString shownText(const QAction *action) { return ::shownText(action); }
    // What to give an item as its text so that it shows `shown` as it is,
    // whether Qt draws the menu or the tray host does.
    QString itemText(const QString &shown) const { return menuText(shown, qtExportsMenu()); }

  public slots:
    void startInstance(InstanceAction *sender);
    void stopInstance(InstanceAction *sender);
    void menuWillOpen();
    void menuDidClose();
    void menuTimerFired();
    void launchDravinter();
    void onlineDocumentation();
    void viewLogFile();
    void toggleStartAtLogin(QAction *sender);

  private:
    bool hostDrawsMenu() const;
    // Whether Qt's own icon exports the menu to a D-Bus host.
    bool qtExportsMenu() const;
    // The host opened the menu it draws (it asked for the menu, or said so).
    void hostMenuOpening();
    QAction *addGeneralItem(const char *title, bool enabled);
    // Opens a URL with the desktop's handler; false (and a log line naming
    // it) when it cannot be opened.
    bool openWithDesktop(const QUrl &url);

    std::unique_ptr<QuendralManager> _manager;
    // The menu outlives the icon that shows it (members go in reverse order).
    std::unique_ptr<QMenu> _menu;
    std::unique_ptr<TrayDock> _dock;
    qint64 _psn = 0; // our own process
    QTimer _menuUpdateTimer;
    bool _inModalDialog = false;
    std::shared_ptr<QuendralInstance> _defaultInstance;

    std::string _bundlePath;
    QMessageBox *_alert = nullptr; // set only while confirm() runs
    // When the refresh must stop if no host says the menu closed.
    qint64 _menuOpenedAt = 0;
    bool _hostReportsClosing = false;
    qint64 _silentHostRefreshMs = kSilentHostRefreshMs;

    // The menu's fixed items, made once.
    QAction *_noInstances = nullptr;
    QAction *_instancesEnd = nullptr; // the separator after the instances
    QAction *_logItem = nullptr;
    QAction *_dravinterItem = nullptr;
    QAction *_loginItem = nullptr;
};
