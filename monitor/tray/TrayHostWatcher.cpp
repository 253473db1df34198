#include "TrayHostWatcher.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
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

void TrayHostWatcher::askHost() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    // One question at a time: its answer serves whoever asked meanwhile.
    if (!bus.isConnected() || _asking) return;
    QDBusMessage get = QDBusMessage::createMethodCall(
        kWatcherService, kWatcherPath, QStringLiteral("org.freedesktop.DBus.Properties"),
        QStringLiteral("Get"));
    get << kWatcherService << QStringLiteral("IsStatusNotifierHostRegistered");
    _asking = true;
    auto *pending = new QDBusPendingCallWatcher(bus.asyncCall(get, kAnswerMs), this);
    connect(
        pending, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *done) {
            done->deleteLater();
            _asking = false;
            const QDBusMessage reply = done->reply();
            if (reply.type() == QDBusMessage::ReplyMessage) {
                emit hostAnswered(
                    !reply.arguments().isEmpty() &&
                    qvariant_cast<QDBusVariant>(reply.arguments().constFirst()).variant().toBool());
                return;
            }
            // No answer in time: a watcher busy loading (or stopped) takes
            // its messages in order once it runs, so the question is asked
            // again while it holds its name. A watcher that is gone says
            // so when another comes (watcherAppeared).
            if (tray::unansweredInTime(reply.errorName()))
                askHost();
            else
                emit hostAnswered(false);
        });
}
