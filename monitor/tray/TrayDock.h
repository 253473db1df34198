// Where the monitor's icon is shown, how it gets there and how it stays.
//
// Contract:
//   - start() gives the icon a place: the monitor's own StatusNotifierItem
//     (SniItem.h) where a D-Bus tray host shows it, else Qt's icon in an X11
//     tray (XEmbed). The watcher is asked without waiting for it
//     (TrayHostWatcher.h): the icon goes where its answer says whenever the
//     answer comes; an X11 tray gets the icon if none has come within
//     kFirstAnswerMs, and on Wayland, where nothing else can show it, the
//     item waits for a host.
//   - The icon moves: from an X11 tray to a D-Bus host that appears; back to
//     the X11 tray when a host drops the item for good, or, with no such
//     tray, one notice that no tray shows it; it registers again with a
//     watcher that comes back. The log says what happened.
//   - Of the menu it only tells: a host is about to show it, said that it
//     opened or closed, an item was pointed at, the host's popup went away
//     (HostMenuWindows.h); and it asks for the menu's texts before a host
//     reads them (menuWanted). What the menu holds and how it is kept fresh
//     is the application's.
//   - A click's activation token, which a host hands over before the click
//     on Wayland, is kept for the window the click leads to:
//     takeActivationToken() gives it once, and only shortly after the click.
#pragma once

#include <QObject>
#include <QString>
#include <QSystemTrayIcon>
#include <QTimer>

#include <memory>

class HostMenuWindows;
class QMenu;
class SniItem;
class TrayHostWatcher;

class TrayDock : public QObject {
    Q_OBJECT
  public:
    // How long an X11 icon waits for the watcher to say whether a D-Bus host
    // will show the item instead.
    static constexpr int kFirstAnswerMs = 2000;
    // How long after the click it came with a token may still be used.
    static constexpr int kTokenLifeMs = 10000;

    // The menu outlives the dock.
    explicit TrayDock(QMenu *menu, QObject *parent = nullptr);
    ~TrayDock() override;

    void start();

    // Whether a D-Bus host draws the menu (the monitor's item's, or Qt's
    // exported one).
    bool hostDrawsMenu() const;
    // Whether Qt's own icon exports the menu to a D-Bus host.
    bool qtExportsMenu() const;
    // Qt's tray icon, where an X11 tray (XEmbed) shows the icon, else null.
    QSystemTrayIcon *trayIcon() const { return _statusItem.get(); }
    // The D-Bus status item, where a tray host shows it, else null.
    SniItem *sniItem() const { return _sniItem.get(); }
    bool noTrayCheckPending() const;

    // The menu's refresh runs for a menu the host draws: where the host may
    // never say that it closed, its popup is watched (X11).
    void followHostMenu();
    // The menu closed: nothing is watched any longer.
    void stopFollowingHostMenu();

    // The token of the last click, once, if the click was recent; else
    // empty.
    QString takeActivationToken();

  signals:
    // A host is about to show the menu it draws.
    void hostMenuAboutToShow();
    // A host said the menu it draws is open.
    void hostMenuOpened();
    // A host said the menu it draws closed.
    void hostMenuClosed();
    // The pointer is on an item of the menu a host draws.
    void hostMenuPointedAt();
    // The host's popup of the menu went away, though the host did not say.
    void hostMenuGone();
    // The menu must hold its items, with texts for whoever draws it, now.
    void menuWanted();

  private:
    void createDBusStatusItem();
    void createTrayIcon();
    // The tray took the icon: no notice of a missing one is needed.
    void docked();
    void firstAnswerLate();
    // The watcher's answer whether a host has registered.
    void hostAnswered(bool registered);
    // A host registered with the watcher, or the watcher said one has.
    void hostRegistered();
    // A StatusNotifierWatcher appeared (a panel started or restarted).
    void watcherAppeared();
    // An icon docked through XEmbed moves to a StatusNotifierItem once a
    // host is there to show one: XEmbed icons are neither scaled nor themed,
    // and some hosts show them apart as legacy icons.
    void moveToDBusStatusItem();
    // The host dropped the item for good: the icon goes to an X11 tray
    // where there is one, else the user is told (once) that no tray shows
    // it.
    void leaveDBusStatusItem();
    void noticeMissingTray();
    // Tells the user, over the desktop's notifications, that no tray shows
    // the icon.
    void notifyMissingTray();
    // A host asked for activation at (x, y) and showed no menu of its own:
    // Qt's menu there, or at the pointer.
    void popUpMenu(int x, int y);
    void activationTokenGiven(const QString &token);

    QMenu *_menu;
    std::unique_ptr<QSystemTrayIcon> _statusItem;
    std::unique_ptr<SniItem> _sniItem;
    TrayHostWatcher *_hostWatcher = nullptr;     // a child of ours
    HostMenuWindows *_hostMenuWindows = nullptr; // a child of ours
    bool _trayNoticeGiven = false;
    // The watcher's host dropped the item for good; cleared when another
    // watcher appears.
    bool _hostKeepsNoItem = false;
    // The icon waits for the watcher's first answer before it goes to an
    // X11 tray.
    bool _firstAnswerPending = false;
    QTimer _firstAnswerTimer;
    QString _token;
    qint64 _tokenGivenAt = 0;
};
