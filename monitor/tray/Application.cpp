#include "Application.h"

#include "ActivationToken.h"
#include "ConfirmationAlert.h"
#include "Environment.h"
#include "Localization.h"
#include "LoginItems.h"
#include "Log.h"
#include "TrayDock.h"
#include "TrayText.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDesktopServices>
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
    _menuUpdateTimer.setInterval(500);
    connect(&_menuUpdateTimer, &QTimer::timeout, this, &Application::menuTimerFired);
}

Application::~Application() {
    quendral::setTranslator({});
}

bool Application::noTrayCheckPending() const {
    return _dock && _dock->noTrayCheckPending();
}

QSystemTrayIcon *Application::statusItem() const {
    return _dock ? _dock->trayIcon() : nullptr;
}

SniItem *Application::sniItem() const {
    return _dock ? _dock->sniItem() : nullptr;
}

bool Application::hostDrawsMenu() const {
    return _dock && _dock->hostDrawsMenu();
}

bool Application::qtExportsMenu() const {
    return _dock && _dock->qtExportsMenu();
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
    if (_dock) return;
    _dock = std::make_unique<TrayDock>(_menu.get());
    // A host draws the menu and tells what happens to it (TrayDock.h and
    // createDBusStatusItem there for what each host sends): the refresh
    // starts at whichever comes first and stops when the host says the menu
    // closed; where it never says so, when its popup goes (X11), or
    // kSilentHostRefreshMs after the opening or the last pointing at an
    // item.
    connect(_dock.get(), &TrayDock::hostMenuAboutToShow, this, [this] {
        // One of Qt's own, opened because a host asked for activation and was
        // slow to show its own, goes.
        if (_menu->isVisible()) _menu->hide();
        menuWillOpen();
        hostMenuOpening();
    });
    connect(_dock.get(), &TrayDock::hostMenuOpened, this, [this] {
        // Usually just after AboutToShow, which did the work already.
        if (_menuUpdateTimer.isActive())
            _menuOpenedAt = now();
        else
            menuWillOpen();
        hostMenuOpening();
    });
    connect(_dock.get(), &TrayDock::hostMenuClosed, this, [this] {
        _hostReportsClosing = true;
        menuDidClose();
    });
    connect(_dock.get(), &TrayDock::hostMenuPointedAt, this, [this] { _menuOpenedAt = now(); });
    connect(_dock.get(), &TrayDock::hostMenuGone, this, [this] {
        // The host's menu is off the screen, though the host did not say.
        if (!_menu->isVisible()) menuDidClose();
    });
    connect(_dock.get(), &TrayDock::menuWanted, this, [this] {
        menuWillOpen();
        menuDidClose();
    });
    _dock->start();
}

void Application::hostMenuOpening() {
    // Only while the refresh runs (an instance is listed) and the menu is
    // the host's, not one Qt draws.
    if (_menuUpdateTimer.isActive() && !_menu->isVisible()) _dock->followHostMenu();
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
    if (_dock) _dock->stopFollowingHostMenu();
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
    // The click on the icon that led here may have come with the host's
    // token: the alert takes focus with it (ActivationToken.h).
    const QString token = _dock ? _dock->takeActivationToken() : QString();
    const bool confirmed = confirmAction(*instance, start, [this, &token](QMessageBox *box) {
        _alert = box;
        if (box)
            prepareActivation(box, token);
        else
            endActivation();
    });
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
