#include "TrayHostWatcher.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QDBusVariant>

using tray::kWatcherPath;
using tray::kWatcherService;

TrayHostWatcher::TrayHostWatcher(QObject *parent) : QObject(parent) {
    _noTrayTimer.setSingleShot(true);
    _noTrayTimer.setInterval(kNoTrayNoticeMs);
    connect(&_noTrayTimer, &QTimer::timeout, this, &TrayHostWatcher::noTrayTimedOut);
}

void TrayHostWatcher::start(bool armNoTrayCheck) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        // A watcher that appears, or comes back with a restarted panel, and
        // a host that registers with it.
        auto *watcher = new QDBusServiceWatcher(kWatcherService, bus,
                                                QDBusServiceWatcher::WatchForRegistration, this);
        connect(watcher, &QDBusServiceWatcher::serviceRegistered, this,
                &TrayHostWatcher::watcherAppeared);
        bus.connect(kWatcherService, kWatcherPath, kWatcherService,
                    QStringLiteral("StatusNotifierHostRegistered"), this,
                    SIGNAL(hostDidRegister()));
    }
    if (armNoTrayCheck) _noTrayTimer.start();
}

bool TrayHostWatcher::hostRegistered() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return false;
    QDBusMessage get = QDBusMessage::createMethodCall(
        kWatcherService, kWatcherPath, QStringLiteral("org.freedesktop.DBus.Properties"),
        QStringLiteral("Get"));
    get << kWatcherService << QStringLiteral("IsStatusNotifierHostRegistered");
    const QDBusMessage reply = bus.call(get, QDBus::Block, 2000);
    return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty() &&
           qvariant_cast<QDBusVariant>(reply.arguments().constFirst()).variant().toBool();
}
