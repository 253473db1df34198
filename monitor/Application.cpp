#include "Application.h"

#include "Environment.h"
#include "Localization.h"
#include "LoginItems.h"
#include "Log.h"
#include "TrayIcon.h"

#include <QCoreApplication>
#include <QCursor>
#include <QDateTime>
#include <QDesktopServices>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QSystemTrayIcon>
#include <QTimer>
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

} // namespace

InstanceAction::InstanceAction(std::shared_ptr<QuendralInstance> instance, QObject *parent)
    : QAction(parent), _instance(std::move(instance)) {}

Application::Application(std::string bundlePath) : _bundlePath(std::move(bundlePath)) {
    quendral::setTranslator([](const std::string &key) {
        return QCoreApplication::translate("Quendral", key.c_str()).toStdString();
    });
}

Application::~Application() {
    // Released in the order the fields are declared, the manager first.
    _manager.reset();
    delete _statusItem;
    delete _menuUpdateTimer;
    _defaultInstance.reset();
    delete _menu;
    quendral::setTranslator({});
}

QString Application::itemText(const QString &shown) const {
    QString s = shown;
    if (hostDrawsMenu()) {
        // The tray host draws the menu from a D-Bus description in which "_"
        // marks a mnemonic ("__" is a literal one), and Qt turns the first
        // "&" of the text into that "_": doubling the first "&" makes it
        // show as itself. A tab has no meaning there.
        s.replace(QLatin1Char('_'), QLatin1String("__"));
        const qsizetype amp = s.indexOf(QLatin1Char('&'));
        if (amp >= 0) s.insert(amp, QLatin1Char('&'));
        return s;
    }
    // Qt draws the menu: it reads "&" as a mnemonic marker (doubling shows
    // it) and a tab as the start of the shortcut column, so a tab in a
    // directory name is shown as the space it stands for.
    return s.replace(QLatin1Char('&'), QLatin1String("&&"))
        .replace(QLatin1Char('\t'), QLatin1Char(' '));
}

bool Application::hostDrawsMenu() const {
    // A StatusNotifierItem host draws the menu from the description Qt
    // exports over D-Bus; Qt then gives the menu a platform counterpart.
    return _menu && _menu->platformMenu();
}

QString Application::shownText(const QAction *action) {
    return action->text().replace(QLatin1String("&&"), QLatin1String("&"));
}

// --- start-up -------------------------------------------------------------

void Application::applicationDidFinishLaunching() {
    _psn = QCoreApplication::applicationPid();
    _manager = std::make_unique<QuendralManager>();
    setupGlobalEnvironment();

    _statusItem = new QSystemTrayIcon();
    _statusItem->setIcon(quendral::makeTrayIcon());
    _statusItem->setContextMenu(createMenu());
    // Some tray hosts show an empty menu for good if it had no items when
    // the icon was registered (at show(), below), so it is filled once now,
    // after it was handed over, so the texts suit whoever draws it.
    menuWillOpen();
    menuDidClose();
    _statusItem->setToolTip(text("Tarnwick Quendral"));
    // A left click opens the menu too, as it does on other desktops' status
    // items.
    connect(_statusItem, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger && !_menu->isVisible())
                    _menu->popup(QCursor::pos());
            });
    _statusItem->show();
}

void Application::setupGlobalEnvironment() {
    quendral::setupGlobalEnvironment(*_manager, _bundlePath);
}

// --- the menu -------------------------------------------------------------

QMenu *Application::createMenu() {
    delete _menu; // made once at launch; a second call replaces it
    _menu = new QMenu();
    connect(_menu, &QMenu::aboutToShow, this, &Application::menuWillOpen);
    connect(_menu, &QMenu::aboutToHide, this, &Application::menuDidClose);
    return _menu;
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
    _menu->clear();

    if (!instances.empty()) {
        for (const auto &instance : instances) {
            auto *item = new InstanceAction(instance, _menu);
            updateMenuItem(item, *instance);
            connect(item, &QAction::triggered, this, [this, item] {
                if (item->kind() == InstanceAction::Kind::Start) startInstance(item);
                if (item->kind() == InstanceAction::Kind::Stop) stopInstance(item);
            });
            _menu->addAction(item);
        }
        // A timer left from an opening that was never closed is stopped
        // here: nothing may keep polling once the menu is gone.
        delete _menuUpdateTimer;
        _menuUpdateTimer = new QTimer(this);
        _menuUpdateTimer->setInterval(500);
        connect(_menuUpdateTimer, &QTimer::timeout, this, &Application::menuTimerFired);
        _menuUpdateTimer->start();
        _menuOpenedAt = QDateTime::currentMSecsSinceEpoch();
    } else {
        addGeneralItem("No Quendral Instances", false);
    }
    _defaultInstance = QuendralManager::defaultInstance(instances);

    _menu->addSeparator();
    QAction *log = addGeneralItem("Open Diagnostic Messages",
                                  _defaultInstance && _defaultInstance->logFile().has_value());
    connect(log, &QAction::triggered, this, &Application::viewLogFile);
    QAction *dravinter =
        addGeneralItem("Open Quendral Dravinter",
                       _defaultInstance && _defaultInstance->serverStatus() == ServerStatusRunning);
    connect(dravinter, &QAction::triggered, this, &Application::launchDravinter);
    QAction *docs = addGeneralItem("View Online Documentation", true);
    connect(docs, &QAction::triggered, this, &Application::onlineDocumentation);
    _menu->addSeparator();
    QAction *login = addGeneralItem("Start Quendral Monitor at Login", true);
    login->setCheckable(true);
    login->setChecked(willStartAtLogin(applicationUrl()));
    connect(login, &QAction::triggered, this, [this, login](bool checked) {
        // Qt flips a checkable item before it reports the choice; the action
        // reads the state the user saw.
        login->setChecked(!checked);
        toggleStartAtLogin(login);
    });
    QAction *quit = addGeneralItem("Quit Quendral Monitor", true);
    quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    connect(quit, &QAction::triggered, qApp, &QCoreApplication::quit);
}

void Application::menuDidClose() {
    delete _menuUpdateTimer;
    _menuUpdateTimer = nullptr;
}

void Application::menuTimerFired() {
    // Tray hosts that draw the menu themselves may never say it closed: for
    // those a time limit ends the refresh. A menu Qt draws is closed exactly
    // when it is no longer visible, and refreshes for as long as it is open.
    const bool closed =
        hostDrawsMenu() ? QDateTime::currentMSecsSinceEpoch() - _menuOpenedAt > kMenuRefreshLimitMs
                        : !_menu->isVisible();
    if (closed) {
        menuDidClose();
        return;
    }
    for (QAction *action : _menu->actions()) {
        auto *item = qobject_cast<InstanceAction *>(action);
        if (!item) continue;
        item->representedObject()->refresh();
        updateMenuItem(item, *item->representedObject());
    }
}

void Application::updateMenuItem(InstanceAction *item, const QuendralInstance &instance) {
    const char *title;
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
    default:
        title = "%@: Unknown";
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
