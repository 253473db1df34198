#include "SniItem.h"

#include "DBusMenuExporter.h"
#include "Log.h"
#include "TrayHostWatcher.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusVariant>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCall>
#include <QDBusPendingCallWatcher>
#include <QGuiApplication>
#include <QImage>
#include <QPixmap>
#include <QtEndian>

namespace {

using tray::kWatcherPath;
using tray::kWatcherService;

// The sizes panels draw tray icons at (16 to 32 pixels, twice that on
// dense screens); a host scales the nearest one to the size it wants.
constexpr int kPixmapSizes[] = {16, 22, 24, 32, 44, 48, 64};

// The icon as the protocol carries it: 32-bit ARGB pixels, each in network
// byte order, row after row.
SniIconPixmapList pixmapsOf(const QIcon &icon) {
    SniIconPixmapList list;
    for (int size : kPixmapSizes) {
        const QImage image =
            icon.pixmap(size, size).toImage().convertToFormat(QImage::Format_ARGB32);
        if (image.isNull() || image.width() != size) continue;
        SniIconPixmap pixmap{image.width(), image.height(), {}};
        pixmap.bytes.resize(qsizetype(image.width()) * image.height() * 4);
        auto *out = reinterpret_cast<quint32 *>(pixmap.bytes.data());
        for (int y = 0; y < image.height(); ++y) {
            const auto *row = reinterpret_cast<const quint32 *>(image.constScanLine(y));
            for (int x = 0; x < image.width(); ++x) *out++ = qToBigEndian(row[x]);
        }
        list.append(pixmap);
    }
    return list;
}

} // namespace

SniItem::SniItem(const QIcon &icon, const QString &iconName, const QString &toolTip, QMenu *menu,
                 QObject *parent)
    : QObject(parent), _iconName(iconName), _toolTip(toolTip), _pixmaps(pixmapsOf(icon)) {
    static const bool registered = [] {
        qDBusRegisterMetaType<SniIconPixmap>();
        qDBusRegisterMetaType<SniIconPixmapList>();
        qDBusRegisterMetaType<SniToolTip>();
        qRegisterMetaType<SniIconPixmapList>("SniIconPixmapList");
        return true;
    }();
    (void)registered;
    // A name of the item's own, as the protocol names items: one per
    // process and item.
    static int count = 0;
    _serviceName = QStringLiteral("org.kde.StatusNotifierItem-%1-%2")
                       .arg(QCoreApplication::applicationPid())
                       .arg(++count);
    _menuExporter = new DBusMenuExporter(menu, QString::fromLatin1(kMenuPath), this);
    _activateGrace.setSingleShot(true);
    // Tests that check the host's menu cancels the monitor's lengthen the
    // grace, so that their own slowness does not decide.
    bool ok = false;
    const int grace = qEnvironmentVariableIntValue("QUENDRAL_MONITOR_TEST_ACTIVATE_GRACE_MS", &ok);
    _activateGrace.setInterval(ok && grace > 0 ? grace : kActivateGraceMs);
    connect(&_activateGrace, &QTimer::timeout, this,
            [this] { emit activated(_activatedAt.x(), _activatedAt.y()); });
    // The host shows its own menu: the monitor's is not wanted.
    connect(_menuExporter, &DBusMenuExporter::menuAboutToShow, &_activateGrace, &QTimer::stop);
    connect(_menuExporter, &DBusMenuExporter::menuOpened, &_activateGrace, &QTimer::stop);
    new SniItemAdaptor(this);
    QDBusConnection bus = QDBusConnection::sessionBus();
    _uniqueName = bus.baseService();
    _exported = bus.registerObject(QString::fromLatin1(kItemPath), this) &&
                bus.registerService(_serviceName);
    if (!_exported) return;
    // A host that drops the item says so; a watcher that goes or comes
    // (a panel restarted) starts the count of new registrations afresh.
    bus.connect(kWatcherService, kWatcherPath, kWatcherService,
                QStringLiteral("StatusNotifierItemUnregistered"), this,
                SLOT(watcherDroppedItem(QString)));
    bus.connect(QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
                QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameOwnerChanged"),
                {kWatcherService}, QString(), this,
                SLOT(watcherOwnerChanged(QString, QString, QString)));
}

SniItem::~SniItem() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.unregisterService(_serviceName);
    bus.unregisterObject(QString::fromLatin1(kItemPath));
}

void SniItem::registerWithWatcher() {
    QDBusMessage call =
        QDBusMessage::createMethodCall(kWatcherService, kWatcherPath, kWatcherService,
                                       QStringLiteral("RegisterStatusNotifierItem"));
    call << QString::fromLatin1(kItemPath);
    // Not waited for. A watcher that has just taken its name may not serve
    // its object yet; then the item is registered again when a host
    // registers with that watcher. One that does not answer in time (busy
    // loading at login, or stopped) is asked again: it takes its messages
    // in order once it runs, and a registration it never answered must not
    // leave the item unregistered for good.
    _registered = false;
    auto *pending = new QDBusPendingCallWatcher(
        QDBusConnection::sessionBus().asyncCall(call, TrayHostWatcher::kAnswerMs), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this,
            [this](QDBusPendingCallWatcher *done) {
                done->deleteLater();
                if (!done->isError()) {
                    confirmListed();
                    return;
                }
                if (tray::unansweredInTime(done->error().name())) registerWithWatcher();
            });
}

void SniItem::confirmListed() {
    QDBusMessage get = QDBusMessage::createMethodCall(
        kWatcherService, kWatcherPath, QStringLiteral("org.freedesktop.DBus.Properties"),
        QStringLiteral("Get"));
    get << kWatcherService << QStringLiteral("RegisteredStatusNotifierItems");
    auto *pending = new QDBusPendingCallWatcher(
        QDBusConnection::sessionBus().asyncCall(get, TrayHostWatcher::kAnswerMs), this);
    connect(
        pending, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *done) {
            done->deleteLater();
            const QDBusMessage reply = done->reply();
            if (tray::unansweredInTime(reply.errorName())) {
                confirmListed(); // as the registration: asked again
                return;
            }
            if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
                return; // a watcher without the property: the reply is all it says
            const QStringList items = qvariant_cast<QDBusVariant>(reply.arguments().constFirst())
                                          .variant()
                                          .toStringList();
            for (const QString &entry : items) {
                if (!isNamedBy(entry)) continue;
                _registered = true;
                emit registrationConfirmed();
                return;
            }
            registerAgain();
        });
}

bool SniItem::isNamedBy(const QString &entry) const {
    const QString path = QString::fromLatin1(kItemPath);
    for (const QString &name : {_uniqueName, _serviceName}) {
        if (name.isEmpty()) continue;
        if (entry == name || entry == name + path || entry == name + QLatin1Char('@') + path)
            return true;
    }
    return false;
}

void SniItem::watcherDroppedItem(const QString &entry) {
    if (isNamedBy(entry)) registerAgain();
}

void SniItem::watcherOwnerChanged(const QString &, const QString &, const QString &newOwner) {
    // A new watcher (or none): whatever the last one did is forgotten.
    _reregistrations = 0;
    _givenUp = false;
    if (newOwner.isEmpty()) _registered = false;
}

void SniItem::registerAgain() {
    _registered = false;
    if (_reregistrations >= kMaxReregistrations) {
        // This host will not keep it: the item is no use there, and the
        // monitor must find another way to be seen.
        if (!_givenUp) {
            _givenUp = true;
            emit droppedForGood();
        }
        return;
    }
    ++_reregistrations;
    if (!_dropLogged) {
        _dropLogged = true;
        quendral::logMessage("The tray host dropped the monitor's icon; it is registered again");
    }
    registerWithWatcher();
}

void SniItem::activate(int x, int y) {
    // Refused, activation lets a host that falls back on failure (Plasma)
    // show the menu it draws, as for a right click, on X11 and Wayland alike.
    if (calledFromDBus())
        sendErrorReply(QDBusError::NotSupported,
                       QStringLiteral("The item is a menu and has no activation of its own"));
    // A host that shows nothing then (lxqt-panel 1.2) gets the menu Qt
    // draws, where it can be placed by the icon; elsewhere (Wayland) it
    // cannot.
    if (QGuiApplication::platformName() != QLatin1String("xcb")) return;
    _activatedAt = QPoint(x, y);
    _activateGrace.start();
}

void SniItem::contextMenu(int x, int y) {
    // As for activation: a host that draws the exported menu all the same
    // gets no second one.
    activate(x, y);
}

SniItemAdaptor::SniItemAdaptor(SniItem *item) : QDBusAbstractAdaptor(item), _item(item) {}

SniToolTip SniItemAdaptor::toolTip() const {
    return SniToolTip{QString(), {}, _item->toolTipText(), QString()};
}

// The menu is the host's to show (ItemIsMenu): a host that honours it sends
// none of these for a click.
void SniItemAdaptor::ContextMenu(int x, int y) {
    _item->contextMenu(x, y);
}
void SniItemAdaptor::Activate(int x, int y) {
    _item->activate(x, y);
}
void SniItemAdaptor::ProvideXdgActivationToken(const QString &token) {
    emit _item->activationTokenGiven(token);
}
void SniItemAdaptor::SecondaryActivate(int, int) {}
void SniItemAdaptor::Scroll(int, const QString &) {}
