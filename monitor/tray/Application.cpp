#include "Application.h"

#include "DBusMenuExporter.h"
#include "Environment.h"
#include "Localization.h"
#include "LoginItems.h"
#include "Log.h"
#include "SniItem.h"
#include "TrayIcon.h"

#include <QCoreApplication>
#include <QCursor>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QDateTime>
#include <QDesktopServices>
#include <QGuiApplication>
#include <QIcon>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QUrl>

namespace {

// Every user-visible text goes through the one localisation seam, which the
// tray points at Qt's translator.
QString text(const char *english) {
    return QString::fromStdString(quendral::localizedString(english));
}

// The localised format with its %@ filled by arg, taken as it is.
QString format(const char *english, const std::string &arg) {
    return QString::fromStdString(
        quendral::fillPlaceholders(quendral::localizedString(english), {arg}));
}

const QString kWatcherService = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString kWatcherPath = QStringLiteral("/StatusNotifierWatcher");

// Whether a StatusNotifierItem host (a panel that draws tray items from
// D-Bus) has registered with the session's watcher.
bool statusNotifierHostRegistered(QDBusConnection &bus) {
    QDBusMessage get = QDBusMessage::createMethodCall(
        kWatcherService, kWatcherPath, QStringLiteral("org.freedesktop.DBus.Properties"),
        QStringLiteral("Get"));
    get << kWatcherService << QStringLiteral("IsStatusNotifierHostRegistered");
    const QDBusMessage reply = bus.call(get, QDBus::Block, 2000);
    return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty() &&
           qvariant_cast<QDBusVariant>(reply.arguments().constFirst()).variant().toBool();
}

qint64 now() {
    return QDateTime::currentMSecsSinceEpoch();
}

} // namespace

InstanceAction::InstanceAction(std::shared_ptr<QuendralInstance> instance, QObject *parent)
    : QAction(parent), _instance(std::move(instance)) {}

Application::Application(std::string bundlePath) : _bundlePath(std::move(bundlePath)) {
    quendral::setTranslator([](const std::string &key) {
        return QCoreApplication::translate("Quendral", key.c_str()).toStdString();
    });
    _menuUpdateTimer.setInterval(500);
    connect(&_menuUpdateTimer, &QTimer::timeout, this, &Application::menuTimerFired);
    _noTrayTimer.setSingleShot(true);
    _noTrayTimer.setInterval(kNoTrayNoticeMs);
    connect(&_noTrayTimer, &QTimer::timeout, this, &Application::noticeMissingTray);
}

Application::~Application() {
    quendral::setTranslator({});
}

QString Application::itemText(const QString &shown) const {
    QString s = shown;
    if (qtExportsMenu()) {
        // The tray host draws the menu from Qt's D-Bus description, in which
        // "_" marks a mnemonic ("__" is a literal one), and Qt turns the
        // first "&" of the text into that "_": doubling the first "&" makes
        // it show as itself. A tab has no meaning there.
        s.replace(QLatin1Char('_'), QLatin1String("__"));
        const qsizetype amp = s.indexOf(QLatin1Char('&'));
        if (amp >= 0) s.insert(amp, QLatin1Char('&'));
        return s;
    }
    // Qt draws the menu, or the monitor's own D-Bus menu describes it from
    // these texts: "&" is a mnemonic marker (doubling shows it) and a tab the
    // start of the shortcut column, so a tab in a directory name is shown as
    // the space it stands for.
    return s.replace(QLatin1Char('&'), QLatin1String("&&"))
        .replace(QLatin1Char('\t'), QLatin1Char(' '));
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

QString Application::shownText(const QAction *action) {
    return action->text().replace(QLatin1String("&&"), QLatin1String("&"));
}

// --- start-up -------------------------------------------------------------

void Application::applicationDidFinishLaunching() {
    _psn = QCoreApplication::applicationPid();
    _manager = std::make_unique<QuendralManager>();
    setupGlobalEnvironment();
    createMenu();

    // Whether a D-Bus host (StatusNotifierItem) or an X11 tray (XEmbed)
    // shows the icon is decided once, when it is made. X11 trays take the
    // icon whenever they appear, so there it is made at once; elsewhere
    // (Wayland) only a D-Bus host can show it, and the icon waits for one,
    // as at login, when the monitor may start before the panel.
    QDBusConnection bus = QDBusConnection::sessionBus();
    const bool x11 = QGuiApplication::platformName() == QLatin1String("xcb");
    if (bus.isConnected()) {
        // A watcher that appears, or comes back with a restarted panel, and
        // a host that registers with it.
        auto *watcher = new QDBusServiceWatcher(kWatcherService, bus,
                                                QDBusServiceWatcher::WatchForRegistration, this);
        connect(watcher, &QDBusServiceWatcher::serviceRegistered, this,
                &Application::watcherAppeared);
        bus.connect(kWatcherService, kWatcherPath, kWatcherService,
                    QStringLiteral("StatusNotifierHostRegistered"), this, SLOT(hostRegistered()));
    }
    // The check for a missing tray is armed only while no tray has the
    // icon, so a docked monitor sleeps until the user opens the menu.
    if (x11 || QGuiApplication::platformName() == QLatin1String("wayland")) _noTrayTimer.start();
    if (bus.isConnected() && statusNotifierHostRegistered(bus))
        createDBusStatusItem();
    else if (x11 || !bus.isConnected())
        createTrayIcon();
}

void Application::createStatusItem() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected() && statusNotifierHostRegistered(bus))
        createDBusStatusItem();
    else
        createTrayIcon();
}

void Application::docked() {
    _noTrayTimer.stop();
}

void Application::createDBusStatusItem() {
    if (_statusItem || _sniItem) return;
    // The packaged icon by its theme name, where the theme has it (a host
    // prefers a name to pixmaps, and a name it cannot find shows as a
    // broken icon); the drawn Q as pixmaps in any case.
    const QString themeName = QStringLiteral("quendral-monitor");
    _sniItem = std::make_unique<SniItem>(quendral::makeTrayIcon(),
                                         QIcon::hasThemeIcon(themeName) ? themeName : QString(),
                                         text("Tarnwick Quendral"), _menu.get());
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
    //     left click sends Activate instead (it never reads ItemIsMenu), and
    //     the menu Qt draws opens and closes as such.
    // So the refresh starts at whichever comes first and stops at "closed";
    // hosts that have never said "closed" (xfce4-panel, waybar) get a stop
    // kSilentHostRefreshMs after the opening or the last pointing at an item.
    DBusMenuExporter *exporter = _sniItem->menuExporter();
    connect(exporter, &DBusMenuExporter::menuAboutToShow, this, &Application::menuWillOpen);
    connect(exporter, &DBusMenuExporter::menuOpened, this, [this] {
        // Usually just after AboutToShow, which did the work already.
        if (_menuUpdateTimer.isActive())
            _menuOpenedAt = now();
        else
            menuWillOpen();
    });
    connect(exporter, &DBusMenuExporter::menuClosed, this, [this] {
        _hostReportsClosing = true;
        menuDidClose();
    });
    connect(exporter, &DBusMenuExporter::itemHovered, this, [this] { _menuOpenedAt = now(); });
    connect(_sniItem.get(), &SniItem::activated, this, &Application::popUpMenu);
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
    _statusItem->setToolTip(text("Tarnwick Quendral"));
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

void Application::popUpMenu(int x, int y) {
    // A host that does not honour ItemIsMenu (lxqt-panel 1.2 never reads it)
    // asks for activation on a left click: on X11 the menu Qt draws opens
    // at the pointer, as the host's own would.
    if (!_menu->isVisible()) _menu->popup(QPoint(x, y));
}

void Application::hostRegistered() {
    if (_sniItem && !_sniItem->isRegistered()) _sniItem->registerWithWatcher();
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!_statusItem && !_sniItem && statusNotifierHostRegistered(bus)) createDBusStatusItem();
}

void Application::watcherAppeared() {
    if (!_statusItem && !_sniItem) {
        hostRegistered();
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
    _noInstances = new QAction(itemText(text("No Quendral Instances")), _menu.get());
    _noInstances->setEnabled(false);
    _instancesEnd = _menu->addSeparator();
    _logItem = addGeneralItem("Open Diagnostic Messages", false);
    connect(_logItem, &QAction::triggered, this, &Application::viewLogFile);
    _dravinterItem = addGeneralItem("Open Quendral Dravinter", false);
    connect(_dravinterItem, &QAction::triggered, this, &Application::launchDravinter);
    QAction *docs = addGeneralItem("View Online Documentation", true);
    connect(docs, &QAction::triggered, this, &Application::onlineDocumentation);
    _menu->addSeparator();
    _loginItem = addGeneralItem("Start Quendral Monitor at Login", true);
    _loginItem->setCheckable(true);
    connect(_loginItem, &QAction::triggered, this, [this](bool checked) {
        // Qt flips a checkable item before it reports the choice; the action
        // reads the state the user saw.
        _loginItem->setChecked(!checked);
        toggleStartAtLogin(_loginItem);
    });
    QAction *quit = addGeneralItem("Quit Quendral Monitor", true);
    quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    connect(quit, &QAction::triggered, qApp, &QCoreApplication::quit);
    return _menu.get();
}

QAction *Application::addGeneralItem(const char *title, bool enabled) {
    QAction *item = _menu->addAction(itemText(text(title)));
    item->setEnabled(enabled);
    return item;
}

QList<InstanceAction *> Application::instanceItems() const {
    QList<InstanceAction *> items;
    for (QAction *action : _menu->actions())
        if (auto *item = qobject_cast<InstanceAction *>(action)) items.append(item);
    return items;
}

void Application::syncInstanceItems(
    const std::vector<std::shared_ptr<QuendralInstance>> &instances) {
    // Items of instances that are gone go; the rest stay, in the manager's
    // order, which is also the order they were added in.
    for (InstanceAction *item : instanceItems()) {
        if (std::find(instances.begin(), instances.end(), item->representedObject()) ==
            instances.end())
            delete item;
    }
    const QList<InstanceAction *> kept = instanceItems();
    qsizetype next = 0;
    for (const auto &instance : instances) {
        if (next < kept.size() && kept[next]->representedObject() == instance) {
            updateMenuItem(kept[next++], *instance);
            continue;
        }
        auto *item = new InstanceAction(instance, _menu.get());
        updateMenuItem(item, *instance);
        connect(item, &QAction::triggered, this, [this, item] {
            if (item->kind() == InstanceAction::Kind::Start) startInstance(item);
            if (item->kind() == InstanceAction::Kind::Stop) stopInstance(item);
        });
        _menu->insertAction(next < kept.size() ? kept[next] : _instancesEnd, item);
    }
    const bool none = instances.empty();
    const bool shown = _menu->actions().contains(_noInstances);
    if (none && !shown) _menu->insertAction(_instancesEnd, _noInstances);
    if (!none && shown) _menu->removeAction(_noInstances);
}

void Application::menuWillOpen() {
    if (_inModalDialog) return;
    if (!_manager) return; // not launched yet
    const auto instances = _manager->allInstances();
    syncInstanceItems(instances);
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
                 (_hostReportsClosing ? kMenuRefreshLimitMs : kSilentHostRefreshMs);
    else
        closed = true;
    if (closed) {
        menuDidClose();
        return;
    }
    for (InstanceAction *item : instanceItems()) {
        item->representedObject()->refresh();
        updateMenuItem(item, *item->representedObject());
    }
}

void Application::updateMenuItem(InstanceAction *item, const QuendralInstance &instance) {
    // Any value outside the known ones reads as unknown.
    const char *title = "%@: Unknown";
    InstanceAction::Kind kind = InstanceAction::Kind::None;
    switch (instance.serverStatus()) {
    case ServerStatusStopped:
        title = "Start %@";
        if (instance.canStart()) kind = InstanceAction::Kind::Start;
        break;
    case ServerStatusStarting:
        title = "%@: Starting";
        break;
    case ServerStatusRunning:
        title = "Stop %@";
        if (instance.canStart()) kind = InstanceAction::Kind::Stop;
        break;
    case ServerStatusStopping:
        title = "%@: Stopping";
        break;
    case ServerStatusUnknown:
        break;
    }
    const QString shown = itemText(format(title, instance.instanceName()));
    if (item->text() != shown) item->setText(shown);
    item->setKind(kind);
    item->setEnabled(kind != InstanceAction::Kind::None);
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
    QMessageBox box;
    // Names and paths are shown as they are, never read as markup.
    box.setTextFormat(Qt::PlainText);
    box.setText(format(start ? "Do you want to start the %@?" : "Do you want to stop the %@?",
                       instance->instanceName()));
    box.setInformativeText(format(start ? "This will start up a Quendral instance in directory\n%@."
                                        : "This will stop the Quendral instance in directory\n%@.",
                                  instance->directory()));
    // The directory stands on a line of its own; Qt would otherwise wrap the
    // lines of the informative text at a narrow width, even inside the path.
    if (auto *info = box.findChild<QLabel *>(QStringLiteral("qt_msgbox_informativelabel")))
        info->setWordWrap(false);
    // Both buttons share a role, so every desktop's button layout keeps them
    // in the order added: the action first, then Cancel.
    QPushButton *action = box.addButton(text(start ? "Start" : "Stop"), QMessageBox::ActionRole);
    QPushButton *cancel = box.addButton(text("Cancel"), QMessageBox::ActionRole);
    box.setDefaultButton(action);
    box.setEscapeButton(cancel);
    _alert = &box;
    // The monitor has no window of its own: bring the alert to the front.
    QMetaObject::invokeMethod(this, "bringAlertToFront", Qt::QueuedConnection);
    box.exec();
    _inModalDialog = false;
    _alert = nullptr;
    return box.clickedButton() == action;
}

void Application::bringAlertToFront() {
    if (!_alert) return;
    _alert->raise();
    _alert->activateWindow();
}

void Application::viewLogFile() {
    std::optional<std::string> log;
    if (_defaultInstance) log = _defaultInstance->logFile();
    if (log) QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(*log)));
}

void Application::launchDravinter() {
    openUrl(QString::fromLatin1(kDravinterUrl));
}

void Application::onlineDocumentation() {
    openUrl(QString::fromLatin1(kDocumentationUrl));
}

void Application::openUrl(const QString &url) {
    const QUrl u(url, QUrl::StrictMode);
    if (u.isValid()) QDesktopServices::openUrl(u);
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
