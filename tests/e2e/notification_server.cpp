// A desktop notification server of the tests' own: it takes the session's
// org.freedesktop.Notifications name and writes each notification it is
// sent, as "SUMMARY<TAB>BODY" on a line, to the file named on its command
// line. Nothing is shown.
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QFile>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

class NotificationServer : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
  public:
    explicit NotificationServer(QString log) : _log(std::move(log)) {}

  public slots:
    uint Notify(const QString &, uint, const QString &, const QString &summary, const QString &body,
                const QStringList &, const QVariantMap &, int) {
        QFile file(_log);
        if (file.open(QIODevice::Append)) {
            file.write((summary + QLatin1Char('\t') + body + QLatin1Char('\n')).toUtf8());
            file.close();
        }
        return ++_count;
    }
    QStringList GetCapabilities() { return {QStringLiteral("body")}; }
    QString GetServerInformation(QString &vendor, QString &version, QString &specVersion) {
        vendor = QStringLiteral("tests");
        version = QStringLiteral("1");
        specVersion = QStringLiteral("1.2");
        return QStringLiteral("notification_server");
    }
    void CloseNotification(uint) {}

  private:
    QString _log;
    uint _count = 0;
};

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    if (argc != 2) return 2;
    NotificationServer server(QString::fromLocal8Bit(argv[1]));
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &server,
                            QDBusConnection::ExportAllSlots) ||
        !bus.registerService(QStringLiteral("org.freedesktop.Notifications")))
        return 1;
    return app.exec();
}

#include "notification_server.moc"
