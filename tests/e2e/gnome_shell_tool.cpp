// What an end-to-end test needs from a headless GNOME Shell on Wayland, which
// has no seat of its own and shows nothing outside:
//
//   gnome_shell_tool input     a pointer and a keyboard through Mutter's
//                              remote desktop interface, for the whole run
//                              (a session that comes and goes loses an open
//                              menu's grab); reads commands, one a line:
//                                move X Y, click X Y B (1 left, 3 right),
//                                key KEYSYM (X keysym, as a number)
//   gnome_shell_tool shot FILE  a screenshot of the whole screen, as a PNG
//   gnome_shell_tool windows    the shell's windows, one a line:
//                                "APP-ID WM-CLASS focused|-"
//
// The shell answers screenshots and its window list only to callers that own
// the names of its own screenshot tool and portal: this tool owns them.
#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusReply>
#include <QThread>

#include <cstdio>

using WindowMap = QMap<quint64, QVariantMap>;
Q_DECLARE_METATYPE(WindowMap)

namespace {

QDBusConnection bus() {
    return QDBusConnection::sessionBus();
}

bool own(const QString &name) {
    auto r =
        bus().interface()->registerService(name, QDBusConnectionInterface::ReplaceExistingService,
                                           QDBusConnectionInterface::DontAllowReplacement);
    return r.isValid() && r.value() == QDBusConnectionInterface::ServiceRegistered;
}

QDBusMessage call(const QString &service, const QString &path, const QString &interface,
                  const QString &method, const QVariantList &args = {}) {
    QDBusMessage m = QDBusMessage::createMethodCall(service, path, interface, method);
    m.setArguments(args);
    QDBusMessage reply = bus().call(m, QDBus::Block, 10000);
    if (reply.type() == QDBusMessage::ErrorMessage)
        std::fprintf(stderr, "gnome_shell_tool: %s: %s\n", qPrintable(method),
                     qPrintable(reply.errorMessage()));
    return reply;
}

int shot(const QString &file) {
    if (!own("org.gnome.Screenshot")) return 1;
    QDBusMessage r = call("org.gnome.Shell.Screenshot", "/org/gnome/Shell/Screenshot",
                          "org.gnome.Shell.Screenshot", "Screenshot", {false, false, file});
    return r.type() == QDBusMessage::ReplyMessage && r.arguments().value(0).toBool() ? 0 : 1;
}

int windows() {
    if (!own("org.freedesktop.impl.portal.desktop.gnome")) return 1;
    qDBusRegisterMetaType<WindowMap>();
    QDBusMessage r = call("org.gnome.Shell.Introspect", "/org/gnome/Shell/Introspect",
                          "org.gnome.Shell.Introspect", "GetWindows");
    if (r.type() != QDBusMessage::ReplyMessage) return 1;
    const auto all = qdbus_cast<WindowMap>(r.arguments().value(0));
    for (const QVariantMap &w : all) {
        auto word = [&](const char *key) {
            QString v = w.value(key).toString();
            return v.isEmpty() ? QStringLiteral("-") : v.replace(' ', '_');
        };
        std::printf("%s %s %s\n", qPrintable(word("app-id")), qPrintable(word("wm-class")),
                    w.value("has-focus").toBool() ? "focused" : "-");
    }
    return 0;
}

// Mutter's remote desktop: a session, and a screen cast of the monitor in it,
// whose stream absolute pointer positions refer to.
class Input : public QObject {
  public:
    bool start() {
        QDBusMessage r = call("org.gnome.Mutter.RemoteDesktop", "/org/gnome/Mutter/RemoteDesktop",
                              "org.gnome.Mutter.RemoteDesktop", "CreateSession");
        if (r.type() != QDBusMessage::ReplyMessage) return false;
        _session = qvariant_cast<QDBusObjectPath>(r.arguments().value(0)).path();
        QDBusMessage id =
            call("org.gnome.Mutter.RemoteDesktop", _session, "org.freedesktop.DBus.Properties",
                 "Get", {"org.gnome.Mutter.RemoteDesktop.Session", "SessionId"});
        const QString sessionId =
            qvariant_cast<QDBusVariant>(id.arguments().value(0)).variant().toString();
        r = call("org.gnome.Mutter.ScreenCast", "/org/gnome/Mutter/ScreenCast",
                 "org.gnome.Mutter.ScreenCast", "CreateSession",
                 {QVariantMap{{"remote-desktop-session-id", sessionId}}});
        if (r.type() != QDBusMessage::ReplyMessage) return false;
        const QString cast = qvariant_cast<QDBusObjectPath>(r.arguments().value(0)).path();
        // An empty connector: the primary monitor.
        r = call("org.gnome.Mutter.ScreenCast", cast, "org.gnome.Mutter.ScreenCast.Session",
                 "RecordMonitor", {QString(), QVariantMap{}});
        if (r.type() != QDBusMessage::ReplyMessage) return false;
        _stream = qvariant_cast<QDBusObjectPath>(r.arguments().value(0)).path();
        r = call("org.gnome.Mutter.RemoteDesktop", _session,
                 "org.gnome.Mutter.RemoteDesktop.Session", "Start");
        return r.type() == QDBusMessage::ReplyMessage;
    }

    void command(const QString &line) {
        const QStringList w = line.split(' ', Qt::SkipEmptyParts);
        if (w.size() == 3 && w[0] == "move") {
            move(w[1].toDouble(), w[2].toDouble());
        } else if (w.size() == 4 && w[0] == "click") {
            move(w[1].toDouble(), w[2].toDouble());
            QThread::msleep(400); // the hover a hand makes before it clicks
            button(w[3].toInt(), true);
            QThread::msleep(150);
            button(w[3].toInt(), false);
        } else if (w.size() == 2 && w[0] == "key") {
            const uint sym = w[1].toUInt(nullptr, 0);
            remote("NotifyKeyboardKeysym", {sym, true});
            QThread::msleep(100);
            remote("NotifyKeyboardKeysym", {sym, false});
        } else {
            std::fprintf(stderr, "gnome_shell_tool: unknown command: %s\n", qPrintable(line));
        }
    }

  private:
    void remote(const char *method, const QVariantList &args) {
        call("org.gnome.Mutter.RemoteDesktop", _session, "org.gnome.Mutter.RemoteDesktop.Session",
             method, args);
    }
    void move(double x, double y) { remote("NotifyPointerMotionAbsolute", {_stream, x, y}); }
    void button(int b, bool pressed) {
        const int code = b == 3 ? 0x111 : 0x110; // BTN_RIGHT, BTN_LEFT
        remote("NotifyPointerButton", {code, pressed});
    }

    QString _session, _stream;
};

} // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() == 3 && args[1] == "shot") return shot(args[2]);
    if (args.size() == 2 && args[1] == "windows") return windows();
    if (args.size() != 2 || args[1] != "input") {
        std::fprintf(stderr, "usage: gnome_shell_tool input | shot FILE | windows\n");
        return 2;
    }
    Input input;
    if (!input.start()) return 1;
    // Every command is a blocking call: no event loop is needed.
    char line[128];
    while (std::fgets(line, sizeof line, stdin)) input.command(QString::fromLatin1(line).trimmed());
    return 0;
}
