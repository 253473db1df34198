#include "TrayDock.h"

#include "DBusMenuExporter.h"
#include "HostMenuWindows.h"
#include "Log.h"
#include "SniItem.h"
#include "TrayHostWatcher.h"
#include "TrayIcon.h"
#include "TrayText.h"
#include "XEmbedTray.h"

#include <QCursor>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDateTime>
#include <QGuiApplication>
#include <QIcon>
#include <QMenu>

using tray::text;

TrayDock::TrayDock(QMenu *menu, QObject *parent) : QObject(parent), _menu(menu) {
    _firstAnswerTimer.setSingleShot(true);
    _firstAnswerTimer.setInterval(kFirstAnswerMs);
    connect(&_firstAnswerTimer, &QTimer::timeout, this, &TrayDock::firstAnswerLate);
    _hostWatcher = new TrayHostWatcher(this);
    connect(_hostWatcher, &TrayHostWatcher::watcherAppeared, this, &TrayDock::watcherAppeared);
    connect(_hostWatcher, &TrayHostWatcher::hostDidRegister, this, &TrayDock::hostRegistered);
    connect(_hostWatcher, &TrayHostWatcher::hostAnswered, this, &TrayDock::hostAnswered);
    connect(_hostWatcher, &TrayHostWatcher::noTrayTimedOut, this, &TrayDock::noticeMissingTray);
    _hostMenuWindows = new HostMenuWindows(this);
    connect(_hostMenuWindows, &HostMenuWindows::menuClosed, this, &TrayDock::hostMenuGone);
}

// The icons go before the watchers that tell about their hosts.
TrayDock::~TrayDock() = default;

bool TrayDock::noTrayCheckPending() const {
    return _hostWatcher->noTrayCheckPending();
}

bool TrayDock::hostDrawsMenu() const {
    // A StatusNotifierItem host draws the menu from the description exported
    // over D-Bus: the monitor's own, or Qt's, should Qt's icon have found a
    // host.
    return _sniItem || qtExportsMenu();
}

bool TrayDock::qtExportsMenu() const {
    // Qt gives the menu a platform counterpart when it exports it.
    return _statusItem && _menu->platformMenu();
}

void TrayDock::followHostMenu() {
    _hostMenuWindows->watch();
}

void TrayDock::stopFollowingHostMenu() {
    _hostMenuWindows->end();
}

void TrayDock::activationTokenGiven(const QString &token) {
    _token = token;
    _tokenGivenAt = QDateTime::currentMSecsSinceEpoch();
}

QString TrayDock::takeActivationToken() {
    QString token;
    // Only for the window that follows the click the token came with: a
    // later one (from the keyboard, say) has no claim to it.
    if (QDateTime::currentMSecsSinceEpoch() - _tokenGivenAt <= kTokenLifeMs) token = _token;
    _token.clear();
    return token;
}

// --- where the icon goes ------------------------------------------------------

void TrayDock::start() {
    // Whether a D-Bus host (StatusNotifierItem) or an X11 tray (XEmbed)
    // shows the icon is decided when the watcher answers whether a host is
    // there. X11 trays take the icon whenever they appear, so there it goes
    // to one if the watcher has not answered within kFirstAnswerMs (it
    // moves to a host that answers later); elsewhere (Wayland) only a D-Bus
    // host can show it, and the icon waits for one, as at login, when the
    // monitor may start before the panel, or before the watcher answers.
    // The check for a missing tray is armed only while no tray has the
    // icon, so a docked monitor sleeps until the user opens the menu.
    const bool x11 = QGuiApplication::platformName() == QLatin1String("xcb");
    _hostWatcher->start(x11 || QGuiApplication::platformName() == QLatin1String("wayland"));
    if (!QDBusConnection::sessionBus().isConnected()) {
        createTrayIcon();
        return;
    }
    _firstAnswerPending = true;
    _hostWatcher->askHost();
    _firstAnswerTimer.start();
}

void TrayDock::firstAnswerLate() {
    if (!_firstAnswerPending) return;
    _firstAnswerPending = false;
    if (QGuiApplication::platformName() == QLatin1String("xcb")) createTrayIcon();
}

void TrayDock::hostAnswered(bool registered) {
    const bool first = _firstAnswerPending;
    _firstAnswerPending = false;
    _firstAnswerTimer.stop();
    if (registered)
        hostRegistered();
    else if (first && QGuiApplication::platformName() == QLatin1String("xcb"))
        createTrayIcon();
}

void TrayDock::docked() {
    _hostWatcher->docked();
}

void TrayDock::createDBusStatusItem() {
    if (_statusItem || _sniItem) return;
    // The packaged icon by its theme name, where the theme has it (a host
    // prefers a name to pixmaps, and a name it cannot find shows as a
    // broken icon); the drawn Q as pixmaps in any case.
    const QString themeName = QStringLiteral("quendral-monitor");
    _sniItem = std::make_unique<SniItem>(
        quendral::makeTrayIcon(), QIcon::hasThemeIcon(themeName) ? themeName : QString(),
        text(QM_TRANSLATE_NOOP("Quendral", "Tarnwick Quendral")), _menu);
    if (!_sniItem->isExported()) {
        quendral::logMessage("The status item could not be put on the session bus");
        _sniItem.reset();
        createTrayIcon();
        return;
    }
    // The host draws the menu and tells what happens to it through the
    // exported menu's calls. What the hosts send, as found:
    //   xfce4-panel 4.18 and waybar 0.9: AboutToShowGroup([0]) at each
    //     opening, by a left or a right click; nothing at all when the menu
    //     closes.
    //   lxqt-panel 1.2: AboutToShow(0) and Event(0, "opened") at each
    //     opening by a right click, Event(0, "closed") at each closing; a
    //     left click sends Activate instead (it never reads ItemIsMenu) and
    //     shows nothing when it is refused, so the menu Qt draws opens (and
    //     closes as such).
    //   Plasma 5.27: the same as lxqt-panel for a right click; a left click
    //     sends Activate, and when it is refused, AboutToShow(0) and
    //     Event(0, "opened") within milliseconds, and draws the menu.
    //   GNOME Shell 43 (AppIndicator extension) and mate-panel 1.26: the
    //     opening and Event(0, "closed") at each closing.
    //   Cinnamon 5.6 (xapp-sn-watcher): "closed" after a left click; after a
    //     right click it never says the menu closed.
    // So the application's refresh (Application.h) starts at whichever comes
    // first and stops at "closed".
    // Where the host never says so (xfce4-panel; Cinnamon after a right
    // click) the menu is a popup window of the host on X11, and the refresh
    // stops when that window goes (HostMenuWindows.h). A host that says
    // nothing on Wayland, where no client sees another's popups (waybar),
    // gets the stop Application::kSilentHostRefreshMs after the opening or
    // the last pointing at an item.
    DBusMenuExporter *exporter = _sniItem->menuExporter();
    connect(exporter, &DBusMenuExporter::menuAboutToShow, this, &TrayDock::hostMenuAboutToShow);
    connect(exporter, &DBusMenuExporter::menuOpened, this, &TrayDock::hostMenuOpened);
    connect(exporter, &DBusMenuExporter::menuClosed, this, &TrayDock::hostMenuClosed);
    connect(exporter, &DBusMenuExporter::itemHovered, this, &TrayDock::hostMenuPointedAt);
    connect(_sniItem.get(), &SniItem::activated, this, &TrayDock::popUpMenu);
    connect(_sniItem.get(), &SniItem::activationTokenGiven, this, &TrayDock::activationTokenGiven);
    connect(_sniItem.get(), &SniItem::droppedForGood, this, &TrayDock::leaveDBusStatusItem,
            Qt::QueuedConnection);
    // Some tray hosts show an empty menu for good if it had no items when
    // the item was registered, so it is filled once now, with the texts made
    // for a host, before the watcher hears of it.
    emit menuWanted();
    _sniItem->registerWithWatcher();
    // Made only once a host is there to show it.
    docked();
}

void TrayDock::createTrayIcon() {
    if (_statusItem || _sniItem) return;
    _statusItem = std::make_unique<QSystemTrayIcon>();
    _statusItem->setIcon(quendral::makeTrayIcon());
    _statusItem->setContextMenu(_menu);
    // Some tray hosts show an empty menu for good if it had no items when
    // the icon was registered (at show(), below), so it is filled once now,
    // after it was handed over, so the texts suit whoever draws it.
    emit menuWanted();
    _statusItem->setToolTip(text(QM_TRANSLATE_NOOP("Quendral", "Tarnwick Quendral")));
    // A left click opens the menu Qt draws, as on other desktops' status
    // items. Where the host draws the menu it shows it on a right click; a
    // menu of Qt's own would be drawn apart from the host's (and, on
    // Wayland, as a window of its own), so a left click does nothing there.
    connect(_statusItem.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger && !hostDrawsMenu() && !_menu->isVisible())
                    _menu->popup(QCursor::pos());
            });
    _statusItem->show();
    if (hostDrawsMenu() || QSystemTrayIcon::isSystemTrayAvailable()) docked();
}

void TrayDock::leaveDBusStatusItem() {
    if (!_sniItem) return;
    // Until another watcher comes, this host is not offered the item again.
    _hostKeepsNoItem = true;
    if (_menu->isVisible()) _menu->hide();
    emit hostMenuGone();
    _sniItem.reset();
    if (xembedTrayPresent()) {
        quendral::logMessage("The tray host does not keep the monitor's icon; it is shown in "
                             "the X11 system tray instead");
        createTrayIcon();
        return;
    }
    quendral::logMessage("The tray host does not keep the monitor's icon, and no other tray "
                         "shows it");
    if (!_trayNoticeGiven) {
        _trayNoticeGiven = true;
        notifyMissingTray();
    }
}

void TrayDock::moveToDBusStatusItem() {
    // Only when a host is known to be there (it registered, or the watcher
    // said so).
    if (!_statusItem || qtExportsMenu() || _sniItem || _hostKeepsNoItem) return;
    // One icon at a time: the XEmbed icon goes before the item is shown.
    if (_menu->isVisible()) _menu->hide();
    _statusItem.reset();
    createDBusStatusItem();
}

void TrayDock::popUpMenu(int x, int y) {
    // A host that does not honour ItemIsMenu (lxqt-panel 1.2 never reads it,
    // mate-panel 1.26 and Cinnamon neither) and does not draw the menu when
    // activation is refused: on X11 the menu Qt draws opens at the point the
    // host gives, by the icon, as the host's own would. mate-panel gives
    // (0, 32) wherever its icon is: a point far from the pointer, which is
    // on the icon just clicked, is not where the user looks.
    constexpr int kNearPointer = 100;
    const QPoint given(x, y);
    const QPoint pointer = QCursor::pos();
    const QPoint at = (given - pointer).manhattanLength() <= kNearPointer ? given : pointer;
    if (!_menu->isVisible()) _menu->popup(at);
}

void TrayDock::hostRegistered() {
    // The first answer is not waited for any longer: a host is there.
    _firstAnswerPending = false;
    _firstAnswerTimer.stop();
    if (_sniItem && !_sniItem->isRegistered()) _sniItem->registerWithWatcher();
    if (!_statusItem && !_sniItem && !_hostKeepsNoItem) createDBusStatusItem();
    moveToDBusStatusItem();
}

void TrayDock::watcherAppeared() {
    // A new watcher (a panel restarted): it may keep the item.
    _hostKeepsNoItem = false;
    if (!_sniItem && !qtExportsMenu()) {
        // Whether a host is there already: the answer, or a host that
        // registers with the new watcher, brings the item.
        _hostWatcher->askHost();
        return;
    }
    // A new watcher knows nothing of the item registered with the one
    // before it: register again.
    if (_sniItem) {
        _sniItem->registerWithWatcher();
    } else if (hostDrawsMenu()) {
        _statusItem->hide();
        _statusItem->show();
    }
}

void TrayDock::noticeMissingTray() {
    if (_trayNoticeGiven) return;
    if (_sniItem) return;
    if (_statusItem && (hostDrawsMenu() || QSystemTrayIcon::isSystemTrayAvailable())) return;
    _trayNoticeGiven = true;
    quendral::logMessage(
        "No system tray found; the monitor waits for one. On GNOME install the AppIndicator "
        "extension (gnome-shell-extension-appindicator); elsewhere a panel with a system tray "
        "or status notifier area");
    notifyMissingTray();
}

void TrayDock::notifyMissingTray() {
    // Whoever chose the monitor from the application menu does not read the
    // system log: the desktop's notifications say it, where a notification
    // server answers. Not waited for: a server that never answers must not
    // hold the monitor.
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return;
    QDBusMessage notify = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.Notifications"),
        QStringLiteral("/org/freedesktop/Notifications"),
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
    notify << QStringLiteral("Quendral Monitor") << uint(0) << QStringLiteral("quendral-monitor")
           << text(QM_TRANSLATE_NOOP("Quendral", "Quendral Monitor is running"))
           << text(QM_TRANSLATE_NOOP(
                  "Quendral",
                  "No system tray shows its icon. On GNOME, install and enable the "
                  "AppIndicator extension (gnome-shell-extension-appindicator); elsewhere, add "
                  "a system tray or status notifier area to your panel. The icon appears as "
                  "soon as there is one."))
           << QStringList() << QVariantMap() << int(-1);
    bus.asyncCall(notify);
}
