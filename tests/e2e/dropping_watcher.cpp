// A StatusNotifierWatcher of the tests' own that behaves as a host that
// drops items: it accepts each registration, lists the item, and a moment
// later drops it again (StatusNotifierItemUnregistered, gone from the list),
// as GNOME Shell's AppIndicator extension does with an item whose
// properties it failed to read. The first DROPS registrations are dropped,
// the rest kept. Each registration is written as a line to LOG.
//
//   dropping_watcher DROPS LOG
#include <QCoreApplication>
#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QFile>
#include <QObject>
#include <QStringList>
#include <QTimer>

class Watcher : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ items)
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)
  public:
    Watcher(int drops, QString log) : _drops(drops), _log(std::move(log)) {}
    QStringList items() const { return _items; }
    bool hostRegistered() const { return true; }
    int protocolVersion() const { return 0; }

  public slots:
    void RegisterStatusNotifierItem(const QString &serviceOrPath) {
        // As GNOME's extension names an item registered by its path.
        const QString id = serviceOrPath.startsWith(QLatin1Char('/'))
                               ? message().service() + QLatin1Char('@') + serviceOrPath
                               : serviceOrPath;
        QFile file(_log);
        if (file.open(QIODevice::Append)) file.write((id + QLatin1Char('\n')).toUtf8());
        if (!_items.contains(id)) _items.append(id);
        emitSignal(QStringLiteral("StatusNotifierItemRegistered"), id);
        if (_registrations++ >= _drops) return;
        QTimer::singleShot(300, this, [this, id] {
            _items.removeAll(id);
            emitSignal(QStringLiteral("StatusNotifierItemUnregistered"), id);
        });
    }
    void RegisterStatusNotifierHost(const QString &) {}

  private:
    void emitSignal(const QString &name, const QString &id) {
        QDBusMessage signal =
            QDBusMessage::createSignal(QStringLiteral("/StatusNotifierWatcher"),
                                       QStringLiteral("org.kde.StatusNotifierWatcher"), name);
        signal << id;
        QDBusConnection::sessionBus().send(signal);
    }

    int _drops;
    int _registrations = 0;
    QString _log;
    QStringList _items;
};

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    if (argc != 3) return 2;
    Watcher watcher(QString::fromLocal8Bit(argv[1]).toInt(), QString::fromLocal8Bit(argv[2]));
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject(QStringLiteral("/StatusNotifierWatcher"), &watcher,
                            QDBusConnection::ExportAllSlots |
                                QDBusConnection::ExportAllProperties) ||
        !bus.registerService(QStringLiteral("org.kde.StatusNotifierWatcher")))
        return 1;
    return app.exec();
}

#include "dropping_watcher.moc"
