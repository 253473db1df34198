// A screenshot of KWin's whole workspace through its ScreenShot2 interface on
// the session bus, saved as a PNG: the end-to-end tests find the icon in it
// and keep it for the reader. KWin answers only a program its desktop file
// grants the interface to (X-KDE-DBUS-Restricted-Interfaces).
//
//   kwin_screenshot OUTPUT.png
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDBusUnixFileDescriptor>
#include <QImage>
#include <QVariantMap>

#include <cstdio>
#include <thread>
#include <unistd.h>

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: kwin_screenshot OUTPUT.png\n");
        return 2;
    }
    int fds[2];
    if (pipe(fds) != 0) return 1;
    // KWin writes the pixels after it answered, and more than a pipe holds:
    // they are read while the call is made.
    QByteArray pixels;
    std::thread reader([&] {
        char buf[65536];
        ssize_t n;
        while ((n = read(fds[0], buf, sizeof buf)) > 0) pixels.append(buf, n);
    });
    QDBusReply<QVariantMap> reply;
    {
        // Every copy of the pipe's writing end closes before the end of the
        // pixels can be seen, the message's own included.
        QDBusMessage call =
            QDBusMessage::createMethodCall("org.kde.KWin", "/org/kde/KWin/ScreenShot2",
                                           "org.kde.KWin.ScreenShot2", "CaptureWorkspace");
        call << QVariantMap{} << QVariant::fromValue(QDBusUnixFileDescriptor(fds[1]));
        close(fds[1]);
        reply = QDBusConnection::sessionBus().call(call, QDBus::Block, 10000);
    }
    reader.join();
    close(fds[0]);
    if (!reply.isValid()) {
        std::fprintf(stderr, "kwin_screenshot: %s\n", qPrintable(reply.error().message()));
        return 1;
    }
    const QVariantMap r = reply.value();
    const int width = r.value("width").toInt(), height = r.value("height").toInt();
    const int stride = r.value("stride").toInt();
    const auto format = QImage::Format(r.value("format").toInt());
    if (width <= 0 || height <= 0 || pixels.size() < qsizetype(stride) * height) {
        std::fprintf(stderr, "kwin_screenshot: %d bytes for %dx%d\n", int(pixels.size()), width,
                     height);
        return 1;
    }
    QImage image(reinterpret_cast<const uchar *>(pixels.constData()), width, height, stride,
                 format);
    return image.save(QString::fromLocal8Bit(argv[1]), "PNG") ? 0 : 1;
}
