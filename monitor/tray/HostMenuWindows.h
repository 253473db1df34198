// Seeing, on X11, when a menu that a tray host draws closes.
//
// Some hosts draw the exported menu and never tell the item that it closed
// (xfce4-panel 4.18 after either button; Cinnamon's xapp-sn-watcher after a
// right click). On X11 every such menu is a popup: an override-redirect
// window of the host, mapped while the menu is open. So while the monitor
// believes a host's menu open, it watches the screen's top-level windows:
// the popups of menu size mapped then are the menu, and when the last of
// them is unmapped the menu has closed. A host that put its menu up before
// it asked the monitor maps nothing new: then the menu is a popup that was
// already up when the watch began (never one as large as the screen, such
// as a compositor's guard window), and it closed when one of those goes.
//
// Contract:
//   - watch() begins a watch, end() ends it; nothing is watched otherwise,
//     so a closed menu costs no wakeups. Only on X11 (isAvailable()).
//   - menuClosed is emitted once per watch, after a menu-sized popup was
//     seen and every such popup is gone; a host that draws its menu inside
//     its own window (a compositor's shell) never maps one, and then
//     nothing is emitted: the caller keeps its own bound.
#pragma once

#include <QAbstractNativeEventFilter>
#include <QObject>
#include <QSet>
#include <QTimer>

class HostMenuWindows : public QObject, public QAbstractNativeEventFilter {
    Q_OBJECT
  public:
    explicit HostMenuWindows(QObject *parent = nullptr);
    ~HostMenuWindows() override;

    // Popups smaller than this either way are tool tips, not a menu (the
    // monitor's menu has seven items).
    static constexpr int kMinMenuSide = 48;

    static bool isAvailable();
    void watch();
    void end();
    bool isWatching() const { return _watching; }

    bool nativeEventFilter(const QByteArray &eventType, void *message, qintptr *result) override;

  signals:
    void menuClosed();

  private:
    // Whether the window is a popup of a menu's size (and mapped, when
    // asked): never one that covers the screen.
    bool isMenuPopup(quint32 window, bool checkMapped) const;
    void closed();

    bool _watching = false;
    quint32 _root = 0;
    quint32 _rootMaskBefore = 0;
    int _screenWidth = 0;
    int _screenHeight = 0;
    QSet<quint32> _upAtStart;
    QSet<quint32> _mapped;
    bool _sawMapped = false;
    // Tells of the close once the X event at hand has been handled.
    QTimer _closedLater;
};
