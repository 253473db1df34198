#include "Application.h"

#include "ConfirmationAlert.h"
#include "DBusMenuExporter.h"
#include "Environment.h"
#include "HostMenuWindows.h"
#include "Localization.h"
#include "LoginItems.h"
#include "Log.h"
#include "SniItem.h"
#include "TrayHostWatcher.h"
#include "XEmbedTray.h"
#include "TrayIcon.h"
#include "TrayText.h"

#include <QCoreApplication>
#include <QCursor>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDateTime>
#include <QDesktopServices>
#include <QGuiApplication>
#include <QIcon>
#include <QMessageBox>
#include <QUrl>

using tray::format;
using tray::text;

namespace {

qint64 now() {
    return QDateTime::currentMSecsSinceEpoch();
}

} // namespace

Application::Application(std::string bundlePath) : _bundlePath(std::move(bundlePath)) {
    quendral::setTranslator([](const std::string &key) {
        return QCoreApplication::translate("Quendral", key.c_str()).toStdString();
    });
    if (const QByteArray ms = qgetenv("QUENDRAL_MONITOR_TEST_SILENT_HOST_MS"); !ms.isEmpty()) {
        bool ok = false;
        const qint64 value = ms.toLongLong(&ok);
        if (ok && value > 0) _silentHostRefreshMs = value;
    }
    _firstAnswerTimer.setSingleShot(true);
    _firstAnswerTimer.setInterval(kFirstAnswerMs);
    connect(&_firstAnswerTimer, &QTimer::timeout, this, &Application::firstAnswerLate);
    _menuUpdateTimer.setInterval(500);
    connect(&_menuUpdateTimer, &QTimer::timeout, this, &Application::menuTimerFired);
    _hostWatcher = new TrayHostWatcher(this);
    connect(_hostWatcher, &TrayHostWatcher::watcherAppeared, this, &Application::watcherAppeared);
    connect(_hostWatcher, &TrayHostWatcher::hostDidRegister, this, &Application::hostRegistered);
    connect(_hostWatcher, &TrayHostWatcher::hostAnswered, this, &Application::hostAnswered);
    connect(_hostWatcher, &TrayHostWatcher::noTrayTimedOut, this, &Application::noticeMissingTray);
    _hostMenuWindows = new HostMenuWindows(this);
    connect(_hostMenuWindows, &HostMenuWindows::menuClosed, this, [this] {
        // The host's menu is off the screen, though the host did not say.
        if (!_menu->isVisible()) menuDidClose();
    });
}

bool Application::noTrayCheckPending() const {
    return _hostWatcher->noTrayCheckPending();
}

Application::~Application() {
    quendral::setTranslator({});
}

bool Application::hostDrawsMenu() const {
    // A StatusNotifierItem host draws the menu from the description exported
    // over D-Bus: the monitor's own, or Qt's, should Qt's icon have found a
    // host.
    return _sniItem || qtExportsMenu();
}

bool Application::qtExportsMenu() const {
    // Qt gives the menu a platform counterpart when it exports it.
    return _statusItem && _menu && _menu->platformMenu();
}

// --- start-up -------------------------------------------------------------

void Application::applicationDidFinishLaunching() {
    _psn = QCoreApplication::applicationPid();
    _manager = std::make_unique<QuendralManager>();
    setupGlobalEnvironment();
    createMenu();
    createStatusItem();
}

void Application::createStatusItem() {
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

void Application::firstAnswerLate() {
    if (!_firstAnswerPending) return;
    _firstAnswerPending = false;
    if (QGuiApplication::platformName() == QLatin1String("xcb")) createTrayIcon();
}

void Application::hostAnswered(bool registered) {
    const bool first = _firstAnswerPending;
    _firstAnswerPending = false;
    _firstAnswerTimer.stop();
    if (registered)
        hostRegistered();
    else if (first && QGuiApplication::platformName() == QLatin1String("xcb"))
        createTrayIcon();
}

void Application::docked() {
    _hostWatcher->docked();
}

void Application::createDBusStatusItem() {
    if (_statusItem || _sniItem) return;
    // The packaged icon by its theme name, where the theme has it (a host
    // prefers a name to pixmaps, and a name it cannot find shows as a
    // broken icon); the drawn Q as pixmaps in any case.
    const QString themeName = QStringLiteral("quendral-monitor");
    _sniItem = std::make_unique<SniItem>(
        quendral::makeTrayIcon(), QIcon::hasThemeIcon(themeName) ? themeName : QString(),
        text(QM_TRANSLATE_NOOP("Quendral", "Tarnwick Quendral")), _menu.get());
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
    // So the refresh starts at whichever comes first and stops at "closed".
    // Where the host never says so (xfce4-panel; Cinnamon after a right
    // click) the menu is a popup window of the host on X11, and the refresh
    // stops when that window goes (HostMenuWindows.h). A host that says
    // nothing on Wayland, where no client sees another's popups (waybar),
    // gets the stop kSilentHostRefreshMs after the opening or the last
    // pointing at an item.
    DBusMenuExporter *exporter = _sniItem->menuExporter();
    // The host draws the menu: one of Qt's own, opened because a host asked
    // for activation and was slow to show its own, goes.
    connect(exporter, &DBusMenuExporter::menuAboutToShow, this, [this] {
        if (_menu->isVisible()) _menu->hide();
        menuWillOpen();
        hostMenuOpening();
    });
    connect(exporter, &DBusMenuExporter::menuOpened, this, [this] {
        // Usually just after AboutToShow, which did the work already.
        if (_menuUpdateTimer.isActive())
            _menuOpenedAt = now();
        else
            menuWillOpen();
        hostMenuOpening();
    });
    connect(exporter, &DBusMenuExporter::menuClosed, this, [this] {
        _hostReportsClosing = true;
        menuDidClose();
    });
    connect(exporter, &DBusMenuExporter::itemHovered, this, [this] { _menuOpenedAt = now(); });
    connect(_sniItem.get(), &SniItem::activated, this, &Application::popUpMenu);
    connect(_sniItem.get(), &SniItem::droppedForGood, this, &Application::leaveDBusStatusItem,
            Qt::QueuedConnection);
    // Some tray hosts show an empty menu for good if it had no items when
    // the item was registered, so it is filled once now, with the texts made
    // for a host, before the watcher hears of it.
    menuWillOpen();
    menuDidClose();
    _sniItem->registerWithWatcher();
    // Made only once a host is there to show it.
    docked();
}

void Application::createTrayIcon() {
    if (_statusItem || _sniItem) return;
    _statusItem = std::make_unique<QSystemTrayIcon>();
    _statusItem->setIcon(quendral::makeTrayIcon());
    _statusItem->setContextMenu(_menu.get());
    // Some tray hosts show an empty menu for good if it had no items when
    // the icon was registered (at show(), below), so it is filled once now,
    // after it was handed over, so the texts suit whoever draws it.
    menuWillOpen();
    menuDidClose();
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

void Application::hostMenuOpening() {
    // Only while the refresh runs (an instance is listed) and the menu is
    // the host's, not one Qt draws.
    if (_menuUpdateTimer.isActive() && !_menu->isVisible()) _hostMenuWindows->watch();
}

void Application::leaveDBusStatusItem() {
    if (!_sniItem) return;
    // Until another watcher comes, this host is not offered the item again.
    _hostKeepsNoItem = true;
    if (_menu->isVisible()) _menu->hide();
    menuDidClose();
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

void Application::moveToDBusStatusItem() {
    // Only when a host is known to be there (it registered, or the watcher
    // said so).
    if (!_statusItem || qtExportsMenu() || _sniItem || _hostKeepsNoItem) return;
    // One icon at a time: the XEmbed icon goes before the item is shown.
    if (_menu->isVisible()) _menu->hide();
    _statusItem.reset();
    createDBusStatusItem();
}

void Application::popUpMenu(int x, int y) {
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

void Application::hostRegistered() {
    // The first answer is not waited for any longer: a host is there.
    _firstAnswerPending = false;
    _firstAnswerTimer.stop();
    if (_sniItem && !_sniItem->isRegistered()) _sniItem->registerWithWatcher();
    if (!_statusItem && !_sniItem && !_hostKeepsNoItem) createDBusStatusItem();
    moveToDBusStatusItem();
}

void Application::watcherAppeared() {
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

void Application::noticeMissingTray() {
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

void Application::notifyMissingTray() {
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

void Application::setupGlobalEnvironment() {
    quendral::setupGlobalEnvironment(*_manager, _bundlePath);
}

// --- the menu -------------------------------------------------------------

QMenu *Application::createMenu() {
    _menu = std::make_unique<QMenu>();
    connect(_menu.get(), &QMenu::aboutToShow, this, &Application::menuWillOpen);
    connect(_menu.get(), &QMenu::aboutToHide, this, [this] {
        // A host that says the menu closed will say it again.
        if (qtExportsMenu() && _menuUpdateTimer.isActive()) _hostReportsClosing = true;
        menuDidClose();
    });
    // Pointing at an item shows the menu is still open where the host
    // tells nothing else.
    connect(_menu.get(), &QMenu::hovered, this, [this] { _menuOpenedAt = now(); });

    // The fixed items are made once; an opening changes only their state,
    // so that a host drawing the menu is not sent a new layout each time.
    _noInstances = new QAction(
        itemText(text(QM_TRANSLATE_NOOP("Quendral", "No Quendral Instances"))), _menu.get());
    _noInstances->setEnabled(false);
    _instancesEnd = _menu->addSeparator();
    _logItem = addGeneralItem(QM_TRANSLATE_NOOP("Quendral", "Open Diagnostic Messages"), false);
    connect(_logItem, &QAction::triggered, this, &Application::viewLogFile);
    _dravinterItem =
        addGeneralItem(QM_TRANSLATE_NOOP("Quendral", "Open Quendral Dravinter"), false);
    connect(_dravinterItem, &QAction::triggered, this, &Application::launchDravinter);
    QAction *docs =
        addGeneralItem(QM_TRANSLATE_NOOP("Quendral", "View Online Documentation"), true);
    connect(docs, &QAction::triggered, this, &Application::onlineDocumentation);
    _menu->addSeparator();
    _loginItem =
        addGeneralItem(QM_TRANSLATE_NOOP("Quendral", "Start Quendral Monitor at Login"), true);
    _loginItem->setCheckable(true);
    connect(_loginItem, &QAction::triggered, this, [this](bool checked) {
        // Qt flips a checkable item before it reports the choice; the action
        // reads the state the user saw.
        _loginItem->setChecked(!checked);
        toggleStartAtLogin(_loginItem);
    });
    QAction *quit = addGeneralItem(QM_TRANSLATE_NOOP("Quendral", "Quit Quendral Monitor"), true);
    quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    connect(quit, &QAction::triggered, qApp, &QCoreApplication::quit);
    return _menu.get();
}

QAction *Application::addGeneralItem(const char *title, bool enabled) {
    QAction *item = _menu->addAction(itemText(text(title)));
    item->setEnabled(enabled);
    return item;
}

void Application::menuWillOpen() {
    if (_inModalDialog) return;
    if (!_manager) return; // not launched yet
    const auto instances = _manager->allInstances();
    syncInstanceItems(
        *_menu, instances, _instancesEnd, _noInstances,
        [this](InstanceAction *item, const QuendralInstance &i) { updateMenuItem(item, i); },
        [this](InstanceAction *item) {
            connect(item, &QAction::triggered, this, [this, item] {
                if (item->kind() == InstanceAction::Kind::Start) startInstance(item);
                if (item->kind() == InstanceAction::Kind::Stop) stopInstance(item);
            });
        });
    if (!instances.empty()) {
        // Also when a host reports two openings without a close between.
        _menuUpdateTimer.start();
        _menuOpenedAt = now();
    }
    _defaultInstance = QuendralManager::defaultInstance(instances);
    _logItem->setEnabled(_defaultInstance && _defaultInstance->logFile().has_value());
    _dravinterItem->setEnabled(_defaultInstance &&
                               _defaultInstance->serverStatus() == ServerStatusRunning);
    _loginItem->setChecked(willStartAtLogin(applicationUrl()));
}

void Application::menuDidClose() {
    _menuUpdateTimer.stop();
    _hostMenuWindows->end();
}

void Application::menuTimerFired() {
    // A menu Qt draws is closed exactly when it is no longer visible. Tray
    // hosts that draw the menu themselves say when it opens, but some never
    // say that it closed: those get a short time after the opening (or the
    // last pointing at an item), the others a long one should the message
    // be lost.
    bool closed;
    if (_menu->isVisible())
        closed = false;
    else if (hostDrawsMenu())
        closed = now() - _menuOpenedAt >
                 (_hostReportsClosing ? kMenuRefreshLimitMs : _silentHostRefreshMs);
    else
        closed = true;
    if (closed) {
        menuDidClose();
        return;
    }
    for (InstanceAction *item : instanceItems(*_menu)) {
        item->representedObject()->refresh();
        updateMenuItem(item, *item->representedObject());
    }
}

void Application::updateMenuItem(InstanceAction *item, const QuendralInstance &instance) {
    const InstanceItemState state = instanceItemState(instance);
    const QString shown = itemText(format(state.title, instance.instanceName()));
    if (item->text() != shown) item->setText(shown);
    item->setKind(state.kind);
    item->setEnabled(state.kind != InstanceAction::Kind::None);
}

// --- actions ----------------------------------------------------------------

// The instance is held by value: it must outlive the alert's event loop
// whatever happens to the item meanwhile.
void Application::startInstance(InstanceAction *sender) {
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
    const auto instance = sender->representedObject();
    if (confirm(instance, true)) instance->startup();
}

void Application::stopInstance(InstanceAction *sender) {
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
    const auto instance = sender->representedObject();
    if (confirm(instance, false)) instance->shutdown();
}

bool Application::confirm(const std::shared_ptr<QuendralInstance> &instance, bool start) {
    _inModalDialog = true;
    const bool confirmed =
        confirmAction(*instance, start, [this](QMessageBox *box) { _alert = box; });
    _inModalDialog = false;
    return confirmed;
}

void Application::viewLogFile() {
    std::optional<std::string> log;
    if (_defaultInstance) log = _defaultInstance->logFile();
    if (log) openWithDesktop(QUrl::fromLocalFile(QString::fromStdString(*log)));
}

void Application::launchDravinter() {
    openUrl(QString::fromLatin1(kDravinterUrl));
}

void Application::onlineDocumentation() {
    openUrl(QString::fromLatin1(kDocumentationUrl));
}

void Application::openUrl(const QString &url) {
    const QUrl u(url, QUrl::StrictMode);
    if (!u.isValid()) {
        quendral::logMessage("cannot open %@: not a valid URL", {url.toStdString()});
        return;
    }
    openWithDesktop(u);
}

bool Application::openWithDesktop(const QUrl &url) {
    if (QDesktopServices::openUrl(url)) return true;
    quendral::logMessage("cannot open %@: the desktop has no program for it",
                         {url.toString().toStdString()});
    return false;
}

// --- start at login -----------------------------------------------------------

std::string Application::applicationUrl() {
    return quendral::fileUrl(quendral::applicationPath());
}

bool Application::willStartAtLogin(const std::string &url) {
    return quendral::willStartAtLogin(url);
}

void Application::setStartAtLogin(const std::string &url, bool enabled) {
    quendral::setStartAtLogin(url, enabled);
}

void Application::toggleStartAtLogin(QAction *sender) {
    setStartAtLogin(applicationUrl(), !sender->isChecked());
}
